#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace nemarro::process {

/// A process as remembered across refreshes: pid plus start time, so that a
/// pid the kernel hands to a new process never matches the old one.
struct ProcessIdentity {
    int32_t pid = 0;
    /// Microseconds since the Unix epoch.
    uint64_t startTime = 0;

    bool operator==(const ProcessIdentity&) const = default;

    /// "pid@startTime", e.g. "812@1700000000000000".
    std::string text() const;

    /// The identity of whatever process holds `pid` right now; absent when none can be read.
    static std::optional<ProcessIdentity> current(int32_t pid);
};

/// A process as a stop names it: who it is (pid and start time, so a reused
/// pid never matches) and what the user was shown.
struct ProcessRef {
    ProcessIdentity identity;
    std::string name;
    std::optional<std::string> path;
    /// Empty when the arguments could not be read.
    std::vector<std::string> commandLine;

    bool operator==(const ProcessRef&) const = default;
};

/// A file as remembered across refreshes: device and inode of the path itself
/// (symbolic links are identified, not followed).
struct FileIdentity {
    uint64_t device = 0;
    uint64_t inode = 0;

    bool operator==(const FileIdentity&) const = default;

    /// "device:inode".
    std::string text() const;

    /// lstat of `path`; absent when it fails.
    static std::optional<FileIdentity> of(const std::string& path);
};

}  // namespace nemarro::process

template <>
struct std::hash<nemarro::process::ProcessIdentity> {
    size_t operator()(const nemarro::process::ProcessIdentity& id) const noexcept {
        return std::hash<uint64_t>{}(id.startTime * 0x9E3779B97F4A7C15ULL ^
                                     static_cast<uint32_t>(id.pid));
    }
};

template <>
struct std::hash<nemarro::process::FileIdentity> {
    size_t operator()(const nemarro::process::FileIdentity& id) const noexcept {
        return std::hash<uint64_t>{}(id.device * 0x9E3779B97F4A7C15ULL ^ id.inode);
    }
};
