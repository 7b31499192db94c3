#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>

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

bool LiveDetectorFileSystem::canConnect(const std::string& path) const {
    return UnixSocketTransport(path, 3).get("/_ping").ok();
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
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return std::nullopt;
    std::string out;
    char buffer[16384];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0)
        out.append(buffer, static_cast<size_t>(n));
    ::close(fd);
    if (n < 0) return std::nullopt;
    return out;
}

}  // namespace wharfy
