#include "app/history_command.h"

#include <nlohmann/json.hpp>

#include <chrono>

#include "common/text.h"
#include "core/history/history_store.h"

namespace wharfy::app {
namespace {

using nlohmann::json;

json optionalText(const std::optional<std::string>& text) {
    return text ? json(repairUtf8(*text)) : json();
}

}  // namespace

json historyJson(const HistorySummary& summary) {
    json days = json::array();
    for (const auto& day : summary.days) {
        json ports = json::array();
        for (const auto& p : day.ports)
            ports.push_back({{"port", p.port},
                             {"process", repairUtf8(p.process)},
                             {"exposure", repairUtf8(p.exposure)},
                             {"project", optionalText(p.project)},
                             {"firstSeen", internetDate(p.firstSeen)},
                             {"lastSeen", internetDate(p.lastSeen)}});
        json sessions = json::array();
        for (const auto& s : day.sessions)
            sessions.push_back(
                {{"tool", repairUtf8(s.tool)},
                 {"project", optionalText(s.project)},
                 {"peakMemoryBytes", s.peakMemoryBytes},
                 {"peakCpuPercent", s.peakCpuPercent ? json(*s.peakCpuPercent) : json()},
                 {"firstSeen", internetDate(s.firstSeen)},
                 {"lastSeen", internetDate(s.lastSeen)}});
        days.push_back({{"date", day.date.text()},
                        {"entries", day.entries},
                        {"ports", std::move(ports)},
                        {"sessions", std::move(sessions)}});
    }
    return {{"days", std::move(days)}, {"entries", summary.entries}};
}

json historyJson(const UserContext& user) {
    const HistoryStore store = liveHistoryStore(user.home);
    const double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    HistorySummaryBuilder builder(store.calendar(), now);
    store.forEachEntry(now, [&](const HistoryEntry& entry) { builder.add(entry); });
    json out = historyJson(std::move(builder).finish());
    out["folder"] = repairUtf8(store.directory());
    return out;
}

}  // namespace wharfy::app
