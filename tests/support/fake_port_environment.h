#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/ports/port_environment.h"

namespace wharfy::testing {

/// A recorded machine for the port rules: a process table, its sockets and
/// the machine-wide listeners. Records which pids' facts were read.
class FakePortEnvironment final : public PortEnvironment {
  public:
    struct Process {
        nemarro::process::BSDInfo info;
        std::optional<std::string> path;
        std::optional<std::vector<std::string>> arguments;
        std::optional<std::string> cwd;
        std::optional<uint64_t> footprint;
        /// A launchd label naming this process.
        std::optional<std::string> label;
        /// /proc/PID/cgroup text; once any process has one, labels come
        /// from systemd units instead of `label`.
        std::optional<std::string> cgroup;
    };

    std::map<int32_t, Process> processes;
    std::vector<nemarro::process::ListeningSocket> sockets;
    std::vector<NetstatListener> netstat;
    std::vector<int32_t> processReads;

    /// Adds a process; returns it for further setting.
    Process& add(int32_t pid, int32_t ppid, const std::string& name, uint32_t uid = 501,
                 std::optional<std::string> path = std::nullopt) {
        Process& p = processes[pid];
        p.info = {ppid, uid, 1'700'000'000'000'000ULL + static_cast<uint64_t>(pid), name, 3};
        p.path = std::move(path);
        return p;
    }
    /// Adds a listening socket of `pid`.
    void listen(int32_t pid, uint16_t port, const std::string& address,
                nemarro::process::ListeningSocket::AddressClass cls, uint64_t socketID = 0) {
        sockets.push_back({pid, static_cast<int32_t>(sockets.size() + 3),
                           socketID ? socketID : 1000 + sockets.size(), port, 2, cls, address});
    }

    std::vector<nemarro::process::ListeningSocket> listeningSockets() override { return sockets; }
    std::vector<NetstatListener> netstatListeners() override { return netstat; }
    LaunchdJobs launchdJobs() override {
        bool units = false;
        for (const auto& [pid, p] : processes)
            units = units || p.cgroup.has_value();
        if (units) {
            return LaunchdJobs(
                [this](int32_t pid) -> std::optional<UnitPlacement> {
                    auto it = processes.find(pid);
                    if (it == processes.end() || !it->second.cgroup) return std::nullopt;
                    return SystemdLabels::placementFromCgroup(*it->second.cgroup);
                },
                [this](int32_t pid) -> std::optional<int32_t> {
                    auto it = processes.find(pid);
                    if (it == processes.end()) return std::nullopt;
                    return it->second.info.ppid;
                });
        }
        std::map<int32_t, std::string> labels;
        for (const auto& [pid, p] : processes)
            if (p.label) labels[pid] = *p.label;
        return LaunchdJobs(labels);
    }
    std::vector<int32_t> allPIDs() override {
        std::vector<int32_t> pids;
        for (const auto& [pid, p] : processes)
            pids.push_back(pid);
        return pids;
    }
    std::optional<nemarro::process::BSDInfo> process(int32_t pid) override {
        processReads.push_back(pid);
        auto it = processes.find(pid);
        if (it == processes.end()) return std::nullopt;
        return it->second.info;
    }
    std::optional<std::string> executablePath(int32_t pid) override {
        auto it = processes.find(pid);
        return it == processes.end() ? std::nullopt : it->second.path;
    }
    std::optional<std::vector<std::string>> arguments(int32_t pid) override {
        auto it = processes.find(pid);
        return it == processes.end() ? std::nullopt : it->second.arguments;
    }
    std::optional<std::string> currentDirectory(int32_t pid) override {
        auto it = processes.find(pid);
        return it == processes.end() ? std::nullopt : it->second.cwd;
    }
    std::optional<uint64_t> footprint(int32_t pid) override {
        auto it = processes.find(pid);
        return it == processes.end() ? std::nullopt : it->second.footprint;
    }
};

/// A CommandRunner that answers from a table and records every call.
class FakeCommandRunner final : public CommandRunner {
  public:
    std::map<std::vector<std::string>, std::string> answers;
    std::vector<std::vector<std::string>> calls;

    std::optional<std::string> run(const std::string& executable,
                                   const std::vector<std::string>& arguments) override {
        std::vector<std::string> call{executable};
        call.insert(call.end(), arguments.begin(), arguments.end());
        calls.push_back(call);
        auto it = answers.find(call);
        if (it == answers.end()) return std::nullopt;
        return it->second;
    }
};

}  // namespace wharfy::testing
