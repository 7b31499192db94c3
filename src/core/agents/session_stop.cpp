#include "core/agents/session_stop.h"

namespace wharfy {
namespace {

std::string managedText(const std::string& app) {
    return "Managed by the " + app + " app. Quit the session there.";
}

}  // namespace

std::string SessionRefusal::message() const {
    if (auto managed = std::get_if<ManagedByApp>(&value)) return managedText(managed->app);
    return std::get<StopRefusal>(value).message();
}

std::optional<std::string> SessionStop::refusal(const AgentSession& session) {
    if (!session.managedBy) return std::nullopt;
    return managedText(*session.managedBy);
}

std::string SessionStop::label(const AgentSession& session) {
    return std::string(displayName(session.tool)) + " session";
}

Result<StopPlan, SessionRefusal> SessionStop::plan(const AgentSession& session,
                                                   const Stopper& stopper) {
    if (session.managedBy) return SessionRefusal{SessionRefusal::ManagedByApp{*session.managedBy}};
    auto planned = stopper.plan(session.root, session.project, label(session));
    if (!planned) return SessionRefusal{planned.error()};
    return std::move(planned).value();
}

Result<StopReport, StopRefusal> SessionStop::stop(const StopPlan& plan, const Stopper& stopper) {
    return stopper.stop(plan, true);
}

}  // namespace wharfy
