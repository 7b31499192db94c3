#include "system/private_files.h"
#include "common/descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace wharfy {
namespace {

bool writeAll(int fd, std::string_view bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

std::string FileError::message() const {
    return "Could not write " + path + " (" + reason() + ").";
}

std::string FileError::reason() const {
    return std::strerror(error);
}

std::string parentFolder(const std::string& path) {
    const auto slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

Result<Ok, FileError> makePrivateFolder(const std::string& folder) {
    struct stat st {};
    if (::lstat(folder.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) return Ok{};
        return FileError{folder, S_ISLNK(st.st_mode) ? ELOOP : ENOTDIR};
    }
    if (errno != ENOENT) return FileError{folder, errno};
    const std::string parent = parentFolder(folder);
    if (parent != folder && parent != "." && parent != "/") {
        auto made = makePrivateFolder(parent);
        if (!made) return made;
    }
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return FileError{folder, errno};
    if (::lstat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        return FileError{folder, ENOTDIR};
    return Ok{};
}

Result<Ok, FileError> writePrivateFile(const std::string& path, std::string_view bytes,
                                       FolderPolicy policy) {
    const auto slash = path.rfind('/');
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    if (name.empty() || name == "." || name == "..") return FileError{path, EISDIR};
    if (policy == FolderPolicy::makePrivate)
        if (auto made = makePrivateFolder(parentFolder(path)); !made) return made;
    const std::string prefix = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    // mkostemp makes the file 0600 and never opens an existing name or link.
    std::string temporary = prefix + "." + name + ".XXXXXX";
    Descriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
    if (file.get() < 0) return FileError{path, errno};
    const bool written = writeAll(file.get(), bytes) && ::fsync(file.get()) == 0;
    const int writeError = errno;
    if (::close(file.release()) != 0 || !written) {
        const int error = written ? errno : writeError;
        ::unlink(temporary.c_str());
        return FileError{path, error ? error : EIO};
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        return FileError{path, error};
    }
    return Ok{};
}

std::optional<std::string> readSmallFile(const std::string& path, size_t limit) {
    Descriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.get() < 0) return std::nullopt;
    struct stat st {};
    if (::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
        static_cast<uint64_t>(st.st_size) > limit)
        return std::nullopt;
    std::string out;
    char chunk[16384];
    for (;;) {
        const ssize_t n = ::read(file.get(), chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) break;
        out.append(chunk, static_cast<size_t>(n));
        if (out.size() > limit) return std::nullopt;
    }
    return out;
}

}  // namespace wharfy
