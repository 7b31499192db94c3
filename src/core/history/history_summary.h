#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/history/history_calendar.h"
#include "core/history/history_entry.h"

namespace wharfy {

/// The week of history as the user asks about it ("what was listening on
/// 3000 yesterday afternoon?"): per local day, what listened and which
/// sessions ran, and when.
struct HistorySummary {
    /// One listener seen on a day: the same port, process, exposure and project.
    struct Port {
        uint16_t port = 0;
        std::string process;
        std::string exposure;
        std::optional<std::string> project;
        /// The first and last entry of the day that held it (seconds since 1970).
        double firstSeen = 0;
        double lastSeen = 0;

        bool operator==(const Port&) const = default;
    };

    /// One tool in one project seen on a day.
    struct Session {
        std::string tool;
        std::optional<std::string> project;
        int64_t peakMemoryBytes = 0;
        /// Absent when no entry of the day had a CPU figure for it.
        std::optional<double> peakCpuPercent;
        double firstSeen = 0;
        double lastSeen = 0;

        bool operator==(const Session&) const = default;
    };

    struct Day {
        CivilDate date;
        /// How many history lines the day holds.
        int entries = 0;
        /// By port, then process, exposure and project.
        std::vector<Port> ports;
        /// By first seen, then tool and project.
        std::vector<Session> sessions;

        bool operator==(const Day&) const = default;
    };

    /// Newest day first; only days with entries.
    std::vector<Day> days;
    /// Entries over all days.
    int entries = 0;

    bool operator==(const HistorySummary&) const = default;

    /// The summary of the entries that fall on today or the six days before
    /// it, in `calendar`'s days.
    static HistorySummary build(const std::vector<HistoryEntry>& entries,
                                const HistoryCalendar& calendar, double now);
};

/// Builds a summary one entry at a time, so that a week of history never has
/// to be held in memory at once.
class HistorySummaryBuilder {
  public:
    HistorySummaryBuilder(const HistoryCalendar& calendar, double now);
    void add(const HistoryEntry& entry);
    HistorySummary finish() &&;

  private:
    struct PortHash {
        size_t operator()(const HistoryPort& p) const noexcept;
    };
    struct DayState {
        int entries = 0;
        std::vector<HistorySummary::Port> ports;
        std::unordered_map<HistoryPort, size_t, PortHash> portIndex;
        std::vector<HistorySummary::Session> sessions;
        std::map<std::pair<std::string, std::optional<std::string>>, size_t> sessionIndex;
    };

    const HistoryCalendar& calendar_;
    CivilDate first_;
    CivilDate last_;
    std::map<CivilDate, DayState> days_;
    // Consecutive entries usually list the same ports in the same order; the
    // previous entry's places in the day are reused instead of looked up again.
    std::vector<HistoryPort> previousPorts_;
    std::vector<size_t> previousIndices_;
    std::optional<CivilDate> previousDay_;
};

}  // namespace wharfy
