#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/ports/classifier.h"
#include "core/ports/port_environment.h"
#include "core/ports/port_row.h"
#include "core/ports/project_resolver.h"
#include "process/identity.h"

namespace wharfy {

/// CPU percentages of this refresh, by process.
using CpuByProcess = std::unordered_map<nemarro::process::ProcessIdentity, double>;

/// Builds the port rows the user sees: one per (process, port), from the
/// sockets of inspectable processes and the machine-wide table for the rest.
class PortScanner {
  public:
    PortScanner(PortEnvironment& environment, const ListenerClassifier& classifier,
                ProjectResolver resolver, uint32_t uid)
        : environment_(environment),
          classifier_(classifier),
          resolver_(std::move(resolver)),
          uid_(uid) {}

    /// Every listening port, sorted by port and then pid. One call is one
    /// refresh: the service manager is asked about each job at most once.
    std::vector<PortRow> scan(const CpuByProcess& cpu = {});

    /// What the process listening on `port` is, by the same rules as its row:
    /// classification, then the app and service adjustments.
    ListenerRole role(int32_t pid, uint16_t port, const LaunchdJobs& jobs);

    /// The rows on `port`, in their order.
    static std::vector<PortRow> rows(uint16_t port, const std::vector<PortRow>& rows);

  private:
    ListenerRole role(const ListenerFacts& facts, const LaunchdJobs& jobs,
                      const ListenerClassifier& classifier);
    PortRow ownRow(int32_t pid, uint16_t port, const nemarro::process::BSDInfo& info,
                   const std::vector<nemarro::process::ListeningSocket>& sockets,
                   const LaunchdJobs& jobs, const ListenerClassifier& classifier,
                   const CpuByProcess& cpu);

    PortEnvironment& environment_;
    const ListenerClassifier& classifier_;
    ProjectResolver resolver_;
    uint32_t uid_;
    /// Projects by working directory, for this scan: servers often share one.
    std::unordered_map<std::string, ProjectInfo> projects_;
};

}  // namespace wharfy
