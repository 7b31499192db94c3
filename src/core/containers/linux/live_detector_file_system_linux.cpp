#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <system_error>
#include <thread>

#include "core/containers/http.h"
#include "core/containers/runtime_detector.h"

namespace wharfy {

DetectorPlatform currentDetectorPlatform() {
    return DetectorPlatform::linuxOS;
}

const char* diskImageNote() {
    return "Space freed inside the VM does not shrink the disk image on this computer until the "
           "VM discards it.";
}

std::optional<std::string> LiveDetectorFileSystem::resolve(const std::string& path) const {
    char buffer[PATH_MAX];
    if (::realpath(path.c_str(), buffer) == nullptr) return std::nullopt;
    return std::string(buffer);
}

bool LiveDetectorFileSystem::isSocket(const std::string& path) const {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

std::vector<SocketAnswer> LiveDetectorFileSystem::ping(
    const std::vector<std::string>& sockets) const {
    auto deadline = UnixSocketTransport::Clock::now() + std::chrono::seconds(kProbeTimeoutSeconds);
    if (notAfter_) deadline = std::min(deadline, *notAfter_);
    std::vector<SocketAnswer> answers(sockets.size(), SocketAnswer::refused);
    auto pingOne = [&](size_t i) {
        answers[i] = pingAnswer(
            UnixSocketTransport(sockets[i], kProbeTimeoutSeconds, deadline).get("/_ping"));
    };
    if (sockets.size() == 1) {
        pingOne(0);
        return answers;
    }
    // One thread per socket: a socket that never answers costs the shared
    // deadline once, however many there are.
    std::vector<std::thread> threads;
    threads.reserve(sockets.size());
    for (size_t i = 0; i < sockets.size(); ++i) {
        try {
            threads.emplace_back(pingOne, i);
        } catch (const std::system_error&) {
            pingOne(i);  // no thread to be had: ask it here, still within the deadline
        }
    }
    for (auto& t : threads)
        t.join();
    return answers;
}

bool LiveDetectorFileSystem::exists(const std::string& path) const {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

std::vector<std::string> LiveDetectorFileSystem::subdirectories(const std::string& path) const {
    std::vector<std::string> names;
    DIR* dir = ::opendir(path.c_str());
    if (!dir) return names;
    while (const dirent* entry = ::readdir(dir)) {
        std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        struct stat st {};
        if (::stat((path + "/" + name).c_str(), &st) == 0 && S_ISDIR(st.st_mode))
            names.push_back(std::move(name));
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<std::string> LiveDetectorFileSystem::contents(const std::string& path) const {
    // Non-blocking, so that a FIFO in place of the file cannot hold detection.
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return std::nullopt;
    std::string out;
    char buffer[16384];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0) {
        if (out.size() + static_cast<size_t>(n) > kMaxContextFileBytes) {
            n = -1;
            break;
        }
        out.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    if (n < 0) return std::nullopt;
    return out;
}

}  // namespace wharfy
