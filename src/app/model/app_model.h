#pragma once

#include <nlohmann/json_fwd.hpp>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "app/launch_options.h"
#include "app/loop/event_loop.h"
#include "app/model/history_access.h"
#include "app/model/machine_actions.h"
#include "app/model/machine_reader.h"
#include "app/settings_store.h"
#include "core/agents/agent_monitor.h"
#include "core/history/alert_engine.h"
#include "core/history/history_store.h"
#include "core/history/history_summary.h"
#include "notify/background_notifier.h"
#include "notify/notifier.h"

namespace wharfy::app {

class Diagnostics;

/// One detected runtime as the app shows it.
struct RuntimeState {
    RuntimeInfo info;
    /// From the last read that succeeded; empty after a failed one.
    std::vector<ContainerInfo> containers;
    /// Bytes its disk images occupy on this computer; absent when it has none.
    std::optional<uint64_t> macDiskBytes;
    std::vector<DiskFile> diskFiles;
    /// Disk-usage figures; absent until loaded.
    std::optional<CachedSizes> sizes;
    /// The last read failure, as the user reads it.
    std::optional<std::string> error;

    bool operator==(const RuntimeState&) const = default;

    /// Containers that are running.
    int running() const;
};

/// The app's counts, for the suite and the counts dump.
struct WharfyCounts {
    int listening = 0;
    int openToNetwork = 0;
    /// Absent until the runtimes have been read once.
    std::optional<int> containersRunning;
    int agentsBusy = 0;
    bool hasRunaway = false;
    int unseenAlerts = 0;

    bool operator==(const WharfyCounts&) const = default;
    nlohmann::json json() const;
};

/// A change waiting for the user's yes: exactly what will be done. It is
/// frozen when it is shown; no refresh changes what it acts on.
struct PendingAction {
    /// One SIGTERM to the plan's target.
    struct Stop {
        StopPlan plan;
        bool isSession = false;
        bool operator==(const Stop&) const = default;
    };
    /// One docker command against one runtime.
    struct Container {
        RuntimeInfo runtime;
        ContainerAction action;
        DockerCommand command;
        bool operator==(const Container&) const = default;
    };
    std::variant<Stop, Container> value;

    bool operator==(const PendingAction&) const = default;
    template <typename T>
    const T* as() const {
        return std::get_if<T>(&value);
    }
};

/// A result message shown until the next key press or for 10 s.
struct Notice {
    /// Holds machine text: escape it for the screen.
    std::string text;
    bool isError = false;
    /// When it was posted (seconds since 1970).
    double at = 0;

    bool operator==(const Notice&) const = default;
};

/// Everything the model needs from outside itself.
struct AppModelParts {
    std::shared_ptr<MachineReader> reader;
    /// May be null for a model that only shows.
    std::shared_ptr<MachineActions> actions;
    std::shared_ptr<Notifier> notifier;
    std::shared_ptr<HistoryAccess> history;
    std::shared_ptr<SettingsStore> settings;
    /// Where refresh times go; may be null.
    std::shared_ptr<Diagnostics> diagnostics;
    LaunchOptions options;
    /// Called when a timed run is over (`--quit-after`).
    std::function<void()> quit;
    /// Where failures the user did not ask about are told (a history line
    /// that could not be written). Never the terminal an interface draws on.
    std::function<void(const std::string&)> log;
};

/// The one picture of the machine that every view shows: ports, runtimes and
/// sessions, the user's settings, the alerts and the history. It lives on the
/// event loop's thread and does no I/O itself: reads go to the machine reader
/// on background threads and come back through the loop. It refreshes every
/// 5 s while something shows it and every 60 s otherwise.
class AppModel {
  public:
    AppModel(EventLoop& loop, AppModelParts parts);
    ~AppModel();
    AppModel(const AppModel&) = delete;
    AppModel& operator=(const AppModel&) = delete;

    static constexpr double kVisibleInterval = 5;
    static constexpr double kHiddenInterval = 60;
    static constexpr double kDefaultMemoryThresholdGB = 4.0;

    /// Starts the refresh loop (and the timer of a timed run) unless running.
    void start();
    /// Stops refreshing; a read in progress is let finish and then ignored.
    void stop();
    /// Cancels the wait and refreshes at once (after a tick in progress).
    void restartLoop();
    /// One tick; a second call while one runs makes another follow it.
    void refresh();
    /// Reads every runtime's disk figures; `afterChange` skips the cache.
    void loadSizes(bool afterChange);
    /// Reloads the history summary in the background.
    void loadHistory();

    /// Only the primary instance posts notifications and records history.
    void setPrimary(bool primary) { isPrimary_ = primary; }
    bool isPrimary() const { return isPrimary_; }
    /// Loads the disk sizes on every tick (the background service's mode).
    void setLoadsSizesEachTick(bool on) { loadsSizesEachTick_ = on; }

    // What the views read.
    const std::vector<PortRow>& ports() const { return ports_; }
    const std::vector<RuntimeState>& runtimes() const { return runtimes_; }
    const std::vector<AgentSession>& sessions() const { return sessions_; }
    const std::map<std::string, AgentStatus>& statuses() const { return statuses_; }
    std::optional<double> lastRefresh() const { return lastRefresh_; }
    bool fullDiskAccess() const { return fullDiskAccess_; }
    const std::optional<HistorySummary>& historySummary() const { return historySummary_; }
    int unseenAlerts() const { return unseenAlerts_; }
    bool runtimeAnswered() const { return runtimeAnswered_; }
    bool isRefreshing() const { return tickInFlight_; }
    Tab tab() const { return tab_; }
    void setTab(Tab tab);
    const std::string& portSearch() const { return portSearch_; }
    void setPortSearch(std::string text);
    bool isVisible() const { return isVisible_; }
    /// Showing the app marks the alerts seen; a change restarts the loop.
    void setVisible(bool visible);
    bool isWindowOpen() const { return isWindowOpen_; }
    void setWindowOpen(bool open) { isWindowOpen_ = open; }

