#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/agents/agent_monitor.h"
#include "core/agents/agent_session.h"

namespace wharfy::app {

/// The agent sessions of one reading, each with its status.
struct AgentsReport {
    std::vector<AgentSession> sessions;
    /// One per session, in the same order.
    std::vector<AgentStatus> statuses;

    bool operator==(const AgentsReport&) const = default;
};

/// Reads the sessions twice, `interval` seconds apart (waiting through
/// `sleep`), so that the second reading has CPU figures; the statuses come
/// from a monitor fed with both readings.
AgentsReport readAgents(LiveAgentSource& source, const SessionBuilder& builder,
                        const std::function<void(double seconds)>& sleep, double interval = 1.0);

/// The live reading for the user `uid` whose home folder is `home`. Blocks
/// for about a second.
AgentsReport readAgents(const std::string& home, uint32_t uid);

/// The object printed by `wharfy --agents-json`: {"sessions": [...]}.
nlohmann::json agentsJson(const std::vector<AgentSession>& sessions);

/// The agent section printed by `wharfy`: one table row per session, cut to
/// `width` when one is given.
std::string agentsText(const AgentsReport& report, std::optional<size_t> width = std::nullopt);

}  // namespace wharfy::app
