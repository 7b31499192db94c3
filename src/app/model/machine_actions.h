#pragma once

#include <string>

#include "common/result.h"
#include "core/agents/agent_session.h"
#include "core/containers/container_actions.h"
#include "core/containers/runtime_detector.h"
#include "core/stop/stop_plan.h"
#include "core/stop/stop_report.h"

namespace wharfy::app {

/// The changes the app may make to the machine, each only after the user
/// confirmed its plan. Calls block and are made from a background thread.
/// Failures are sentences for the user (they hold machine text: escape
/// them for the screen).
class MachineActions {
  public:
    virtual ~MachineActions() = default;

    /// The plan for stopping a port row's process, or why it is refused.
    virtual Result<StopPlan, std::string> planStop(const PortRow& row) = 0;
    /// The plan for stopping a process that holds no port.
    virtual Result<StopPlan, std::string> planStop(const nemarro::process::ProcessRef& process) = 0;
    /// The plan for stopping an agent session.
    virtual Result<StopPlan, std::string> planStop(const AgentSession& session) = 0;
    /// Carries out a confirmed plan: one SIGTERM, then the wait and the report.
    virtual Result<StopReport, std::string> stop(const StopPlan& plan, bool isSession) = 0;

    /// The exact command a container action will run, or why it is refused.
    virtual Result<DockerCommand, std::string> command(const RuntimeInfo& runtime,
                                                       const ContainerAction& action) = 0;
    /// Runs a confirmed container action.
    virtual Result<ActionReport, std::string> perform(const RuntimeInfo& runtime,
                                                      const ContainerAction& action) = 0;
};

}  // namespace wharfy::app
