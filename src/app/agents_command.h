#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/agents/agent_monitor.h"
#include "core/agents/agent_session.h"

namespace wharfy::app {

/// The agent sessions of one reading, each with its status.
struct AgentsReport {
    std::vector<AgentSession> sessions;
    /// Keyed by session id.
    std::map<std::string, AgentStatus> statuses;

    bool operator==(const AgentsReport&) const = default;

    /// The status of `session`; an idle one when there is none.
    AgentStatus status(const AgentSession& session) const;
    /// The statuses of two readings `interval` seconds apart, from a monitor
    /// fed with both; the sessions are the second reading's.
    static AgentsReport from(const std::vector<AgentSession>& first,
                             std::vector<AgentSession> second, double interval);
};

/// The object printed by `wharfy --agents-json`: {"sessions": [...]}.
nlohmann::json agentsJson(const std::vector<AgentSession>& sessions);

/// The agent section printed by `wharfy`: one table row per session, cut to
/// `width` when one is given.
std::string agentsText(const AgentsReport& report, std::optional<size_t> width = std::nullopt);

}  // namespace wharfy::app
