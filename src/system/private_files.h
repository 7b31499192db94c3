#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "common/result.h"

namespace wharfy {

/// Why a private file could not be written: the failing step and its errno.
struct FileError {
    std::string path;
    int error = 0;

    bool operator==(const FileError&) const = default;
    /// A sentence for the user, e.g. "Could not write /x/y (Permission denied).".
    std::string message() const;
};

/// Makes `folder` and any missing parents with mode 0700. An existing folder
/// is accepted only when it is a directory itself, not a symbolic link.
Result<Ok, FileError> makePrivateFolder(const std::string& folder);

/// Replaces `path` with `bytes` atomically: a new file (0600, never through
/// a symbolic link) in the same folder, flushed, then renamed over `path`.
/// The folder is made first, as `makePrivateFolder` does.
Result<Ok, FileError> writePrivateFile(const std::string& path, const std::string& bytes);

/// The contents of the regular file `path`, read without following a
/// symbolic link; absent when it cannot be read or is larger than `limit`.
std::optional<std::string> readSmallFile(const std::string& path, size_t limit);

/// The folder part of `path` ("." when it has none).
std::string parentFolder(const std::string& path);

}  // namespace wharfy
