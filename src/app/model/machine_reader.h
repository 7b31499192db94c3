#pragma once

#include <optional>
#include <string>
#include <vector>

#include "common/result.h"
#include "core/agents/agent_session.h"
#include "core/containers/container_service.h"
#include "core/containers/runtime_detector.h"
#include "core/ports/port_row.h"

namespace wharfy::app {

/// What one refresh reads of processes and sockets.
struct ProcessReading {
    /// Port rows with no containers attached yet.
    std::vector<PortRow> ports;
    std::vector<AgentSession> sessions;

    bool operator==(const ProcessReading&) const = default;
};

/// What one refresh reads of one runtime.
struct RuntimeReading {
    /// The runtime as its socket's answer showed it: running, not running,
    /// not answering, or not ours to use.
    RuntimeInfo runtime;
    std::vector<ContainerInfo> containers;
    /// The runtime's disk images on this computer, measured.
    std::vector<DiskFile> diskFiles;
    /// Why the containers could not be read, as a short cause for the user
    /// ("the engine did not answer in time"); the containers are then empty.
    std::optional<std::string> error;

    bool operator==(const RuntimeReading&) const = default;
};

/// The app's access to the machine. Every call blocks and is made from a
/// background thread, never from the model's. No call is made twice at once,
/// except `readRuntime` and `readSizes` for different runtimes, which run in
/// parallel.
class MachineReader {
  public:
    virtual ~MachineReader() = default;

    /// Processes, sockets and sessions. CPU figures cover the time since the
    /// previous call.
    virtual ProcessReading readProcesses() = 0;
    /// The container runtimes found on disk, in detection order. Only files
    /// are read; no socket is asked yet, so this never waits on an engine.
    virtual std::vector<RuntimeCandidate> findRuntimes() = 0;
    /// Asks one runtime's socket and, when its engine answers, reads its
    /// containers; its disk images are measured in any case.
    virtual RuntimeReading readRuntime(const RuntimeCandidate& candidate) = 0;
    /// One runtime's disk-usage figures: the cached ones while they are fresh,
    /// unless `afterChange`. The failure is a short cause for the user.
    virtual Result<CachedSizes, std::string> readSizes(const RuntimeInfo& runtime,
                                                       bool afterChange) = 0;
};

}  // namespace wharfy::app
