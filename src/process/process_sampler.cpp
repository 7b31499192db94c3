#include "process/process_sampler.h"

#include <time.h>

namespace nemarro::process {

ProcessSampler::ProcessSampler(std::unique_ptr<ProcessSource> source, TickClock clock,
                               std::function<uint64_t()> now)
    : source_(std::move(source)), clock_(clock), now_(std::move(now)) {}

uint64_t ProcessSampler::monotonicNow() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

ProcessSampler::Result ProcessSampler::sample() {
    const uint64_t t = now_();
    const double elapsed =
        previousTime_ && t > *previousTime_ ? static_cast<double>(t - *previousTime_) : 0.0;
    Result result;
    const auto pids = source_->allPIDs();
    const bool rates = elapsed > 0 && previousTime_.has_value();
    std::unordered_map<ProcessIdentity, Counters> current;
    current.reserve(pids.size());
    result.processes.reserve(pids.size());

    for (int32_t pid : pids) {
        auto identity = source_->identity(pid);
        if (!identity) {
            ++result.hidden;
            continue;
        }
        auto raw = source_->usage(pid);
        if (!raw) {
            ++result.hidden;
            continue;
        }
        Counters counters{raw->usage.cpuTicks, raw->usage.diskRead, raw->usage.diskWritten};
        ProcessUsage usage{*identity,
                           raw->ppid,
                           raw->uid,
                           std::move(raw->name),
                           std::move(raw->path),
                           raw->usage.footprint,
                           {},
                           {},
                           {}};
        if (rates) {
            auto prev = previous_.find(*identity);
            if (prev != previous_.end()) {
                const Counters& p = prev->second;
                auto wentDown = [](const std::optional<uint64_t>& now,
                                   const std::optional<uint64_t>& before) {
                    return now && before && *now < *before;
                };
                if (counters.cpuTicks >= p.cpuTicks && !wentDown(counters.diskRead, p.diskRead) &&
                    !wentDown(counters.diskWritten, p.diskWritten)) {
                    usage.cpuPercent =
                        static_cast<double>(clock_.nanoseconds(counters.cpuTicks - p.cpuTicks)) /
                        elapsed * 100.0;
                    // A hidden disk counter gives an absent rate, never a zero one.
                    if (counters.diskRead && p.diskRead)
                        usage.diskReadPerSecond =
                            static_cast<double>(*counters.diskRead - *p.diskRead) / elapsed * 1e9;
                    if (counters.diskWritten && p.diskWritten)
                        usage.diskWritePerSecond =
                            static_cast<double>(*counters.diskWritten - *p.diskWritten) / elapsed *
                            1e9;
                }
            }
        }
        current[*identity] = counters;
        result.processes.push_back(std::move(usage));
    }
    previous_ = std::move(current);
    previousTime_ = t;
    return result;
}

}  // namespace nemarro::process
