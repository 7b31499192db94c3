#include "suite/suite_state_machine.h"

#include <algorithm>

namespace nemarro::suite {

bool SuiteStateMachine::isFresh(SuiteApp app, const GlanceRecord& record, double time) {
    return participates(app) && record.state == GlanceState::running &&
           record.at - futureAllowance <= time && time <= record.at + double(record.ttl);
}

void SuiteStateMachine::update(const std::map<SuiteApp, GlanceRecord>& records, double time) {
    now = time;
    latest.clear();
    size_t freshCount = 0;
    bool hostSeen = false;
    for (const auto& [app, record] : records) {
        if (!participates(app)) continue;
        latest.emplace(app, record);
        if (!isFresh(app, record, time)) continue;
        ++freshCount;
        lastFreshAt[app] = time;
        hostSeen = hostSeen || record.hosting;
    }
    if (freshCount < 2) {
        if (!isActive) return;
        if (time >= wakeUntil) {
            if (!belowSince) belowSince = time;
            if (time - *belowSince >= offDelay) {
                isActive = false;
                activeSince.reset();
                hostSeenAt.reset();
                belowSince.reset();
                return;
            }
        } else {
            belowSince.reset();
        }
    } else {
        if (!isActive) {
            isActive = true;
            activeSince = time;
            hostSeenAt.reset();
        }
        belowSince.reset();
    }
    if (hostSeen) hostSeenAt = time;
}

void SuiteStateMachine::didWake(double time) {
    wakeUntil = time + wakeGrace;
    belowSince.reset();
}

bool SuiteStateMachine::hostMissing() const {
    if (!isActive) return false;
    const std::optional<double> since = hostSeenAt ? hostSeenAt : activeSince;
    return since && now - *since > hostGrace;
}

bool SuiteStateMachine::showsOwnIcon(bool optIn) const {
    return !isActive || optIn || hostMissing();
}

std::vector<SuiteRow> SuiteStateMachine::rows() const {
    std::vector<SuiteRow> rows;
    for (SuiteApp app : allSuiteApps) {
        if (!participates(app)) continue;
        auto record = latest.find(app);
        if (record != latest.end() && isFresh(app, record->second, now)) {
            rows.push_back(RunningRow{record->second});
            continue;
        }
        auto fresh = lastFreshAt.find(app);
        if (fresh != lastFreshAt.end() && now - fresh->second <= notRunningShown)
            rows.push_back(NotRunningRow{app});
    }
    return rows;
}

GlanceLevel SuiteStateMachine::worstLevel() const {
    GlanceLevel worst = GlanceLevel::ok;
    for (const SuiteRow& row : rows())
        if (const auto* running = std::get_if<RunningRow>(&row))
            worst = std::max(worst, running->record.level);
    return worst;
}

std::vector<std::pair<MetricRef, GlanceMetric>> SuiteStateMachine::menuBarValues(
    const std::optional<std::vector<MetricRef>>& chosen) const {
    std::map<SuiteApp, const GlanceRecord*> running;
    for (const auto& [app, record] : latest)
        if (isFresh(app, record, now)) running[app] = &record;
    std::vector<std::pair<MetricRef, GlanceMetric>> values;
    if (chosen && !chosen->empty()) {
        for (size_t i = 0; i < chosen->size() && i < 2; ++i) {
            const MetricRef& ref = (*chosen)[i];
            auto record = running.find(ref.app);
            if (record == running.end()) continue;
            for (const GlanceMetric& metric : record->second->metrics)
                if (metric.id == ref.metric) {
                    values.emplace_back(ref, metric);
                    break;
                }
        }
        return values;
    }
    for (const auto& [app, record] : running)
        if (!record->metrics.empty()) {
            values.emplace_back(MetricRef{app, record->metrics.front().id},
                                record->metrics.front());
            break;
        }
    return values;
}

bool PublishSchedule::isDue(const GlanceRecord& record, double time) const {
    if (!lastWritten) return true;
    GlanceRecord previous = *lastWritten;
    previous.at = record.at;
    if (previous != record) return true;
    return time - lastWritten->at >= double(record.ttl) * 0.5;
}

}  // namespace nemarro::suite
