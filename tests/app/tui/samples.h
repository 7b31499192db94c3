#pragma once

#include <string>

#include "app/tui/view_data.h"

namespace wharfy::app::tui::samples {

inline PortRow port(uint16_t number, std::string name, int32_t pid,
                    AddressClass reach = AddressClass::thisMacOnly) {
    PortRow r;
    r.port = number;
    r.pid = pid;
    r.startTime = 1000 + static_cast<uint64_t>(pid);
    r.processName = std::move(name);
    r.addresses = {reach == AddressClass::allNetworks ? "0.0.0.0" : "127.0.0.1"};
    r.addressClass = reach;
    r.isOwnedByUser = true;
    r.footprint = 120'000'000;
    r.cpuPercent = 1.5;
    r.commandLine = std::vector<std::string>{r.processName, "--port", std::to_string(number)};
    r.project = ProjectInfo{"~/src/web", true};
    return r;
}

inline RuntimeInfo podman() {
    RuntimeInfo info;
    info.kind.value = RuntimeKind::Podman{};
    info.displayName = "Podman";
    info.socketPath = "/run/podman.sock";
    info.status = RuntimeStatus::running;
    return info;
}

inline ContainerInfo container(std::string id, std::string name, std::string state) {
    ContainerInfo c;
    c.id = std::move(id);
    c.names = {"/" + name};
    c.image = "busybox:latest";
    c.state = std::move(state);
    return c;
}

/// Podman with a running and a stopped container, a dangling image, a used
/// and an unused volume and some build cache.
inline RuntimeState busyRuntime() {
    RuntimeState r;
    r.info = podman();
    r.containers = {container("aaaaaaaaaaaa1111", "web", "running"),
                    container("bbbbbbbbbbbb2222", "old", "exited")};
    CachedSizes sizes;
    sizes.usage.images = {{"sha256:dddddddddddd0000", {}, 2'500'000'000, 0},
                          {"sha256:eeeeeeeeeeee0000", {"busybox:latest"}, 4'000'000, 2}};
    sizes.usage.volumes = {{"pgdata", 1, 300'000'000}, {"scratch", 0, 12'000'000}};
    sizes.usage.buildCache = {{"c1", 700'000'000, false}, {"c2", 5, true}};
    sizes.danglingImageIDs = {"sha256:dddddddddddd0000"};
    r.sizes = sizes;
    return r;
}

inline ViewData data() {
    ViewData d;
    d.ports = {port(3000, "node", 812, AddressClass::allNetworks), port(5432, "postgres", 90)};
    d.totalPorts = d.ports.size();
    d.counts.listening = 2;
    d.counts.openToNetwork = 1;
    d.counts.containersRunning = 1;
    d.lastRefresh = 1'767'225'600.0;
    d.runtimeAnswered = true;
    d.runtimes = {busyRuntime()};
    d.history = HistorySummary{};
    d.clock = [](double) { return std::string("14:03:21"); };
    return d;
}

}  // namespace wharfy::app::tui::samples
