#include "core/ports/project_resolver.h"

#include <sys/stat.h>

namespace wharfy {

namespace {
constexpr const char* kPrivacyFolders[] = {"Documents", "Desktop", "Downloads",
                                           "Library/Mobile Documents", "Library/CloudStorage"};
}

ProjectResolver::ProjectResolver(std::string home, bool hasFullDiskAccess,
                                 std::function<bool(const std::string&)> exists)
    : home_(std::move(home)), hasFullDiskAccess_(hasFullDiskAccess), exists_(std::move(exists)) {
    while (home_.size() > 1 && home_.back() == '/')
        home_.pop_back();
}

std::string ProjectResolver::abbreviate(const std::string& path) const {
    if (path == home_) return "~";
    if (path.starts_with(home_ + "/")) return "~" + path.substr(home_.size());
    return path;
}

bool ProjectResolver::isInPrivacyFolder(const std::string& path) const {
    for (const char* folder : kPrivacyFolders) {
        const std::string base = home_ + "/" + folder;
        if (path == base || path.starts_with(base + "/")) return true;
    }
    return false;
}

ProjectInfo ProjectResolver::resolve(const std::string& workingDirectory) const {
    const std::string& w = workingDirectory;
    if (!hasFullDiskAccess_ && isInPrivacyFolder(w)) return {abbreviate(w), false};
    if (w != "/") {
        std::string d = w;
        // The home folder itself is never a project, even when it holds .git.
        while (!d.empty() && d != home_) {
            if (exists_(d + "/.git")) return {abbreviate(d), true};
            auto slash = d.rfind('/');
            if (slash == std::string::npos || slash == 0) break;
            d.resize(slash);
        }
    }
    return {abbreviate(w), false};
}

bool ProjectResolver::pathExists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

}  // namespace wharfy
