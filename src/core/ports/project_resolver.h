#pragma once

#include <functional>
#include <string>

#include "core/ports/port_row.h"

namespace wharfy {

/// Names the project a working directory belongs to: the nearest enclosing
/// folder below home that holds a ".git" entry, with home shown as "~".
/// Without full disk access it never looks inside privacy-protected folders.
class ProjectResolver {
  public:
    /// `home` without a trailing "/"; `exists` tells whether a path exists.
    ProjectResolver(std::string home, bool hasFullDiskAccess,
                    std::function<bool(const std::string&)> exists);

    ProjectInfo resolve(const std::string& workingDirectory) const;

    /// `path` with the home folder replaced by "~".
    std::string abbreviate(const std::string& path) const;
    /// Whether `path` is inside one of the privacy-protected folders of home.
    bool isInPrivacyFolder(const std::string& path) const;

    /// An `exists` over the real file system (lstat, links not followed).
    static bool pathExists(const std::string& path);

  private:
    std::string home_;
    bool hasFullDiskAccess_;
    std::function<bool(const std::string&)> exists_;
};

}  // namespace wharfy
