#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace wharfy {

struct AgentSession;

/// Why a session counts as a runaway.
struct RunawayReason {
    /// Averaged at least the runaway percentage over the runaway window.
    struct Cpu {
        double averagePercent = 0;
        bool operator==(const Cpu&) const = default;
    };
    /// Its footprint is above the memory threshold.
    struct Memory {
        uint64_t bytes = 0;
        bool operator==(const Memory&) const = default;
    };

    std::variant<Cpu, Memory> value;

    bool operator==(const RunawayReason&) const = default;

    template <typename T>
    const T* as() const {
        return std::get_if<T>(&value);
    }
};

/// A session's tracked load, with its busy and runaway verdicts.
struct AgentStatus {
    /// CPU of the latest sample, in percent of one core.
    std::optional<double> cpuNow;
    /// Time-weighted average over the last 300 s; absent when no time is covered.
    std::optional<double> cpuLastFiveMinutes;
    bool isBusy = false;
    std::optional<RunawayReason> runaway;

    bool operator==(const AgentStatus&) const = default;
};

/// What the alert engine is handed for one runaway session.
struct RunawayInput {
    std::string sessionID;
    /// The tool's raw value.
    std::string tool;
    std::optional<std::string> project;
    RunawayReason reason;

    bool operator==(const RunawayInput&) const = default;
};

/// One session's load at one refresh, as the monitor records it.
struct SessionLoad {
    /// Stable across refreshes: the root's identity text.
    std::string id;
    /// Percent of one core; absent when not measured on this refresh.
    std::optional<double> cpuPercent;
    uint64_t footprint = 0;

    bool operator==(const SessionLoad&) const = default;
};

/// Remembers a short history of each live session's CPU and memory and says
/// which sessions are busy, which are runaways and which are due an alert.
/// Times are seconds on one caller-chosen scale.
class AgentMonitor {
  public:
    struct Thresholds {
        /// Busy when the average over `busyWindow` is above this.
        double busyPercent = 10.0;
        double busyWindow = 30.0;
        /// A CPU runaway averages at least this over `runawayWindow`...
        double runawayPercent = 90.0;
        double runawayWindow = 600.0;
        /// ...with samples covering at least this share of the window.
        double runawayCoverage = 0.9;
        /// A footprint above this is a runaway at once.
        uint64_t memoryBytes = 4'294'967'296ULL;
        /// Least time between two alerts for one session.
        double alertCooldown = 1800.0;

        bool operator==(const Thresholds&) const = default;
    };

    struct Sample {
        double time = 0;
        std::optional<double> cpu;
        uint64_t footprint = 0;

        bool operator==(const Sample&) const = default;
    };

    /// A windowed CPU average and the share of the window it covers.
    struct Average {
        double mean = 0;
        double coverage = 0;

        bool operator==(const Average&) const = default;
    };

    AgentMonitor() = default;
    explicit AgentMonitor(Thresholds thresholds) : thresholds_(thresholds) {}

    /// Records one sample per session at `now`; sessions not given are forgotten,
    /// alert memory included, and samples older than the runaway window plus a
    /// minute are dropped.
    void ingest(const std::vector<AgentSession>& sessions, double now);
    /// The same, from the sessions' loads alone.
    void ingestLoads(const std::vector<SessionLoad>& sessions, double now);

    AgentStatus status(const std::string& sessionID, double now) const;

    /// The runaway sessions whose alert is due, by id; marks them alerted at `now`.
    std::vector<std::pair<std::string, RunawayReason>> alertsDue(double now);

    /// Time-weighted mean CPU over (now - window, now]: each sample stands for
    /// the interval since the one before it. Absent when no time is covered.
    static std::optional<Average> average(const std::vector<Sample>& samples, double window,
                                          double now);

    const Thresholds& thresholds() const { return thresholds_; }
    void setThresholds(const Thresholds& thresholds) { thresholds_ = thresholds; }
    /// Recorded samples of a session, oldest first.
    const std::vector<Sample>* history(const std::string& sessionID) const;

  private:
    Thresholds thresholds_;
    std::map<std::string, std::vector<Sample>> history_;
    std::map<std::string, double> lastAlert_;
};

}  // namespace wharfy
