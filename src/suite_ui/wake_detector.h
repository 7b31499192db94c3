#pragma once

#include <functional>
#include <optional>

namespace nemarro::suite_ui {

/// Two clocks read at the same moment, in seconds: boot time keeps counting
/// while the machine is suspended, monotonic time does not.
struct ClockReading {
    double boottime = 0;
    double monotonic = 0;

    bool operator==(const ClockReading&) const = default;
};

using SystemClocks = std::function<ClockReading()>;

/// CLOCK_BOOTTIME and CLOCK_MONOTONIC of this machine.
ClockReading readSystemClocks();

/// Tells, between two timer ticks, whether the machine slept in between: the
/// gap between the two clocks grew.
class WakeDetector {
  public:
    /// A growth of more than this many seconds is a sleep; less is noise.
    static constexpr double kSleepGap = 5;

    explicit WakeDetector(SystemClocks clocks) : clocks_(std::move(clocks)) {}

    /// Whether the machine slept since the previous check. The first check only
    /// takes the clocks' reading.
    bool check();

  private:
    SystemClocks clocks_;
    std::optional<double> lastGap_;
};

}  // namespace nemarro::suite_ui
