#include "process/linux/procfs.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>

#include "process/linux/proc_parse.h"

namespace nemarro::process::linux {

int procDir() {
    static const int fd = ::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return fd;
}

uint64_t bootTime() {
    static const uint64_t value = [] {
        std::string text;
        if (!readAll("stat", text)) return uint64_t{0};
        return parseBootTime(text).value_or(0);
    }();
    return value;
}

uint64_t ticksPerSecond() {
    static const uint64_t value = [] {
        long t = ::sysconf(_SC_CLK_TCK);
        return t > 0 ? static_cast<uint64_t>(t) : uint64_t{100};
    }();
    return value;
}

std::optional<std::string_view> readSmall(const char* relativePath, char* buffer, size_t capacity) {
    int fd = ::openat(procDir(), relativePath, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    size_t used = 0;
    while (used < capacity) {
        ssize_t n = ::read(fd, buffer + used, capacity - used);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n < 0) used = SIZE_MAX;
            break;
        }
        used += static_cast<size_t>(n);
    }
    ::close(fd);
    if (used == SIZE_MAX) return std::nullopt;
    return std::string_view(buffer, used);
}

bool readAll(const char* relativePath, std::string& out) {
    int fd = ::openat(procDir(), relativePath, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    out.clear();
    char chunk[4096];
    bool ok = true;
    for (;;) {
        ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) ok = false;
        if (n <= 0) break;
        out.append(chunk, static_cast<size_t>(n));
    }
    ::close(fd);
    return ok;
}

std::optional<std::string> readLink(const char* relativePath) {
    char buf[PATH_MAX];
    ssize_t n = ::readlinkat(procDir(), relativePath, buf, sizeof buf);
    if (n <= 0) return std::nullopt;
    return std::string(buf, static_cast<size_t>(n));
}

}  // namespace nemarro::process::linux
