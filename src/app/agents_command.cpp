#include "app/agents_command.h"

#include <nlohmann/json.hpp>

#include <cstdio>

#include "app/ports_command.h"
#include "app/terminal_text.h"

namespace wharfy::app {
namespace {

using nlohmann::json;

std::string percent(double value, bool tenths) {
    char buffer[64];
    if (tenths)
        std::snprintf(buffer, sizeof buffer, "%.1f%%", value);
    else
        std::snprintf(buffer, sizeof buffer, "%.0f%%", value);
    return buffer;
}

std::string stateText(const AgentStatus& status) {
    if (status.runaway) {
        if (auto memory = status.runaway->as<RunawayReason::Memory>())
            return "runaway: memory " + formatBytes(memory->bytes);
        if (auto cpu = status.runaway->as<RunawayReason::Cpu>())
            return "runaway: CPU " + percent(cpu->averagePercent, false);
    }
    return status.isBusy ? "busy" : "idle";
}

std::string notesText(const AgentSession& s) {
    std::string notes;
    if (s.managedBy) notes = "run by the " + terminalSafe(*s.managedBy) + " app";
    if (s.isOrphanDaemon) notes += std::string(notes.empty() ? "" : ", ") + "left-behind daemon";
    return notes;
}

}  // namespace

AgentStatus AgentsReport::status(const AgentSession& session) const {
    auto it = statuses.find(session.id());
    return it == statuses.end() ? AgentStatus{} : it->second;
}

AgentsReport AgentsReport::from(const std::vector<AgentSession>& first,
                                std::vector<AgentSession> second, double interval) {
    AgentMonitor monitor;
    monitor.ingest(first, 0.0);
    monitor.ingest(second, interval);
    AgentsReport report;
    for (const auto& s : second)
        report.statuses[s.id()] = monitor.status(s.id(), interval);
    report.sessions = std::move(second);
    return report;
}

json agentsJson(const std::vector<AgentSession>& sessions) {
    auto optional = [](const auto& value) -> json {
        if (value) return json(*value);
        return nullptr;
    };
    json out = json::array();
    for (const auto& s : sessions) {
        json project = nullptr;
        if (s.project)
            project = {{"path", s.project->path}, {"isGitProject", s.project->isGitProject}};
        out.push_back({{"tool", rawValue(s.tool)},
                       {"version", optional(s.version)},
                       {"managedBy", optional(s.managedBy)},
                       {"project", std::move(project)},
                       {"root",
                        {{"pid", s.root.identity.pid},
                         {"startTime", s.root.identity.startTime},
                         {"name", s.root.name}}},
                       {"processes", s.processCount()},
                       {"cpuPercent", optional(s.cpuPercent)},
                       {"memoryBytes", s.footprint},
                       {"orphanDaemon", s.isOrphanDaemon}});
    }
    return json{{"sessions", std::move(out)}};
}

std::string agentsText(const AgentsReport& report, std::optional<size_t> width) {
    std::string out = "Agent sessions\n";
    if (report.sessions.empty()) return out + "  No agent sessions running.\n";
    TextTable table(
        {"AGENT", "VERSION", "PID", "PROCESSES", "CPU", "MEMORY", "STATE", "PROJECT", "NOTES"});
    for (const AgentSession& s : report.sessions) {
        const AgentStatus status = report.status(s);
        table.add({displayName(s.tool), terminalSafe(s.version.value_or("-")),
                   std::to_string(s.root.identity.pid), std::to_string(s.processCount()),
                   s.cpuPercent ? percent(*s.cpuPercent, true) : "-", formatBytes(s.footprint),
                   stateText(status), s.project ? terminalSafe(projectCell(*s.project)) : "-",
                   notesText(s)});
    }
    table.shrinkable(7, 8);
    table.shrinkable(8, 8);
    out += table.render("  ", width);
    return out;
}

}  // namespace wharfy::app
