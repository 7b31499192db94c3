#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/stop/stop_environment.h"

namespace wharfy::testing {

/// One process of the fake machine.
struct FakeProcess {
    int32_t pid = 0;
    int32_t ppid = 1;
    uint32_t uid = 501;
    uint64_t startTime = 1'700'000'000'000'000;
    std::string name;
    std::optional<std::string> path;
    std::vector<std::string> arguments;
    bool zombie = false;
    ListenerRole role;
    /// Ports it holds a listening socket on.
    std::set<uint16_t> ports;
};

/// A process table and socket table held in memory; tests change it between calls.
class FakeStopEnvironment final : public StopEnvironment {
  public:
    std::map<int32_t, FakeProcess> processes;
    /// Ports with a listening socket no readable process holds.
    std::set<uint16_t> hiddenPorts;
    int holderReads = 0;

    FakeProcess& add(FakeProcess p) { return processes[p.pid] = std::move(p); }
    FakeProcess& add(int32_t pid, int32_t ppid, std::string name,
                     std::vector<std::string> arguments = {}, std::set<uint16_t> ports = {}) {
        FakeProcess p;
        p.pid = pid;
        p.ppid = ppid;
        p.name = std::move(name);
        p.arguments = std::move(arguments);
        p.ports = std::move(ports);
        return add(std::move(p));
    }

    std::vector<int32_t> allPIDs() override {
        std::vector<int32_t> out;
        for (const auto& [pid, p] : processes)
            out.push_back(pid);
        return out;
    }
    std::optional<nemarro::process::BSDInfo> process(int32_t pid) override {
        auto p = find(pid);
        if (!p) return std::nullopt;
        nemarro::process::BSDInfo info;
        info.ppid = p->ppid;
        info.uid = p->uid;
        info.startTime = p->startTime;
        info.name = p->name;
        info.status = p->zombie ? nemarro::process::BSDInfo::kZombie : 2;
        return info;
    }
    std::optional<std::string> executablePath(int32_t pid) override {
        auto p = find(pid);
        return p ? p->path : std::nullopt;
    }
    std::optional<std::vector<std::string>> arguments(int32_t pid) override {
        auto p = find(pid);
        if (!p || p->arguments.empty()) return std::nullopt;
        return p->arguments;
    }
    PortHolders holders(uint16_t port) override {
        ++holderReads;
        PortHolders out;
        for (const auto& [pid, p] : processes) {
            if (!p.zombie && p.ports.contains(port)) out.pids.insert(pid);
        }
        out.hidden = hiddenPorts.contains(port);
        return out;
    }
    ListenerRole role(int32_t pid, std::optional<uint16_t>) override {
        auto p = find(pid);
        return p ? p->role : ListenerRole{};
    }

  private:
    const FakeProcess* find(int32_t pid) const {
        auto it = processes.find(pid);
        return it == processes.end() ? nullptr : &it->second;
    }
};

}  // namespace wharfy::testing
