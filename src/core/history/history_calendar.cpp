#include "core/history/history_calendar.h"

#include <cmath>
#include <cstdio>

namespace wharfy {
namespace {

bool isLeap(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int daysInMonth(int year, int month) {
    static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && isLeap(year) ? 29 : kDays[month - 1];
}

}  // namespace

std::optional<CivilDate> CivilDate::make(int year, int month, int day) {
    if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month)) return std::nullopt;
    return CivilDate{year, month, day};
}

// Howard Hinnant's days-from-civil algorithms, on 400-year eras.
int64_t CivilDate::daysSinceEpoch() const {
    const int64_t y = static_cast<int64_t>(year) - (month <= 2 ? 1 : 0);
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t mp = (month + 9) % 12;
    const int64_t doy = (153 * mp + 2) / 5 + day - 1;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

CivilDate CivilDate::fromDaysSinceEpoch(int64_t days) {
    const int64_t z = days + 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t doe = z - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const int64_t mp = (5 * doy + 2) / 153;
    const int64_t d = doy - (153 * mp + 2) / 5 + 1;
    const int64_t m = mp < 10 ? mp + 3 : mp - 9;
    const int64_t y = yoe + era * 400 + (m <= 2 ? 1 : 0);
    return CivilDate{static_cast<int>(y), static_cast<int>(m), static_cast<int>(d)};
}

std::string CivilDate::text() const {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d", year, month, day);
    return buf;
}

double HistoryCalendar::startOfDay(CivilDate day) const {
    // Local midnight lies within a day of UTC midnight (offsets stay within
    // ±26 hours); the first second whose local date is `day` or later is the
    // start, found by halving that range.
    const int64_t utcMidnight = day.daysSinceEpoch() * 86400;
    int64_t low = utcMidnight - 2 * 86400;   // still on an earlier day
    int64_t high = utcMidnight + 2 * 86400;  // already on `day` or later
    while (high - low > 1) {
        const int64_t mid = low + (high - low) / 2;
        if (date(static_cast<double>(mid)) < day)
            low = mid;
        else
            high = mid;
    }
    return static_cast<double>(high);
}

}  // namespace wharfy
