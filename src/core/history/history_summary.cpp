#include "core/history/history_summary.h"

#include <algorithm>
#include <functional>
#include <tuple>

#include "core/history/history_store.h"

namespace wharfy {
namespace {

template <typename T>
void widen(T& seen, double time) {
    seen.firstSeen = std::min(seen.firstSeen, time);
    seen.lastSeen = std::max(seen.lastSeen, time);
}

}  // namespace

size_t HistorySummaryBuilder::PortHash::operator()(const HistoryPort& p) const noexcept {
    const std::hash<std::string> text;
    size_t h = p.port;
    h = h * 31 + text(p.process);
    h = h * 31 + text(p.exposure);
    return h * 31 + (p.project ? text(*p.project) : 0);
}

HistorySummaryBuilder::HistorySummaryBuilder(const HistoryCalendar& calendar, double now)
    : calendar_(calendar),
      first_(calendar.date(now).addingDays(-(HistoryStore::retentionDays - 1))),
      last_(calendar.date(now)) {}

void HistorySummaryBuilder::add(const HistoryEntry& entry) {
    const CivilDate date = calendar_.date(entry.time);
    if (date < first_ || date > last_) return;
    DayState& day = days_[date];
    ++day.entries;

    if (previousDay_ != date) {
        previousPorts_.clear();
        previousDay_ = date;
    }
    // Only the listeners that differ from the previous entry's, place by
    // place, are looked up.
    previousIndices_.resize(entry.ports.size());
    for (size_t i = 0; i < entry.ports.size(); ++i) {
        const HistoryPort& p = entry.ports[i];
        if (i < previousPorts_.size() && previousPorts_[i] == p) continue;
        auto [it, added] = day.portIndex.try_emplace(p, day.ports.size());
        if (added)
            day.ports.push_back({p.port, p.process, p.exposure, p.project, entry.time, entry.time});
        previousIndices_[i] = it->second;
    }
    if (previousPorts_ != entry.ports) previousPorts_ = entry.ports;
    for (size_t index : previousIndices_)
        widen(day.ports[index], entry.time);

    for (const auto& s : entry.sessions) {
        auto [it, added] =
            day.sessionIndex.try_emplace(std::pair{s.tool, s.project}, day.sessions.size());
        if (added)
            day.sessions.push_back(
                {s.tool, s.project, s.memoryBytes, s.cpuPercent, entry.time, entry.time});
        auto& seen = day.sessions[it->second];
        widen(seen, entry.time);
        seen.peakMemoryBytes = std::max(seen.peakMemoryBytes, s.memoryBytes);
        if (s.cpuPercent && (!seen.peakCpuPercent || *s.cpuPercent > *seen.peakCpuPercent))
            seen.peakCpuPercent = s.cpuPercent;
    }
}

HistorySummary HistorySummaryBuilder::finish() && {
    HistorySummary summary;
    for (auto it = days_.rbegin(); it != days_.rend(); ++it) {
        HistorySummary::Day day{it->first, it->second.entries, std::move(it->second.ports),
                                std::move(it->second.sessions)};
        std::sort(day.ports.begin(), day.ports.end(), [](const auto& a, const auto& b) {
            return std::tie(a.port, a.process, a.exposure, a.project, a.firstSeen) <
                   std::tie(b.port, b.process, b.exposure, b.project, b.firstSeen);
        });
        std::sort(day.sessions.begin(), day.sessions.end(), [](const auto& a, const auto& b) {
            return std::tie(a.firstSeen, a.tool, a.project) <
                   std::tie(b.firstSeen, b.tool, b.project);
        });
        summary.entries += day.entries;
        summary.days.push_back(std::move(day));
    }
    return summary;
}

HistorySummary HistorySummary::build(const std::vector<HistoryEntry>& entries,
                                     const HistoryCalendar& calendar, double now) {
    HistorySummaryBuilder builder(calendar, now);
    for (const auto& entry : entries)
        builder.add(entry);
    return std::move(builder).finish();
}

}  // namespace wharfy
