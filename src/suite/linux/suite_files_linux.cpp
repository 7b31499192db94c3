#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "common/descriptor.h"
#include "suite/glance_store.h"
#include "suite/suite_folder.h"

namespace nemarro::suite {

using wharfy::Descriptor;

namespace {

std::string temporaryName(const std::string& name) {
    static std::atomic<unsigned> counter{0};
    const auto clock = std::chrono::steady_clock::now().time_since_epoch().count();
    char suffix[64];
    std::snprintf(suffix, sizeof suffix, ".%d.%u.%llx", static_cast<int>(::getpid()),
                  counter.fetch_add(1), static_cast<unsigned long long>(clock));
    return "." + name + suffix;
}

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

// One folder of the path: an existing directory (links followed, as a user may
// keep the folder elsewhere) is fine; a missing one is created 0700.
std::optional<SuiteFileError> ensureFolder(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) return std::nullopt;
        return SuiteFileError{"create the folder", path, ENOTDIR};
    }
    if (::mkdir(path.c_str(), 0700) != 0) {
        if (errno == EEXIST && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
            return std::nullopt;
        return SuiteFileError{"create the folder", path, errno};
    }
    // mkdir's mode passes through the umask; the folder must end up exactly 0700.
    if (::chmod(path.c_str(), 0700) != 0) return SuiteFileError{"protect the folder", path, errno};
    return std::nullopt;
}

}  // namespace

SafeRead safeRead(const std::string& path, size_t limit) {
    Descriptor fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0) {
        if (errno == ENOENT) return SafeReadMissing{};
        return SafeReadFailure{"unreadable (errno " + std::to_string(errno) + ")"};
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) return SafeReadFailure{"unreadable"};
    if (!S_ISREG(st.st_mode)) return SafeReadFailure{"not a regular file"};
    if (st.st_uid != ::getuid()) return SafeReadFailure{"not owned by this user"};
    std::string bytes;
    char chunk[4096];
    while (bytes.size() < limit) {
        const size_t want = std::min(sizeof chunk, limit - bytes.size());
        ssize_t n = ::read(fd.get(), chunk, want);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return SafeReadFailure{"unreadable"};
        if (n == 0) break;
        bytes.append(chunk, static_cast<size_t>(n));
    }
    return SafeReadData{std::move(bytes)};
}

wharfy::Result<wharfy::Ok, SuiteFileError> writeFileAtomically(const std::string& folder,
                                                               const std::string& name,
                                                               std::string_view bytes) {
    const std::string target = folder + "/" + name;
    Descriptor dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (dir.get() < 0) return SuiteFileError{"open the folder", folder, errno};
    std::string temporary;
    int fd = -1;
    for (int attempt = 0; attempt < 16 && fd < 0; ++attempt) {
        temporary = temporaryName(name);
        fd = ::openat(dir.get(), temporary.c_str(),
                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0 && errno != EEXIST) break;
    }
    if (fd < 0) return SuiteFileError{"write", target, errno};
    Descriptor file(fd);
    const auto fail = [&](const char* action, int error) {
        ::unlinkat(dir.get(), temporary.c_str(), 0);
        return SuiteFileError{action, target, error};
    };
    // The umask may have taken away the owner's own read permission.
    if (::fchmod(file.get(), 0600) != 0) return fail("write", errno);
    if (!writeAll(file.get(), bytes)) return fail("write", errno);
    if (!file.close()) return fail("write", errno);
    if (::renameat(dir.get(), temporary.c_str(), dir.get(), name.c_str()) != 0)
        return fail("replace", errno);
    return wharfy::Ok{};
}

wharfy::Result<wharfy::Ok, SuiteFileError> SuiteFolder::prepare() const {
    std::vector<std::string> folders;
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1))
        folders.push_back(path.substr(0, slash));
    folders.push_back(path);
    folders.push_back(glancesPath());
    for (const std::string& folder : folders)
        if (auto error = ensureFolder(folder)) return *error;
    return wharfy::Ok{};
}

SuiteLocationFacts SuiteFolder::liveFacts() {
    SuiteLocationFacts facts;
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
    passwd entry{};
    passwd* found = nullptr;
    while (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
           buffer.size() < (1u << 20))
        buffer.resize(buffer.size() * 2);
    if (found && found->pw_dir) facts.passwordHome = std::string(found->pw_dir);
    if (const char* home = std::getenv("HOME")) facts.homeVariable = std::string(home);
    facts.sandboxed = isSandboxed([](const char* name) { return std::getenv(name) != nullptr; });
    return facts;
}

}  // namespace nemarro::suite
