#pragma once

#include <nlohmann/json_fwd.hpp>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "app/loop/event_loop.h"

namespace wharfy::app {

/// What this process has cost so far, read from the kernel.
struct ProcessCost {
    /// Peak resident memory; absent when the kernel will not tell.
    std::optional<uint64_t> peakResidentBytes;
    /// User plus system CPU time.
    double cpuSeconds = 0;

    /// This process, now.
    static ProcessCost current();
};

/// This process's peak resident memory; absent when the kernel will not tell.
std::optional<uint64_t> peakResidentBytes();

/// Figures of a timed run: named marks, the duration of every refresh and
/// the worst delay of the main thread, written as JSON at the end.
class Diagnostics {
  public:
    /// `start` is the steady-clock time the run counts from.
    explicit Diagnostics(
        std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now());

    /// Remembers when `name` happened, in seconds since the start.
    void mark(const std::string& name);
    /// One refresh took `milliseconds`.
    void recordRefresh(double milliseconds);
    /// The main thread answered `milliseconds` late; the worst is kept. Any thread.
    void recordStall(double milliseconds);
    void setSuiteHost(bool hosting) { suiteHost_ = hosting; }

    /// The JSON object of the run: "marks", "worstMainThreadStallMs",
    /// "peakFootprintBytes", "cpuSeconds", "wallSeconds", "refreshCount",
    /// "refreshMedianMs", "refreshWorstMs", "refreshWorstAfterFirstMs" and
    /// "suiteHost".
    nlohmann::json json(const ProcessCost& cost) const;

  private:
    std::chrono::steady_clock::time_point start_;
    std::map<std::string, double> marks_;
    std::vector<double> refreshes_;
    mutable std::mutex stallMutex_;
    double worstStall_ = 0;
    bool suiteHost_ = false;
};

/// A thread that asks the loop every 50 ms to answer and records how late
/// the answer comes. It stops with its handle.
class Watchdog {
  public:
    Watchdog(EventLoop& loop, std::shared_ptr<Diagnostics> diagnostics,
             std::chrono::milliseconds period = std::chrono::milliseconds(50));
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

  private:
    std::shared_ptr<std::atomic<bool>> stop_;
    std::thread thread_;
};

}  // namespace wharfy::app
