#include "app/diagnostics.h"

#include <nlohmann/json.hpp>

#include <sys/resource.h>

#include <algorithm>
#include <condition_variable>

namespace wharfy::app {

ProcessCost ProcessCost::current() {
    ProcessCost cost;
    cost.peakResidentBytes = app::peakResidentBytes();
    rusage usage{};
    if (::getrusage(RUSAGE_SELF, &usage) == 0) {
        auto seconds = [](const timeval& t) {
            return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
        };
        cost.cpuSeconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    }
    return cost;
}

Diagnostics::Diagnostics(std::chrono::steady_clock::time_point start) : start_(start) {}

void Diagnostics::mark(const std::string& name) {
    marks_[name] = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void Diagnostics::recordRefresh(double milliseconds) {
    refreshes_.push_back(milliseconds);
}

void Diagnostics::recordStall(double milliseconds) {
    std::lock_guard lock(stallMutex_);
    worstStall_ = std::max(worstStall_, milliseconds);
}

nlohmann::json Diagnostics::json(const ProcessCost& cost) const {
    std::vector<double> sorted = refreshes_;
    std::sort(sorted.begin(), sorted.end());
    auto median = [&]() -> double {
        if (sorted.empty()) return 0;
        const size_t mid = sorted.size() / 2;
        return sorted.size() % 2 ? sorted[mid] : (sorted[mid - 1] + sorted[mid]) / 2;
    };
    double worstAfterFirst = 0;
    for (size_t i = 1; i < refreshes_.size(); ++i)
        worstAfterFirst = std::max(worstAfterFirst, refreshes_[i]);
    double stall = 0;
    {
        std::lock_guard lock(stallMutex_);
        stall = worstStall_;
    }
    nlohmann::json marks = nlohmann::json::object();
    for (const auto& [name, at] : marks_)
        marks[name] = at;
    return {{"marks", std::move(marks)},
            {"worstMainThreadStallMs", stall},
            {"peakFootprintBytes",
             cost.peakResidentBytes ? nlohmann::json(*cost.peakResidentBytes) : nlohmann::json()},
            {"cpuSeconds", cost.cpuSeconds},
            {"wallSeconds",
             std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count()},
            {"refreshCount", refreshes_.size()},
            {"refreshMedianMs", median()},
            {"refreshWorstMs", sorted.empty() ? 0.0 : sorted.back()},
            {"refreshWorstAfterFirstMs", worstAfterFirst},
            {"suiteHost", suiteHost_}};
}

Watchdog::Watchdog(EventLoop& loop, std::shared_ptr<Diagnostics> diagnostics,
                   std::chrono::milliseconds period)
    : stop_(std::make_shared<std::atomic<bool>>(false)) {
    thread_ = std::thread([mailbox = loop.mailbox(), diagnostics, period, stop = stop_] {
        while (!stop->load()) {
            const auto asked = std::chrono::steady_clock::now();
            mailbox->post([diagnostics, asked] {
                diagnostics->recordStall(std::chrono::duration<double, std::milli>(
                                             std::chrono::steady_clock::now() - asked)
                                             .count());
            });
            std::this_thread::sleep_for(period);
        }
    });
}

Watchdog::~Watchdog() {
    stop_->store(true);
    if (thread_.joinable()) thread_.join();
}

}  // namespace wharfy::app
