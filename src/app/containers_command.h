#pragma once

#include <nlohmann/json_fwd.hpp>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "app/model/machine_reader.h"
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
    /// "Could not read the runtime (…)." when its containers could not be read.
    std::optional<std::string> error;
    /// "Could not read sizes (…)." when the containers were read but the
    /// disk use was not.
    std::optional<std::string> sizesError;

    bool operator==(const RuntimeReport&) const = default;
};

/// What the one-shot report gives the engines in all; past it, a runtime
/// still being read is reported as not having answered in time.
inline constexpr std::chrono::milliseconds kReportEngineBudget{3000};

/// Asks every runtime `reader` finds, each on its own thread, for its
/// containers and disk use: a runtime is read as soon as its own socket
/// answered, whatever the others do.
std::vector<RuntimeReport> readRuntimes(MachineReader& reader);

/// The object printed by `wharfy --containers-json`: {"runtimes": [...]},
/// each with its "state" ("running", "notRunning", "notAnswering",
/// "permissionDenied" or "remote").
nlohmann::json containersJson(const std::vector<RuntimeReport>& reports);

/// The runtime section printed by `wharfy`: each runtime's state, its
/// containers with their published ports, and its disk figures.
std::string containersText(const std::vector<RuntimeReport>& reports);

/// Every container read, for attaching to the port rows.
std::vector<ContainerInfo> allContainers(const std::vector<RuntimeReport>& reports);

}  // namespace wharfy::app
