#include "core/agents/agent_monitor.h"

#include <algorithm>

#include "core/agents/agent_session.h"

namespace wharfy {

void AgentMonitor::ingestLoads(const std::vector<SessionLoad>& sessions, double now) {
    std::map<std::string, std::vector<Sample>> kept;
    for (const auto& s : sessions) {
        auto& samples = kept[s.id];
        if (samples.empty()) {
            auto old = history_.find(s.id);
            if (old != history_.end()) samples = std::move(old->second);
        }
        samples.push_back(Sample{now, s.cpuPercent, s.footprint});
    }
    history_ = std::move(kept);
    std::erase_if(lastAlert_, [&](const auto& entry) { return !history_.contains(entry.first); });
    const double oldest = now - (thresholds_.runawayWindow + 60.0);
    for (auto& [id, samples] : history_)
        std::erase_if(samples, [&](const Sample& sample) { return sample.time < oldest; });
}

void AgentMonitor::ingest(const std::vector<AgentSession>& sessions, double now) {
    std::vector<SessionLoad> loads;
    loads.reserve(sessions.size());
    for (const auto& s : sessions)
        loads.push_back(SessionLoad{s.id(), s.cpuPercent, s.footprint});
    ingestLoads(loads, now);
}

std::optional<AgentMonitor::Average> AgentMonitor::average(const std::vector<Sample>& samples,
                                                           double window, double now) {
    const double start = now - window;
    double weighted = 0;
    double covered = 0;
    for (size_t i = 1; i < samples.size(); ++i) {
        const Sample& sample = samples[i];
        if (!(sample.time > start) || sample.time > now || !sample.cpu) continue;
        const double weight = sample.time - std::max(start, samples[i - 1].time);
        if (weight <= 0) continue;
        weighted += *sample.cpu * weight;
        covered += weight;
    }
    if (!(covered > 0)) return std::nullopt;
    return Average{weighted / covered, std::min(covered / window, 1.0)};
}

AgentStatus AgentMonitor::status(const std::string& sessionID, double now) const {
    static const std::vector<Sample> kNone;
    const auto found = history_.find(sessionID);
    const std::vector<Sample>& samples = found == history_.end() ? kNone : found->second;
    const auto busy = average(samples, thresholds_.busyWindow, now);
    const auto five = average(samples, 300.0, now);
    const auto run = average(samples, thresholds_.runawayWindow, now);

    AgentStatus status;
    if (!samples.empty() && samples.back().footprint > thresholds_.memoryBytes)
        status.runaway = RunawayReason{RunawayReason::Memory{samples.back().footprint}};
    else if (run && run->mean >= thresholds_.runawayPercent &&
             run->coverage >= thresholds_.runawayCoverage)
        status.runaway = RunawayReason{RunawayReason::Cpu{run->mean}};
    if (!samples.empty()) status.cpuNow = samples.back().cpu;
    if (five) status.cpuLastFiveMinutes = five->mean;
    status.isBusy = (busy ? busy->mean : 0.0) > thresholds_.busyPercent;
    return status;
}

std::vector<std::pair<std::string, RunawayReason>> AgentMonitor::alertsDue(double now) {
    std::vector<std::pair<std::string, RunawayReason>> due;
    for (const auto& [id, samples] : history_) {
        auto runaway = status(id, now).runaway;
        if (!runaway) continue;
        auto last = lastAlert_.find(id);
        if (last != lastAlert_.end() && now - last->second < thresholds_.alertCooldown) continue;
        due.emplace_back(id, *runaway);
        lastAlert_[id] = now;
    }
    return due;
}

const std::vector<AgentMonitor::Sample>* AgentMonitor::history(const std::string& sessionID) const {
    auto found = history_.find(sessionID);
    return found == history_.end() ? nullptr : &found->second;
}

}  // namespace wharfy
