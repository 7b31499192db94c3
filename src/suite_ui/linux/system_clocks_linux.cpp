#include <time.h>

#include "suite_ui/wake_detector.h"

namespace nemarro::suite_ui {
namespace {

double seconds(clockid_t clock) {
    timespec now{};
    if (::clock_gettime(clock, &now) != 0) return 0;
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

}  // namespace

ClockReading readSystemClocks() {
    return {seconds(CLOCK_BOOTTIME), seconds(CLOCK_MONOTONIC)};
}

}  // namespace nemarro::suite_ui
