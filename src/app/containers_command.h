#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

#include "core/containers/container_service.h"
#include "core/containers/runtime_detector.h"

namespace wharfy::app {

/// What one refresh read from one detected runtime.
struct RuntimeReport {
    RuntimeInfo runtime;
    std::vector<ContainerInfo> containers;
    std::optional<CachedSizes> sizes;
    /// The runtime's disk-image files that exist on this computer.
    std::vector<DiskFile> diskFiles;
    /// The user-facing text of a failed read.
    std::optional<std::string> error;

    bool operator==(const RuntimeReport&) const = default;
};

/// Reads one runtime: containers and sizes through `service` when it is
/// measurable, and its disk images in any case.
RuntimeReport readRuntime(const RuntimeInfo& runtime, ContainerService* service);

/// Detects the runtimes of `home` and reads each one. Blocking: up to a few
/// seconds per engine that does not answer.
std::vector<RuntimeReport> readRuntimes(const std::string& home,
                                        const std::optional<std::string>& xdgRuntimeDir);

/// The object printed by `wharfy --containers-json`: {"runtimes": [...]}.
nlohmann::json containersJson(const std::vector<RuntimeReport>& reports);

/// The runtime section printed by `wharfy`: each runtime's state, its
/// containers with their published ports, and its disk figures.
std::string containersText(const std::vector<RuntimeReport>& reports);

/// Every container read, for attaching to the port rows.
std::vector<ContainerInfo> allContainers(const std::vector<RuntimeReport>& reports);

}  // namespace wharfy::app
