#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "suite/glance_record.h"

namespace nemarro::suite {

/// One metric of one app, as the user picks it for the menu bar.
struct MetricRef {
    SuiteApp app = SuiteApp::wharfy;
    /// A metric id.
    std::string metric;

    bool operator==(const MetricRef&) const = default;
    auto operator<=>(const MetricRef&) const = default;
};

/// A row of the shared readout for an app whose record is fresh.
struct RunningRow {
    GlanceRecord record;
    bool operator==(const RunningRow&) const = default;
};
/// A row for an app that was fresh within the last minute and is no longer.
struct NotRunningRow {
    SuiteApp app = SuiteApp::wharfy;
    bool operator==(const NotRunningRow&) const = default;
};
/// One row of the shared readout.
using SuiteRow = std::variant<RunningRow, NotRunningRow>;

/// Decides from the glance records and the time whether the suite is active
/// (two or more apps running and fresh), whether its host went missing, and
/// what the shared readout shows. Pure: times are seconds since 1970, given
/// by the caller.
struct SuiteStateMachine {
    /// How long fewer than two fresh apps must last before the suite turns off.
    static constexpr double offDelay = 10;
    /// After a wake from sleep the suite is not turned off for this long.
    static constexpr double wakeGrace = 10;
    /// How long an active suite may go without a seen host.
    static constexpr double hostGrace = 5;
    /// How long an app that stopped being fresh keeps a not-running row.
    static constexpr double notRunningShown = 60;
    /// How far in the future a record may be dated and still count (clocks,
    /// file-system timing).
    static constexpr double futureAllowance = 2;

    bool isActive = false;
    /// When the count of fresh apps first fell below two while active.
    std::optional<double> belowSince;
    double wakeUntil = -std::numeric_limits<double>::infinity();
    std::optional<double> activeSince;
    /// The last update at which a fresh record said it was hosting.
    std::optional<double> hostSeenAt;
    /// The records of the last update, of participating apps, fresh or not.
    std::map<SuiteApp, GlanceRecord> latest;
    /// For each app, the last update at which its record was fresh. Never cleared.
    std::map<SuiteApp, double> lastFreshAt;
    /// The time of the last update.
    double now = 0;

    bool operator==(const SuiteStateMachine&) const = default;

    /// Whether the record of `app` counts at `time`: the app takes part, the
    /// record says running, and `time` lies within [at - 2, at + ttl].
    static bool isFresh(SuiteApp app, const GlanceRecord& record, double time);

    /// Takes the records read at `time`.
    void update(const std::map<SuiteApp, GlanceRecord>& records, double time);
    /// The machine woke from sleep at `time`: every record may be stale at once.
    void didWake(double time);

    /// Active, and no fresh record has claimed hosting for more than
    /// hostGrace seconds (counted from activation when none has yet).
    bool hostMissing() const;
    /// Whether an app should show its own menu-bar icon: when the suite is
    /// inactive, when the user opted in, or while the host is missing.
    bool showsOwnIcon(bool optIn) const;
    /// The readout's rows in catalog order.
    std::vector<SuiteRow> rows() const;
    /// The worst level over the running rows; ok when there is none.
    GlanceLevel worstLevel() const;
    /// At most two values for the menu bar: the first two of `chosen` that
    /// resolve, or, with no choice, the first metric of the first running app
    /// that has one.
    std::vector<std::pair<MetricRef, GlanceMetric>> menuBarValues(
        const std::optional<std::vector<MetricRef>>& chosen) const;
};

/// Decides when a participant rewrites its own record: any change at once,
/// an unchanged record every half ttl.
struct PublishSchedule {
    std::optional<GlanceRecord> lastWritten;

    bool operator==(const PublishSchedule&) const = default;

    bool isDue(const GlanceRecord& record, double time) const;
    void didWrite(const GlanceRecord& record) { lastWritten = record; }
    /// Makes the next check due.
    void forceNext() { lastWritten.reset(); }
};

}  // namespace nemarro::suite

template <>
struct std::hash<nemarro::suite::MetricRef> {
    size_t operator()(const nemarro::suite::MetricRef& ref) const noexcept {
        return std::hash<std::string>{}(ref.metric) * 31 + static_cast<size_t>(ref.app);
    }
};
