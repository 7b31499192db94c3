#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "common/result.h"

namespace wharfy {

/// Why a private file could not be written: the failing step and its errno.
struct FileError {
    std::string path;
    int error = 0;

    bool operator==(const FileError&) const = default;
    /// A sentence for the user, e.g. "Could not write /x/y (Permission denied).".
    std::string message() const;
    /// The errno's text, e.g. "Permission denied".
    std::string reason() const;
};

/// Whether writing a file may make its folder.
enum class FolderPolicy {
    /// Wharfy's own folders: made 0700 when missing, refused when a link.
    makePrivate,
    /// A folder the user named: it must exist, and may be reached by a link.
    mustExist,
};

/// Makes `folder` and any missing parents with mode 0700. An existing folder
/// is accepted only when it is a directory itself, not a symbolic link.
Result<Ok, FileError> makePrivateFolder(const std::string& folder);

/// Replaces `path` with `bytes` as a whole or not at all: a new hidden file
/// (0600, never an existing name or link) in the same folder, flushed, then
/// renamed over `path`, so a link at `path` is replaced, never followed.
Result<Ok, FileError> writePrivateFile(const std::string& path, std::string_view bytes,
                                       FolderPolicy folder = FolderPolicy::makePrivate);

/// The contents of the regular file `path`, read without following a
/// symbolic link; absent when it cannot be read or is larger than `limit`.
std::optional<std::string> readSmallFile(const std::string& path, size_t limit);

/// The folder part of `path` ("." when it has none).
std::string parentFolder(const std::string& path);

}  // namespace wharfy
