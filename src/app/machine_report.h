#pragma once

#include <functional>
#include <vector>

#include "app/agents_command.h"
#include "app/containers_command.h"
#include "app/model/machine_reader.h"

namespace wharfy::app {

/// One reading of the whole machine for the one-shot report and the
/// headless commands: ports and sessions with CPU figures, and the runtimes.
struct MachineReport {
    /// With the containers attached.
    std::vector<PortRow> ports;
    AgentsReport agents;
    std::vector<RuntimeReport> runtimes;
};

/// Reads the process table twice, `interval` seconds apart (waiting through
/// `sleep`), so that ports and sessions carry CPU figures; the runtimes are
/// read meanwhile when `withRuntimes` is set.
MachineReport readMachine(MachineReader& reader, bool withRuntimes,
                          const std::function<void(double seconds)>& sleep, double interval = 1.0);

/// A sleep on the real clock.
void sleepSeconds(double seconds);

}  // namespace wharfy::app
