#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/ports/netstat_parser.h"
#include "core/ports/service_labels.h"
#include "process/listening_sockets.h"
#include "process/process_reader.h"

namespace wharfy {

/// Everything the port rules read from the machine.
class PortEnvironment {
  public:
    virtual ~PortEnvironment() = default;
    /// Listening sockets of every process the user can inspect.
    virtual std::vector<nemarro::process::ListeningSocket> listeningSockets() = 0;
    /// Machine-wide listeners, including those of processes nobody can inspect.
    virtual std::vector<NetstatListener> netstatListeners() = 0;
    /// Service-manager labels, read once per scan.
    virtual LaunchdJobs launchdJobs() = 0;
    virtual std::vector<int32_t> allPIDs() = 0;
    virtual std::optional<nemarro::process::BSDInfo> process(int32_t pid) = 0;
    virtual std::optional<std::string> executablePath(int32_t pid) = 0;
    virtual std::optional<std::vector<std::string>> arguments(int32_t pid) = 0;
    virtual std::optional<std::string> currentDirectory(int32_t pid) = 0;
    virtual std::optional<uint64_t> footprint(int32_t pid) = 0;
};

}  // namespace wharfy
