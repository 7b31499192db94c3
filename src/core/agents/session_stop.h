#pragma once

#include <optional>
#include <string>
#include <variant>

#include "common/result.h"
#include "core/agents/agent_session.h"
#include "core/stop/stopper.h"

namespace wharfy {

/// Why a session is not stopped from Wharfy.
struct SessionRefusal {
    /// A desktop app runs the session; it is quit there.
    struct ManagedByApp {
        std::string app;
        bool operator==(const ManagedByApp&) const = default;
    };

    std::variant<ManagedByApp, StopRefusal> value;

    bool operator==(const SessionRefusal&) const = default;

    /// The sentence shown to the user. Holds machine text: make it
    /// terminal-safe before printing.
    std::string message() const;
};

/// Stopping an agent session: one polite stop of its root, through the
/// stopper and its refusals.
struct SessionStop {
    /// Why this session is not stopped from here, or absent when the stopper decides.
    static std::optional<std::string> refusal(const AgentSession& session);

    /// The plan for stopping the session's root, labelled with the tool's name.
    static Result<StopPlan, SessionRefusal> plan(const AgentSession& session,
                                                 const Stopper& stopper);

    /// Carries out a confirmed plan, reporting the session's processes that outlive it.
    static Result<StopReport, StopRefusal> stop(const StopPlan& plan, const Stopper& stopper);

    /// The label of a session's stop, e.g. "Claude Code session".
    static std::string label(const AgentSession& session);
};

}  // namespace wharfy
