#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/containers/runtime_detector.h"

namespace wharfy::testing {

/// An in-memory file system for the runtime detector: sockets (with links to
/// them), folders, files, and which sockets answer. Records each socket pinged.
class FakeDetectorFileSystem final : public DetectorFileSystem {
  public:
    /// path → resolved path, for every socket path and link to one.
    std::map<std::string, std::string> sockets;
    /// Resolved socket paths that have an engine behind them.
    std::set<std::string> answering;
    std::set<std::string> paths;
    std::map<std::string, std::vector<std::string>> folders;
    std::map<std::string, std::string> files;
    mutable std::vector<std::string> pinged;

    /// A socket at `path` (resolving to `target`, itself when empty).
    void addSocket(const std::string& path, bool answers, const std::string& target = "") {
        const std::string resolved = target.empty() ? path : target;
        sockets[path] = resolved;
        if (answers) answering.insert(resolved);
    }

    std::optional<std::string> resolve(const std::string& path) const override {
        if (auto it = sockets.find(path); it != sockets.end()) return it->second;
        if (paths.contains(path) || folders.contains(path)) return path;
        return std::nullopt;
    }
    bool isSocket(const std::string& path) const override { return sockets.contains(path); }
    bool canConnect(const std::string& path) const override {
        pinged.push_back(path);
        auto it = sockets.find(path);
        return it != sockets.end() && answering.contains(it->second);
    }
    bool exists(const std::string& path) const override {
        return paths.contains(path) || folders.contains(path) || files.contains(path) ||
               sockets.contains(path);
    }
    std::vector<std::string> subdirectories(const std::string& path) const override {
        auto it = folders.find(path);
        return it == folders.end() ? std::vector<std::string>{} : it->second;
    }
    std::optional<std::string> contents(const std::string& path) const override {
        auto it = files.find(path);
        if (it == files.end()) return std::nullopt;
        return it->second;
    }
};

}  // namespace wharfy::testing
