#pragma once

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include "core/history/history_calendar.h"
#include "core/history/history_entry.h"

namespace wharfy::testing {

/// Sets TZ for the life of the object (POSIX rule strings need no zone files).
class ScopedTimeZone {
  public:
    explicit ScopedTimeZone(const char* tz) {
        if (const char* old = std::getenv("TZ")) old_ = old;
        ::setenv("TZ", tz, 1);
        ::tzset();
    }
    ~ScopedTimeZone() {
        if (old_)
            ::setenv("TZ", old_->c_str(), 1);
        else
            ::unsetenv("TZ");
        ::tzset();
    }
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

  private:
    std::optional<std::string> old_;
};

/// Central European time with its summer time: clocks go forward on the last
/// Sunday of March at 02:00 and back on the last Sunday of October at 03:00.
inline constexpr const char* kBerlin = "CET-1CEST,M3.5.0,M10.5.0/3";

/// An instant given as an internet date ("2026-03-07T14:05:09Z").
inline double utc(const char* text) {
    return parseInternetDate(text).value();
}

}  // namespace wharfy::testing
