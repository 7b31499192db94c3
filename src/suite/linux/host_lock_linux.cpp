#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "suite/host_lock.h"

namespace nemarro::suite {

namespace {

// The waiting thread only blocks; a utility-level priority keeps it out of the
// way without starving it (SCHED_IDLE could delay a handover on a busy machine).
constexpr int kLockThreadNice = 10;

class LiveLockFiles final : public LockFiles {
  public:
    Opened open(const std::string& path) override {
        int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0) return {-1, errno};
        return {fd, 0};
    }
    int lock(int fd) override { return ::flock(fd, LOCK_EX) == 0 ? 0 : errno; }
    bool stillNamed(int fd, const std::string& path) override {
        struct stat open {};
        struct stat named {};
        if (::fstat(fd, &open) != 0 || ::lstat(path.c_str(), &named) != 0) return false;
        return open.st_dev == named.st_dev && open.st_ino == named.st_ino;
    }
    void close(int fd) override { ::close(fd); }
};

}  // namespace

std::shared_ptr<LockFiles> liveLockFiles() {
    return std::make_shared<LiveLockFiles>();
}

void prepareHostLockThread() {
    ::pthread_setname_np(::pthread_self(), HostLock::kThreadName);
    // On Linux the nice value belongs to the thread named by its id.
    const auto tid = static_cast<id_t>(::gettid());
    errno = 0;
    const int current = ::getpriority(PRIO_PROCESS, tid);
    if (errno == 0) ::setpriority(PRIO_PROCESS, tid, std::max(current, kLockThreadNice));
}

}  // namespace nemarro::suite
