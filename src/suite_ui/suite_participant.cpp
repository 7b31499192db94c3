#include "suite_ui/suite_participant.h"

#include <algorithm>

#include "suite/glance_codec.h"
#include "suite/glance_store.h"

namespace nemarro::suite_ui {

using suite::GlanceCodec;
using suite::GlanceState;
using suite::GlanceStore;
using suite::SuiteStateMachine;

std::map<SuiteApp, GlanceRecord> readSuiteRecords(const std::vector<SuiteFolder>& folders) {
    std::map<SuiteApp, GlanceRecord> records;
    for (const SuiteFolder& folder : folders) {
        for (auto& [app, result] : GlanceStore{folder}.readAll()) {
            auto* record = std::get_if<GlanceRecord>(&result);
            if (!record) continue;
            auto [it, inserted] = records.emplace(app, *record);
            if (!inserted && record->at > it->second.at) it->second = std::move(*record);
        }
    }
    return records;
}

double SuiteParticipant::timerInterval(int64_t ttl) {
    const double clamped = double(std::clamp<int64_t>(ttl, 3, 60));
    return std::min(clamped / 2 - 0.5, 5.0);
}

SuiteParticipant::SuiteParticipant(wharfy::app::EventLoop& loop, ParticipantParts parts)
    : loop_(loop), parts_(std::move(parts)) {
    for (const SuiteFolder& folder : parts_.folders) {
        auto prepared = folder.prepare();
        if (prepared) {
            folders_.push_back(folder);
        } else {
            logOnce("folder " + folder.path,
                    "suite folder not usable: " + prepared.error().message());
        }
    }
    if (!folders_.empty()) settings_ = SuiteSettings::read(folders_.front());
    if (parts_.preferences)
        showOwnIcon_ = parts_.preferences->flag(kShowOwnIconKey).value_or(false);
    ownIconByRules_ = machine_.showsOwnIcon(showOwnIcon_);

    const ParticipantSystem& system = parts_.system;
    if (suite::canHost(parts_.app) && parts_.host && system.lockFiles && !folders_.empty()) {
        std::vector<std::string> paths;
        for (const SuiteFolder& folder : folders_)
            paths.push_back(folder.hostLockPath());
        // The lock thread's messages and its news are handed to the loop.
        auto mailbox = loop_.mailbox();
        auto lockLog = [mailbox, log = parts_.log](const std::string& message) {
            mailbox->post([log, message] {
                if (log) log(message);
            });
        };
        lock_ = std::make_unique<suite::HostLock>(std::move(paths), system.lockFiles,
                                                  std::move(lockLog), system.lockOptions);
        lock_->start([mailbox, alive = std::weak_ptr<int>(alive_), this] {
            mailbox->post([alive, this] {
                if (!alive.lock() || didShutdown_) return;
                evaluate();
                writeIfDue(0);
                tellChanged();
            });
        });
    }
    if (system.watchFolders && !folders_.empty()) {
        std::vector<std::string> paths;
        for (const SuiteFolder& folder : folders_) {
            paths.push_back(folder.path);
            paths.push_back(folder.glancesPath());
        }
        watch_ = system.watchFolders(paths, [this] { onFolderChanged(); });
    }
    if (system.openRequests) {
        openRequests_ = system.openRequests(parts_.app, [this] {
            if (parts_.onOpen) parts_.onOpen();
        });
    }
    if (parts_.observesSystem && system.clocks) {
        wake_.emplace(system.clocks);
        wake_->check();
    }
}

SuiteParticipant::~SuiteParticipant() {
    changed = nullptr;
    shutdown();
}

void SuiteParticipant::publish(GlanceLevel level, std::vector<GlanceMetric> metrics, int64_t ttl) {
    if (didShutdown_) return;
    const bool first = !last_;
    last_ = Publication{level, std::move(metrics), ttl};
    if (timerTTL_ != ttl) startTimer(ttl);
    if (first) evaluate();
    writeIfDue(0);
    tellChanged();
}

void SuiteParticipant::requestOpen(SuiteApp app) {
    if (openRequests_) openRequests_->requestOpen(app);
}

void SuiteParticipant::startTimer(int64_t ttl) {
    if (timer_) loop_.cancel(*timer_);
    timerTTL_ = ttl;
    timer_ = loop_.after(timerInterval(ttl), [this] { tick(); });
}

void SuiteParticipant::tick() {
    const double interval = timerInterval(*timerTTL_);
    timer_ = loop_.after(interval, [this] { tick(); });
    if (wake_ && wake_->check()) machine_.didWake(loop_.now());
    evaluate();
    // A tick may come a little early; the margin keeps it from putting the
    // rewrite off by a whole interval.
    writeIfDue(interval / 10);
    tellChanged();
}

void SuiteParticipant::onFolderChanged() {
    evaluate();
    writeIfDue(0);
    syncSettings();
    tellChanged();
}

void SuiteParticipant::evaluate() {
    const double now = loop_.now();
    auto records = readSuiteRecords(folders_);
    // Counting itself at once keeps a starting app from waiting for its own
    // file; a failed write must not hide that the others cannot see it.
    if (suite::participates(parts_.app) && !didShutdown_ && !lastWriteFailed_) {
        auto own = records.find(parts_.app);
        if (own == records.end() || !SuiteStateMachine::isFresh(parts_.app, own->second, now)) {
            GlanceRecord self;
            self.app = parts_.app;
            self.at = now;
            self.ttl = last_ ? last_->ttl : kDefaultTTL;
            records[parts_.app] = self;
        }
    }
    machine_.update(records, now);
    updateObservables();
    reconcileHost();
}

template <typename T>
void SuiteParticipant::assign(T& field, T value) {
    if (field == value) return;
    field = std::move(value);
    dirty_ = true;
}

void SuiteParticipant::updateObservables() {
    assign(isActive_, machine_.isActive);
    assign(rows_, machine_.rows());
    assign(worstLevel_, machine_.worstLevel());
    assign(menuBarValues_, machine_.menuBarValues(settings_.menuBarValues));
    assign(ownIconByRules_, machine_.showsOwnIcon(showOwnIcon_));
}

void SuiteParticipant::reconcileHost() {
    const bool shouldHost = !didShutdown_ && lock_ && lock_->isHeld() && machine_.isActive;
    if (shouldHost && !host_) {
        // Another host may have changed the shared settings meanwhile.
        syncSettings();
        host_ = parts_.host(*this);
        shownReadout_.reset();
        if (host_) {
            assign(isHost_, true);
            hostingChanged();
        }
    } else if (!shouldHost && host_) {
        host_.reset();
        assign(isHost_, false);
        hostingChanged();
    }
    showReadout();
}

void SuiteParticipant::showReadout() {
    while (host_ && !showing_) {
        SuiteReadout readout{rows_, worstLevel_, menuBarValues_, settings_};
        if (shownReadout_ == readout) return;
        shownReadout_ = readout;
        showing_ = true;
        host_->show(readout);
        showing_ = false;
    }
}

// The record carries the hosting flag, so the write that follows every
// evaluation rewrites it at once. The re-checks then pick up how the others
// answered the change without waiting for the next tick.
void SuiteParticipant::hostingChanged() {
    if (hostingRecheck_) loop_.cancel(*hostingRecheck_);
    hostingRechecksLeft_ = kHostingRechecks;
    hostingRecheck_ = loop_.after(kHostingRecheckSpacing, [this] { recheckHosting(); });
}

void SuiteParticipant::recheckHosting() {
    hostingRecheck_.reset();
    evaluate();
    writeIfDue(0);
    if (--hostingRechecksLeft_ > 0 && !hostingRecheck_)
        hostingRecheck_ = loop_.after(kHostingRecheckSpacing, [this] { recheckHosting(); });
    tellChanged();
}

void SuiteParticipant::writeIfDue(double margin) {
    if (didShutdown_ || !last_) return;
    const double now = loop_.now();
    GlanceRecord record;
    record.app = parts_.app;
    record.hosting = isHost_;
    record.state = GlanceState::running;
    record.at = now;
    record.ttl = last_->ttl;
    record.level = last_->level;
    record.metrics = last_->metrics;
    if (auto problem = GlanceCodec::problem(record)) {
        logOnce("invalid " + *problem, "glance record not written: " + *problem);
        return;
    }
    if (!schedule_.isDue(record, now + margin)) return;
    writeEverywhere(record, true);
}

void SuiteParticipant::writeEverywhere(const GlanceRecord& record, bool remember) {
    bool failed = false;
    for (const SuiteFolder& folder : folders_) {
        auto written = GlanceStore{folder}.write(record);
        if (written) continue;
        failed = true;
        const std::string text = suite::message(written.error());
        logOnce("write " + text, "glance record not written: " + text);
    }
    if (!remember) return;
    lastWriteFailed_ = failed;
    if (!failed && !folders_.empty()) schedule_.didWrite(record);
}

void SuiteParticipant::syncSettings() {
    if (persistTask_ || folders_.empty()) return;
    SuiteSettings stored = SuiteSettings::read(folders_.front());
    if (stored == settings_) return;
    settings_ = std::move(stored);
    dirty_ = true;
    assign(menuBarValues_, machine_.menuBarValues(settings_.menuBarValues));
    showReadout();
}

void SuiteParticipant::setSettings(SuiteSettings settings) {
    if (didShutdown_ || settings == settings_) return;
    settings_ = std::move(settings);
    dirty_ = true;
    assign(menuBarValues_, machine_.menuBarValues(settings_.menuBarValues));
    persistSoon();
    showReadout();
    tellChanged();
}

void SuiteParticipant::floatingBarMoved(suite::ScreenPoint topLeft) {
    SuiteSettings moved = settings_;
    moved.floatingTopLeft = topLeft;
    setSettings(std::move(moved));
}

void SuiteParticipant::persistSoon() {
    if (persistTask_) loop_.cancel(*persistTask_);
    persistTask_ = loop_.after(kPersistDelay, [this] {
        persistTask_.reset();
        saveSettings();
    });
}

void SuiteParticipant::saveSettings() {
    for (const SuiteFolder& folder : folders_) {
        auto written = settings_.write(folder);
        if (written) continue;
        const std::string text = written.error().message();
        logOnce("settings " + text, "suite settings not saved: " + text);
    }
}

bool SuiteParticipant::showsOwnIcon() const {
    return machine_.showsOwnIcon(showOwnIcon_);
}

void SuiteParticipant::setShowOwnIconSetting(bool show) {
    if (show == showOwnIcon_) return;
    showOwnIcon_ = show;
    dirty_ = true;
    if (parts_.preferences) {
        if (auto error = parts_.preferences->setFlag(kShowOwnIconKey, show))
            logOnce("preference " + *error, "suite preference not saved: " + *error);
    }
    assign(ownIconByRules_, machine_.showsOwnIcon(showOwnIcon_));
    tellChanged();
}

void SuiteParticipant::shutdown() {
    if (didShutdown_) return;
    didShutdown_ = true;
    for (auto* task : {&timer_, &hostingRecheck_})
        if (*task) loop_.cancel(**task);
    timer_.reset();
    hostingRecheck_.reset();
    const bool settingsPending = persistTask_.has_value();
    if (persistTask_) loop_.cancel(*persistTask_);
    persistTask_.reset();
    watch_.reset();
    openRequests_.reset();
    host_.reset();
    assign(isHost_, false);

    GlanceRecord last;
    last.app = parts_.app;
    last.state = GlanceState::stopped;
    last.at = loop_.now();
    last.ttl = last_ ? last_->ttl : kDefaultTTL;
    last.level = last_ ? last_->level : GlanceLevel::ok;
    writeEverywhere(last, false);

    if (settingsPending) saveSettings();
    if (lock_) lock_->release();
    tellChanged();
}

void SuiteParticipant::logOnce(const std::string& key, const std::string& message) {
    if (!loggedProblems_.insert(key).second) return;
    if (parts_.log) parts_.log(message);
}

void SuiteParticipant::tellChanged() {
    if (!dirty_) return;
    dirty_ = false;
    if (changed) changed();
}

}  // namespace nemarro::suite_ui
