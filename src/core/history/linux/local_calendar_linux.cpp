#include <cmath>
#include <ctime>

#include "core/history/history_calendar.h"

namespace wharfy {

LocalCalendar::LocalCalendar() {
    ::tzset();
}

CivilDate LocalCalendar::date(double time) const {
    const auto seconds = static_cast<time_t>(std::floor(time));
    tm local{};
    if (::localtime_r(&seconds, &local) == nullptr)
        return CivilDate::fromDaysSinceEpoch(static_cast<int64_t>(std::floor(time / 86400)));
    return CivilDate{local.tm_year + 1900, local.tm_mon + 1, local.tm_mday};
}

}  // namespace wharfy
