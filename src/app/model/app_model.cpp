#include "app/model/app_model.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "app/diagnostics.h"
#include "core/containers/port_container_mapper.h"
#include "core/history/history_entry.h"
#include "core/ports/port_scanner.h"
#include "core/ports/shell_names.h"
#include "system/private_files.h"

namespace wharfy::app {

namespace {

constexpr double kBytesPerGiB = 1024.0 * 1024.0 * 1024.0;
// Old day files are deleted at most this often.
constexpr double kPruneInterval = 3600;

[[noreturn]] void fatal(const char* what) {
    std::fprintf(stderr, "wharfy: %s\n", what);
    std::abort();
}

std::optional<double> storedNumber(const SettingsStore& settings, std::string_view key) {
    auto value = settings.value(key);
    if (!value || !value->is_number()) return std::nullopt;
    return value->get<double>();
}

}  // namespace

/// One tick's state between its asynchronous steps.
struct AppModel::Tick {
    double now = 0;
    /// The rows as read, before containers are attached.
    std::vector<PortRow> rows;
    bool processesRead = false;
    bool runtimesRead = false;
    size_t pendingRuntimes = 0;
};

int RuntimeState::running() const {
    return static_cast<int>(std::count_if(containers.begin(), containers.end(),
                                          [](const ContainerInfo& c) { return c.isRunning(); }));
}

nlohmann::json WharfyCounts::json() const {
    return {{"listening", listening},
            {"openToNetwork", openToNetwork},
            {"containersRunning",
             containersRunning ? nlohmann::json(*containersRunning) : nlohmann::json()},
            {"agentsBusy", agentsBusy},
            {"hasRunaway", hasRunaway},
            {"unseenAlerts", unseenAlerts}};
}

AppModel::AppModel(EventLoop& loop, AppModelParts parts)
    : loop_(loop),
      parts_(std::move(parts)),
      recorder_{300, std::nullopt, std::nullopt},
      alertEngine_(AlertSettings{}, 1800) {
    tab_ = parts_.options.openTab.value_or(Tab::ports);
    if (auto stored = storedNumber(*parts_.settings, "memoryThresholdGB"); stored && *stored > 0)
        memoryThresholdGB_ = *stored;
    if (parts_.notifier) notifier_ = std::make_unique<BackgroundNotifier>(parts_.notifier);
    AgentMonitor::Thresholds thresholds;
    thresholds.busyPercent = 10.0;
    thresholds.busyWindow = 30.0;
    thresholds.runawayPercent = 90.0;
    thresholds.runawayWindow = 600.0;
    thresholds.runawayCoverage = 0.9;
    thresholds.alertCooldown = 1800.0;
    if (auto stored = parts_.settings->value("alertSettings"))
        if (auto decoded = AlertSettings::fromJson(stored->dump())) alertSettings_ = *decoded;
    alertEngine_.setSettings(alertSettings_);
    auto bytes = gibibytes(memoryThresholdGB_);
    if (!bytes) fatal("the memory threshold does not fit in a byte count");
    thresholds.memoryBytes = *bytes;
    if (auto mb = parts_.options.qaRunawayMemoryMB) {
        if (*mb < 0) fatal("the test memory threshold is negative");
        thresholds.memoryBytes = static_cast<uint64_t>(*mb) * 1'048'576ULL;
    }
    monitor_.setThresholds(thresholds);
    if (auto unseen = parts_.options.qaUnseenAlerts) unseenAlerts_ = *unseen;
    loadHistory();
}

AppModel::~AppModel() {
    if (nextTick_) loop_.cancel(*nextTick_);
}

std::optional<uint64_t> AppModel::gibibytes(double value) {
    const double bytes = value * kBytesPerGiB;
    if (!(bytes >= 0) || bytes >= 18446744073709551616.0) return std::nullopt;
    return static_cast<uint64_t>(bytes);
}

void AppModel::start() {
    if (running_) return;
    running_ = true;
    if (auto seconds = parts_.options.quitAfter; seconds && parts_.quit)
        loop_.after(*seconds, [quit = parts_.quit] { quit(); });
    restartLoop();
}

void AppModel::stop() {
    running_ = false;
    refreshAgain_ = false;
    if (nextTick_) loop_.cancel(*nextTick_);
    nextTick_.reset();
}

void AppModel::restartLoop() {
    if (nextTick_) loop_.cancel(*nextTick_);
    nextTick_.reset();
    if (tickInFlight_)
        refreshAgain_ = true;
    else
        refresh();
}

void AppModel::scheduleNext() {
    if (!running_) return;
    if (nextTick_) loop_.cancel(*nextTick_);
    nextTick_ = loop_.after(isVisible_ ? kVisibleInterval : kHiddenInterval, [this] {
        nextTick_.reset();
        refresh();
    });
}

void AppModel::refresh() {
    if (tickInFlight_) {
        refreshAgain_ = true;
        return;
    }
    tickInFlight_ = true;
    auto tick = std::make_shared<Tick>();
    tick->now = loop_.now();
    // Linux has no folder-access permission to probe: every folder may be read.
    fullDiskAccess_ = true;
    // Processes and runtimes are read side by side, so that a socket that
    // never answers holds back neither the ports nor the sessions.
    runInBackground(
        loop_, alive_, [reader = parts_.reader] { return reader->readProcesses(); },
        [this, tick](ProcessReading reading) { onProcesses(tick, std::move(reading)); });
    runInBackground(
        loop_, alive_, [reader = parts_.reader] { return reader->findRuntimes(); },
        [this, tick](std::vector<RuntimeCandidate> found) { onFound(tick, std::move(found)); });
}

std::vector<PortRow> AppModel::attached(std::vector<PortRow> rows) const {
    std::vector<ContainerInfo> containers;
    for (const auto& runtime : runtimes_)
        containers.insert(containers.end(), runtime.containers.begin(), runtime.containers.end());
    return PortContainerMapper::attach(std::move(rows), containers);
}

void AppModel::onProcesses(const std::shared_ptr<Tick>& tick, ProcessReading reading) {
    const double now = tick->now;
    monitor_.ingest(reading.sessions, now);
    std::map<std::string, AgentStatus> statuses;
    for (const auto& session : reading.sessions)
        statuses[session.id()] = monitor_.status(session.id(), now);
    statuses_ = std::move(statuses);
    sessions_ = std::move(reading.sessions);

    // The containers known so far go with the rows at once; each runtime's
    // fresh ones follow as its engine answers.
    tick->rows = std::move(reading.ports);
    tick->processesRead = true;
    ports_ = attached(tick->rows);
    lastRefresh_ = now;
    publish();
    if (tick->runtimesRead) finishTick(tick);
}

void AppModel::onFound(const std::shared_ptr<Tick>& tick, std::vector<RuntimeCandidate> found) {
    // The runtimes found now, each as it was last seen, until its own read
    // answers; a new one is not running until its socket says otherwise.
    std::vector<RuntimeState> runtimes;
    for (const auto& candidate : found) {
        RuntimeState state;
        auto previous = std::find_if(runtimes_.begin(), runtimes_.end(), [&](const auto& r) {
            return r.info.id() == candidate.runtime.id();
        });
        if (previous != runtimes_.end())
            state = std::move(*previous);
        else
            state.info = candidate.runtime;
        runtimes.push_back(std::move(state));
    }
    runtimes_ = std::move(runtimes);
    publish();

    tick->pendingRuntimes = runtimes_.size();
    if (runtimes_.empty()) return runtimesRead(tick);
    for (size_t i = 0; i < runtimes_.size(); ++i)
        runInBackground(
            loop_, alive_,
            [reader = parts_.reader, candidate = found[i]] {
                return reader->readRuntime(candidate);
            },
            [this, tick, i](RuntimeReading read) { onRuntime(tick, i, std::move(read)); });
}

void AppModel::onRuntime(const std::shared_ptr<Tick>& tick, size_t index, RuntimeReading reading) {
    RuntimeState& state = runtimes_[index];
    state.info = std::move(reading.runtime);
    state.diskFiles = std::move(reading.diskFiles);
    state.macDiskBytes.reset();
    for (const auto& file : state.diskFiles)
        state.macDiskBytes = state.macDiskBytes.value_or(0) + file.allocatedBytes;
    if (reading.error) {
        state.containers.clear();
        state.error = "Could not read the runtime (" + *reading.error + ").";
    } else {
        state.containers = std::move(reading.containers);
        state.error.reset();
    }
    if (tick->processesRead) ports_ = attached(tick->rows);
    publish();
    if (--tick->pendingRuntimes == 0) runtimesRead(tick);
}

void AppModel::runtimesRead(const std::shared_ptr<Tick>& tick) {
    tick->runtimesRead = true;
    if (tick->processesRead) finishTick(tick);
}

void AppModel::finishTick(const std::shared_ptr<Tick>& tick) {
    const bool first = !runtimeAnswered_;
    runtimeAnswered_ = true;
    if (parts_.diagnostics) parts_.diagnostics->recordRefresh((loop_.now() - tick->now) * 1000);
    if (didRefresh) didRefresh(suiteCounts());
    if (parts_.options.dumpCountsPath) dump(*parts_.options.dumpCountsPath);
    if (first && firstRuntimesRead) firstRuntimesRead();
    if (isPrimary_) alertAndRecord(tick->now);
    if (loadsSizesEachTick_) loadSizes(false);
    publish();

    tickInFlight_ = false;
    if (refreshAgain_) {
        refreshAgain_ = false;
        refresh();
    } else {
        scheduleNext();
    }
}

void AppModel::alertAndRecord(double now) {
    std::vector<RunawayInput> runaways;
    if (alertSettings_.runawaySession) {
        for (const auto& due : monitor_.alertsDue(now)) {
            auto session = std::find_if(sessions_.begin(), sessions_.end(),
                                        [&](const AgentSession& s) { return s.id() == due.first; });
            if (session == sessions_.end()) continue;
            std::optional<std::string> project;
            if (session->project) project = session->project->name();
            runaways.push_back({due.first, rawValue(session->tool), project, due.second});
        }
    }
    std::vector<RuntimeDiskInput> disks;
    for (const auto& runtime : runtimes_)
        disks.push_back(
            {runtime.info.id(), runtime.info.displayName,
             occupiedBytes(runtime.info, runtime.sizes ? &runtime.sizes->usage : nullptr,
                           runtime.diskFiles)});
    const auto alerts = alertEngine_.evaluate(now, runaways, disks, ports_);

    if (!alerts.empty()) {
        for (const auto& alert : alerts) {
            // Each request carries its own time, so that the desktop never
            // takes two alerts of one tick for one.
            double stamp = loop_.now();
            if (lastNotificationStamp_ && stamp <= *lastNotificationStamp_)
                stamp = *lastNotificationStamp_ + 0.001;
            lastNotificationStamp_ = stamp;
            NotificationRequest request{alert.title, alert.body,
                                        notificationIdentifier(rawValue(alert.kind), stamp)};
            auto answer = [mailbox = loop_.mailbox(), alive = std::weak_ptr<int>(alive_),
                           this](bool accepted) {
                mailbox->post([alive, accepted, this] {
                    if (!alive.lock() || accepted) return;
                    ++unseenAlerts_;
                    publish();
                });
            };
            // A notification that cannot even be queued reached nobody.
            if (!notifier_ || !notifier_->post(std::move(request), answer)) {
                ++unseenAlerts_;
            }
        }
        return;
    }

    HistoryEntry entry = HistoryEntry::from(now, ports_, sessions_, statuses_);
    if (!recorder_.shouldRecord(entry)) return;
    const bool prune = !lastPrune_ || now - *lastPrune_ >= kPruneInterval;
    if (prune) lastPrune_ = now;
    runInBackground(
        loop_, alive_,
        [history = parts_.history, entry = std::move(entry), prune, now] {
            if (prune) history->prune(now);
            return history->append(entry);
        },
        [this](Result<Ok, std::string> written) {
            if (!written) log(written.error());
            loadHistory();
        });
}

void AppModel::loadSizes(bool afterChange) {
    for (const auto& runtime : runtimes_) {
        if (!runtime.info.isMeasurable()) continue;
        const std::string id = runtime.info.id();
        if (!sizesInFlight_.insert(id).second) continue;
        runInBackground(
            loop_, alive_,
            [reader = parts_.reader, info = runtime.info, afterChange] {
                return reader->readSizes(info, afterChange);
            },
            [this, id](Result<CachedSizes, std::string> sizes) {
                sizesInFlight_.erase(id);
                auto state = std::find_if(runtimes_.begin(), runtimes_.end(),
                                          [&](const RuntimeState& r) { return r.info.id() == id; });
                if (state == runtimes_.end()) return;
                if (sizes)
                    state->sizes = std::move(sizes).value();
                else
                    state->error = "Could not read sizes (" + sizes.error() + ").";
                publish();
            });
    }
}

void AppModel::loadHistory() {
    if (!parts_.history) return;
    if (historyLoadInFlight_) {
        historyReloadAgain_ = true;
        return;
    }
    historyLoadInFlight_ = true;
    runInBackground(
        loop_, alive_,
        [history = parts_.history, now = loop_.now()] { return history->summary(now); },
        [this](HistorySummary summary) {
            historySummary_ = std::move(summary);
            historyLoadInFlight_ = false;
            publish();
            if (historyReloadAgain_) {
                historyReloadAgain_ = false;
                loadHistory();
            }
        });
}

void AppModel::setTab(Tab tab) {
    if (tab_ == tab) return;
    tab_ = tab;
    publish();
}

void AppModel::setPortSearch(std::string text) {
    if (portSearch_ == text) return;
    portSearch_ = std::move(text);
    publish();
}

void AppModel::setVisible(bool visible) {
    if (visible && unseenAlerts_ != 0) unseenAlerts_ = 0;
    const bool changedNow = isVisible_ != visible;
    isVisible_ = visible;
    if (changedNow && running_) restartLoop();
    publish();
}

void AppModel::setMemoryThresholdGB(double gigabytes) {
    auto bytes = AppModel::gibibytes(gigabytes);
    if (!bytes) fatal("the memory threshold does not fit in a byte count");
    memoryThresholdGB_ = gigabytes;
    if (auto saved = parts_.settings->set("memoryThresholdGB", gigabytes); !saved)
        log(saved.error().message());
    auto thresholds = monitor_.thresholds();
    thresholds.memoryBytes = *bytes;
    monitor_.setThresholds(thresholds);
    publish();
}

void AppModel::setAlertSettings(const AlertSettings& settings) {
    alertSettings_ = settings;
    if (auto saved = parts_.settings->set("alertSettings", nlohmann::json::parse(settings.json()));
        !saved)
        log(saved.error().message());
    alertEngine_.setSettings(settings);
    publish();
}

void AppModel::askForNotificationPermissionOnce() {
    auto asked = parts_.settings->value("alertPermissionAsked");
    if (asked && asked->is_boolean() && asked->get<bool>()) return;
    // The flag is set before asking, so that a refusal is never asked again.
    if (auto saved = parts_.settings->set("alertPermissionAsked", true); !saved)
        log(saved.error().message());
    if (notifier_) notifier_->requestPermission([](bool) {});
}

int AppModel::containersRunning() const {
    int total = 0;
    for (const auto& runtime : runtimes_)
        total += runtime.running();
    return total;
}

int AppModel::agentsBusy() const {
    int busy = 0;
    for (const auto& session : sessions_)
        if (auto s = statuses_.find(session.id()); s != statuses_.end() && s->second.isBusy) ++busy;
    return busy;
}

bool AppModel::hasRunaway() const {
    return !runaways().empty();
}

std::vector<AgentSession> AppModel::runaways() const {
    std::vector<AgentSession> out;
    for (const auto& session : sessions_)
        if (auto s = statuses_.find(session.id()); s != statuses_.end() && s->second.runaway)
            out.push_back(session);
    return out;
}

std::vector<PortRow> AppModel::filteredPorts() const {
    return filter(ports_, portSearch_);
}

std::vector<PortRow> AppModel::filter(const std::vector<PortRow>& rows, std::string_view search) {
    const auto first = search.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return rows;
    search = search.substr(first, search.find_last_not_of(" \t\r\n") - first + 1);
    if (search.size() <= 5 &&
        std::all_of(search.begin(), search.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        const int port = std::stoi(std::string(search));
        if (port <= 65535) return PortScanner::rows(static_cast<uint16_t>(port), rows);
    }
    const std::string needle = lowercase(search);
    std::vector<PortRow> out;
    for (const auto& row : rows) {
        const bool inName = lowercase(row.processName).find(needle) != std::string::npos;
        const bool inProject =
            row.project && lowercase(row.project->name()).find(needle) != std::string::npos;
        if (inName || inProject) out.push_back(row);
    }
    return out;
}

WharfyCounts AppModel::suiteCounts() const {
    WharfyCounts counts;
    counts.listening = static_cast<int>(ports_.size());
    counts.openToNetwork =
        static_cast<int>(std::count_if(ports_.begin(), ports_.end(), [](const PortRow& r) {
            return r.addressClass != AddressClass::thisMacOnly;
        }));
    if (runtimeAnswered_) counts.containersRunning = containersRunning();
    counts.agentsBusy = agentsBusy();
    counts.hasRunaway = hasRunaway();
    counts.unseenAlerts = unseenAlerts_;
    return counts;
}

void AppModel::dump(const std::string& path) {
    runInBackground(
        loop_, alive_,
        [path, text = suiteCounts().json().dump(2) + "\n"] { return writePrivateFile(path, text); },
        [this](Result<Ok, FileError> written) {
            if (!written) log(written.error().message());
        });
}

template <typename Plan>
void AppModel::planThen(Plan plan, bool isSession) {
    // One request at a time: a plan being made, a confirmation on screen or
    // an action running all come first.
    if (!parts_.actions || isPlanning_ || pending_ || isWorking_) return;
    isPlanning_ = true;
    runInBackground(
        loop_, alive_, std::move(plan), [this, isSession](Result<StopPlan, std::string> planned) {
            isPlanning_ = false;
            if (planned)
                pending_ = PendingAction{PendingAction::Stop{planned.value(), isSession}};
            else
                showNotice(planned.error(), true);
            publish();
        });
}

void AppModel::requestStop(const PortRow& row) {
    planThen([actions = parts_.actions, row] { return actions->planStop(row); }, false);
}

void AppModel::requestStop(const nemarro::process::ProcessRef& process) {
    planThen([actions = parts_.actions, process] { return actions->planStop(process); }, false);
}

void AppModel::requestStop(const AgentSession& session) {
    planThen([actions = parts_.actions, session] { return actions->planStop(session); }, true);
}

void AppModel::requestContainerAction(const RuntimeInfo& runtime, ContainerAction action) {
    if (!parts_.actions || isPlanning_ || pending_ || isWorking_) return;
    isPlanning_ = true;
    runInBackground(
        loop_, alive_,
        [actions = parts_.actions, runtime, action] { return actions->command(runtime, action); },
        [this, runtime, action](Result<DockerCommand, std::string> command) {
            isPlanning_ = false;
            if (command)
                pending_ =
                    PendingAction{PendingAction::Container{runtime, action, command.value()}};
            else
                showNotice(command.error(), true);
            publish();
        });
}

void AppModel::cancelPending() {
    if (!pending_ || isWorking_) return;
    pending_.reset();
    publish();
}

void AppModel::clearNotice() {
    if (!notice_) return;
    notice_.reset();
    publish();
}

void AppModel::showNotice(std::string text, bool isError) {
    notice_ = Notice{std::move(text), isError, loop_.now()};
}

void AppModel::confirm() {
    if (!pending_ || isWorking_) return;
    const PendingAction action = *pending_;
    pending_.reset();
    isWorking_ = true;
    publish();
    auto done = [this](std::string message, bool isError, bool changedDisk) {
        isWorking_ = false;
        showNotice(std::move(message), isError);
        publish();
        restartLoop();
        if (changedDisk) loadSizes(true);
    };
    if (const auto* stop = action.as<PendingAction::Stop>()) {
        runInBackground(
            loop_, alive_,
            [actions = parts_.actions, plan = stop->plan, session = stop->isSession] {
                return actions->stop(plan, session);
            },
            [done](Result<StopReport, std::string> report) {
                if (report)
                    done(report.value().message(),
                         report.value().outcome.is<ProcessStopOutcome::SignalFailed>(), false);
                else
                    done(report.error(), true, false);
            });
        return;
    }
    const auto* container = action.as<PendingAction::Container>();
    runInBackground(
        loop_, alive_,
        [actions = parts_.actions, runtime = container->runtime, act = container->action] {
            return actions->perform(runtime, act);
        },
        [this, done](Result<ActionReport, std::string> report) {
            if (!report) return done(report.error(), true, false);
            lastContainerReport_ = report.value();
            const ActionReport& r = report.value();
            std::string text = r.succeeded ? "Done: " + r.command.display() + "."
                                           : "The command failed: " + r.command.display() + ".";
            if (r.stopOutcome == StopOutcome::stillRunning)
                text = "The container is still running after one SIGTERM.";
            else if (r.stopOutcome == StopOutcome::stopped)
                text = "The container stopped.";
            done(std::move(text), !r.succeeded, true);
        });
}

void AppModel::log(const std::string& message) const {
    if (parts_.log) parts_.log(message);
}

void AppModel::publish() {
    if (changed) changed();
}

}  // namespace wharfy::app
