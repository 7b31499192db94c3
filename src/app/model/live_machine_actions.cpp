#include "app/model/live_machine_actions.h"

#include <unistd.h>

#include "core/agents/session_stop.h"
#include "core/containers/container_service.h"
#include "core/ports/live_environment.h"
#include "system/command_runner.h"

namespace wharfy::app {

LiveMachineActions::LiveMachineActions(uint32_t uid, std::string home)
    : home_(std::move(home)),
      environment_(makeLiveRoleRules(uid, home_, std::make_shared<SystemCommandRunner>(10.0))),
      stopper_(Stopper::Config{uid, 10.0, static_cast<int32_t>(::getpid())}, environment_, sender_,
               Stopper::realSleep()) {}

Result<StopPlan, std::string> LiveMachineActions::planStop(const PortRow& row) {
    auto plan = stopper_.plan(row);
    if (!plan) return plan.error().message();
    return plan.value();
}

Result<StopPlan, std::string> LiveMachineActions::planStop(
    const nemarro::process::ProcessRef& process) {
    auto plan = stopper_.plan(process, std::nullopt, std::nullopt);
    if (!plan) return plan.error().message();
    return plan.value();
}

Result<StopPlan, std::string> LiveMachineActions::planStop(const AgentSession& session) {
    auto plan = SessionStop::plan(session, stopper_);
    if (!plan) return plan.error().message();
    return plan.value();
}

Result<StopReport, std::string> LiveMachineActions::stop(const StopPlan& plan, bool isSession) {
    auto report = isSession ? SessionStop::stop(plan, stopper_) : stopper_.stop(plan, false);
    if (!report) return report.error().message();
    return report.value();
}

Result<ContainerActions, std::string> LiveMachineActions::actionsFor(
    const RuntimeInfo& runtime) const {
    if (!runtime.isMeasurable()) return std::string("The runtime is not running.");
    auto docker = DockerBinary::find(
        home_, [](const std::string& path) { return ::access(path.c_str(), X_OK) == 0; });
    if (!docker) return std::string("The docker command-line tool was not found.");
    ContainerActions actions;
    actions.dockerPath = *docker;
    actions.socketPath = *runtime.socketPath;
    actions.runner = std::make_shared<SystemActionRunner>(120.0);
    actions.engine = EngineClient(*runtime.socketPath, ContainerActions::kEngineTimeoutSeconds);
    actions.macDisk = [runtime] { return VMDiskMeter::allocatedBytes(runtime); };
    actions.sleep = Stopper::realSleep();
    actions.environment = ContainerActions::toolEnvironment(home_);
    return actions;
}

Result<DockerCommand, std::string> LiveMachineActions::command(const RuntimeInfo& runtime,
                                                               const ContainerAction& action) {
    auto actions = actionsFor(runtime);
    if (!actions) return actions.error();
    auto command = actions.value().command(action);
    if (!command) return command.error().description();
    return command.value();
}

Result<ActionReport, std::string> LiveMachineActions::perform(const RuntimeInfo& runtime,
                                                              const ContainerAction& action) {
    auto actions = actionsFor(runtime);
    if (!actions) return actions.error();
    auto report = actions.value().perform(action);
    if (!report) return report.error().description();
    return report.value();
}

}  // namespace wharfy::app
