#pragma once

#include <memory>
#include <string>

#include "app/model/machine_actions.h"
#include "core/stop/stop_environment.h"
#include "core/stop/stopper.h"

namespace wharfy::app {

/// The app's changes to this machine: polite stops through the stopper
/// (one SIGTERM through a pidfd), container actions through the runtime's
/// own docker command line.
class LiveMachineActions final : public MachineActions {
  public:
    LiveMachineActions(uint32_t uid, std::string home);

    Result<StopPlan, std::string> planStop(const PortRow& row) override;
    Result<StopPlan, std::string> planStop(const nemarro::process::ProcessRef& process) override;
    Result<StopPlan, std::string> planStop(const AgentSession& session) override;
    Result<StopReport, std::string> stop(const StopPlan& plan, bool isSession) override;
    Result<DockerCommand, std::string> command(const RuntimeInfo& runtime,
                                               const ContainerAction& action) override;
    Result<ActionReport, std::string> perform(const RuntimeInfo& runtime,
                                              const ContainerAction& action) override;

  private:
    Result<ContainerActions, std::string> actionsFor(const RuntimeInfo& runtime) const;

    std::string home_;
    LiveStopEnvironment environment_;
    LiveSignalSender sender_;
    Stopper stopper_;
};

}  // namespace wharfy::app
