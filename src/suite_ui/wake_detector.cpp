#include "suite_ui/wake_detector.h"

namespace nemarro::suite_ui {

bool WakeDetector::check() {
    if (!clocks_) return false;
    const ClockReading now = clocks_();
    const double gap = now.boottime - now.monotonic;
    const bool slept = lastGap_ && gap - *lastGap_ > kSleepGap;
    lastGap_ = gap;
    return slept;
}

}  // namespace nemarro::suite_ui
