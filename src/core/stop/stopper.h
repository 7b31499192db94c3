#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/result.h"
#include "core/ports/port_row.h"
#include "core/stop/stop_environment.h"
#include "core/stop/stop_plan.h"
#include "core/stop/stop_report.h"
#include "process/identity.h"

namespace wharfy {

/// Plans polite stops and carries them out: refuses what may not be
/// stopped, moves the request to a restarting parent, re-checks identity,
/// sends one SIGTERM, waits, and reports what happened to the process and port.
class Stopper {
  public:
    /// Waits the given number of seconds; injected so tests never sleep.
    using Sleep = std::function<void(double seconds)>;

    struct Config {
        /// The user's uid: only this uid's processes are ever stopped.
        uint32_t uid = 0;
        /// How long to wait for the exit; the application uses 10.
        double waitSeconds = 10.0;
        /// Wharfy's own pid, never stopped.
        int32_t selfPID = 0;
    };

    /// `environment` and `sender` must outlive the stopper.
    Stopper(Config config, StopEnvironment& environment, SignalSender& sender, Sleep sleep);

    /// Plans a stop of a port row's process for the row's port.
    Result<StopPlan, StopRefusal> plan(const PortRow& row) const;
    /// Plans a stop of a process without a port (an agent session).
    Result<StopPlan, StopRefusal> plan(const nemarro::process::ProcessRef& ref,
                                       const std::optional<ProjectInfo>& project,
                                       const std::optional<std::string>& label) const;
    /// Plans from an identity; the other two forms come here.
    Result<StopPlan, StopRefusal> plan(const nemarro::process::ProcessIdentity& identity,
                                       std::optional<uint16_t> port,
                                       const std::optional<ProjectInfo>& project,
                                       const std::optional<std::string>& label) const;

    /// Carries out a confirmed plan. A refusal means nothing was signalled.
    /// With `watchDescendants`, children still alive afterwards are reported.
    Result<StopReport, StopRefusal> stop(const StopPlan& plan, bool watchDescendants) const;

    /// A sleep on the real clock, for the application.
    static Sleep realSleep();

  private:
    std::optional<nemarro::process::ProcessRef> ref(int32_t pid) const;
    std::optional<StopRefusal> checkAllowed(const nemarro::process::ProcessRef& ref) const;
    bool isGone(const nemarro::process::ProcessIdentity& identity) const;

    Config config_;
    StopEnvironment& environment_;
    SignalSender& sender_;
    Sleep sleep_;
};

}  // namespace wharfy
