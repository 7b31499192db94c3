#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/model/app_model.h"
#include "suite/suite_state_machine.h"

namespace wharfy::app::tui {

/// The shared readout of an active suite that this process hosts.
struct SuiteStrip {
    std::vector<nemarro::suite::SuiteRow> rows;
    nemarro::suite::GlanceLevel worst = nemarro::suite::GlanceLevel::ok;
    std::vector<std::pair<nemarro::suite::MetricRef, nemarro::suite::GlanceMetric>> menuBarValues;

    bool operator==(const SuiteStrip&) const = default;
};

/// Where the suite strip comes from: the suite host of this process, when
/// there is one.
class SuiteStripSource {
  public:
    virtual ~SuiteStripSource() = default;
    /// The strip while this process hosts an active suite; absent otherwise.
    virtual std::optional<SuiteStrip> strip() const = 0;
};

/// Everything the views draw, copied from the model: the views are pure
/// functions of it, so that they can be tested and snapshotted without a
/// model or a terminal.
struct ViewData {
    /// The rows the ports search lets through, in order.
    std::vector<PortRow> ports;
    size_t totalPorts = 0;
    std::vector<RuntimeState> runtimes;
    bool runtimeAnswered = false;
    std::vector<AgentSession> sessions;
    std::map<std::string, AgentStatus> statuses;
    WharfyCounts counts;
    std::optional<double> lastRefresh;
    std::optional<HistorySummary> history;
    std::optional<PendingAction> pending;
    std::optional<Notice> notice;
    bool isWorking = false;
    std::optional<ActionReport> lastContainerReport;
    double memoryThresholdGB = AppModel::kDefaultMemoryThresholdGB;
    AlertSettings alertSettings;
    /// This process records history and posts alerts; otherwise the
    /// background service does.
    bool isPrimary = true;
    std::optional<SuiteStrip> suite;
    /// Colours may be used (no NO_COLOR, a terminal with colours).
    bool color = true;
    /// A time as the user reads it on a clock ("14:03:21"); local time in
    /// the app, fixed in tests.
    std::function<std::string(double)> clock;

    /// The model's current picture.
    static ViewData from(const AppModel& model);
};

}  // namespace wharfy::app::tui
