#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/containers/runtime_detector.h"

namespace wharfy::testing {

/// An in-memory file system for the runtime detector: sockets (with links to
/// them), folders, files, and what each socket answers. Records each batch of
/// sockets pinged.
class FakeDetectorFileSystem final : public DetectorFileSystem {
  public:
    /// path → resolved path, for every socket path and link to one.
    std::map<std::string, std::string> sockets;
    /// Resolved socket path → its answer; a socket not listed refuses.
    std::map<std::string, SocketAnswer> answers;
    std::set<std::string> paths;
    std::map<std::string, std::vector<std::string>> folders;
    std::map<std::string, std::string> files;
    mutable std::vector<std::vector<std::string>> pingBatches;

    /// A socket at `path` (resolving to `target`, itself when empty).
    void addSocket(const std::string& path, SocketAnswer answer, const std::string& target = "") {
        const std::string resolved = target.empty() ? path : target;
        sockets[path] = resolved;
        answers[resolved] = answer;
    }
    void addSocket(const std::string& path, bool answering, const std::string& target = "") {
        addSocket(path, answering ? SocketAnswer::answered : SocketAnswer::refused, target);
    }
    /// Every socket pinged, in order.
    std::vector<std::string> pinged() const {
        std::vector<std::string> all;
        for (const auto& batch : pingBatches)
            all.insert(all.end(), batch.begin(), batch.end());
        return all;
    }

    std::optional<std::string> resolve(const std::string& path) const override {
        if (auto it = sockets.find(path); it != sockets.end()) return it->second;
        if (paths.contains(path) || folders.contains(path)) return path;
        return std::nullopt;
    }
    bool isSocket(const std::string& path) const override { return sockets.contains(path); }
    std::vector<SocketAnswer> ping(const std::vector<std::string>& batch) const override {
        pingBatches.push_back(batch);
        std::vector<SocketAnswer> out;
        for (const auto& path : batch) {
            auto it = sockets.find(path);
            auto answer = it == sockets.end() ? answers.end() : answers.find(it->second);
            out.push_back(answer == answers.end() ? SocketAnswer::refused : answer->second);
        }
        return out;
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