    double memoryThresholdGB() const { return memoryThresholdGB_; }
    /// Stores the threshold and hands it to the monitor. A value whose bytes
    /// do not fit 64 bits is a programming error and ends the program.
    void setMemoryThresholdGB(double gigabytes);
    const AlertSettings& alertSettings() const { return alertSettings_; }
    void setAlertSettings(const AlertSettings& settings);
    /// Asks for notification permission unless it was asked before.
    void askForNotificationPermissionOnce();

    const AgentMonitor& monitor() const { return monitor_; }

    // The action flow: plan, confirm, act, report.
    /// Plans the stop of a row's process; shows its confirmation, or its
    /// refusal as a notice. Nothing is signalled yet.
    void requestStop(const PortRow& row);
    void requestStop(const nemarro::process::ProcessRef& process);
    void requestStop(const AgentSession& session);
    /// Shows the confirmation of a container action with its exact command.
    void requestContainerAction(const RuntimeInfo& runtime, ContainerAction action);
    /// Carries out the pending action; its report becomes the notice and a
    /// refresh follows at once.
    void confirm();
    void cancelPending();
    const std::optional<PendingAction>& pending() const { return pending_; }
    const std::optional<Notice>& notice() const { return notice_; }
    void clearNotice();
    /// An action is running (from its confirmation until its report).
    bool isWorking() const { return isWorking_; }
    /// The report of the last container action, for its details.
    const std::optional<ActionReport>& lastContainerReport() const { return lastContainerReport_; }

    // Derived values.
    int containersRunning() const;
    int agentsBusy() const;
    bool hasRunaway() const;
    std::vector<AgentSession> runaways() const;
    std::vector<PortRow> filteredPorts() const;
    WharfyCounts suiteCounts() const;
    /// Writes the counts as JSON to `path`, in the background.
    void dump(const std::string& path);

    /// Called on the loop after each tick with the counts (the suite link).
    std::function<void(const WharfyCounts&)> didRefresh;
    /// Called on the loop whenever something a view shows has changed.
    std::function<void()> changed;
    /// Called on the loop after the first tick that read the runtimes.
    std::function<void()> firstRuntimesRead;

    /// The rows matching a search text: blanks trimmed; a port number gives
    /// that port's rows; other text matches the process or project name,
    /// ignoring case.
    static std::vector<PortRow> filter(const std::vector<PortRow>& rows, std::string_view search);
    /// Bytes of a threshold in GiB; absent when they do not fit 64 bits.
    static std::optional<uint64_t> gibibytes(double value);

  private:
    struct Tick;

    void scheduleNext();
    void onProcesses(const std::shared_ptr<Tick>& tick, ProcessReading reading);
    void onFound(const std::shared_ptr<Tick>& tick, std::vector<RuntimeCandidate> found);
    void runtimesRead(const std::shared_ptr<Tick>& tick);
    void onRuntime(const std::shared_ptr<Tick>& tick, size_t index, RuntimeReading reading);
    void finishTick(const std::shared_ptr<Tick>& tick);
    void alertAndRecord(double now);
    std::vector<PortRow> attached(std::vector<PortRow> rows) const;
    void publish();
    void log(const std::string& message) const;
    void showNotice(std::string text, bool isError);
    template <typename Plan>
    void planThen(Plan plan, bool isSession);

    EventLoop& loop_;
    AppModelParts parts_;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);

    std::vector<PortRow> ports_;
    std::vector<RuntimeState> runtimes_;
    std::vector<AgentSession> sessions_;
    std::map<std::string, AgentStatus> statuses_;
    std::optional<double> lastRefresh_;
    bool fullDiskAccess_ = true;
    std::optional<HistorySummary> historySummary_;
    int unseenAlerts_ = 0;
    AlertSettings alertSettings_;
    Tab tab_ = Tab::ports;
    std::string portSearch_;
    bool isWindowOpen_ = false;
    bool isVisible_ = false;
    double memoryThresholdGB_ = kDefaultMemoryThresholdGB;
    std::unique_ptr<BackgroundNotifier> notifier_;
    HistoryRecorder recorder_;
    AlertEngine alertEngine_;
    AgentMonitor monitor_;
    bool runtimeAnswered_ = false;
    std::optional<PendingAction> pending_;
    std::optional<Notice> notice_;
    bool isWorking_ = false;
    bool isPlanning_ = false;
    std::optional<ActionReport> lastContainerReport_;

    bool running_ = false;
    bool isPrimary_ = true;
    bool loadsSizesEachTick_ = false;
    bool tickInFlight_ = false;
    bool refreshAgain_ = false;
    std::optional<EventLoop::TimerId> nextTick_;
    std::set<std::string> sizesInFlight_;
    std::optional<double> lastPrune_;
    std::optional<double> lastNotificationStamp_;
    bool historyLoadInFlight_ = false;
    bool historyReloadAgain_ = false;
};

}  // namespace wharfy::app
