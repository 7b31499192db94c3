#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "suite_ui/folder_watch.h"

namespace nemarro::suite_ui {
namespace {

// Writes count once the writer closes the file, so a reader never sees it half
// written; renames in and out cover the atomic replacement of a file.
constexpr uint32_t kEvents =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE | IN_ONLYDIR;

class InotifyWatch final : public FolderWatch {
  public:
    InotifyWatch(wharfy::app::EventLoop& loop, int fd, std::function<void()> changed)
        : loop_(loop), fd_(fd), changed_(std::move(changed)) {
        loop_.watch(fd_, [this] { drain(); });
    }
    ~InotifyWatch() override {
        loop_.unwatch(fd_);
        ::close(fd_);
    }
    InotifyWatch(const InotifyWatch&) = delete;
    InotifyWatch& operator=(const InotifyWatch&) = delete;

  private:
    // Reads every queued event and reports the burst once. The callback may
    // destroy this watch, so nothing is touched after it.
    void drain() {
        alignas(inotify_event) char buffer[4096];
        bool any = false;
        for (int reads = 0; reads < 64; ++reads) {
            const ssize_t n = ::read(fd_, buffer, sizeof buffer);
            if (n > 0) {
                any = true;
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            break;
        }
        if (any) changed_();
    }

    wharfy::app::EventLoop& loop_;
    int fd_;
    std::function<void()> changed_;
};

}  // namespace

std::unique_ptr<FolderWatch> watchWithInotify(wharfy::app::EventLoop& loop,
                                              const std::vector<std::string>& folders,
                                              std::function<void()> changed, const Log& log) {
    const int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0) {
        if (log) log("suite folder not watched: " + std::string(std::strerror(errno)));
        return nullptr;
    }
    int watched = 0;
    for (const std::string& folder : folders) {
        if (::inotify_add_watch(fd, folder.c_str(), kEvents | IN_DONT_FOLLOW) >= 0) {
            ++watched;
        } else if (log) {
            log("suite folder not watched: " + folder + ": " + std::strerror(errno));
        }
    }
    if (watched == 0) {
        ::close(fd);
        return nullptr;
    }
    return std::make_unique<InotifyWatch>(loop, fd, std::move(changed));
}

}  // namespace nemarro::suite_ui
