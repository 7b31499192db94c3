#include <locale.h>

#include <cmath>
#include <ctime>

#include "common/text.h"
#include "core/history/export_snapshot.h"

namespace wharfy {

std::string localeDateText(double time) {
    // A locale object of its own, so that the process-wide locale is left alone.
    locale_t locale = ::newlocale(LC_TIME_MASK, "", static_cast<locale_t>(nullptr));
    if (locale == static_cast<locale_t>(nullptr))
        locale = ::newlocale(LC_TIME_MASK, "C", static_cast<locale_t>(nullptr));
    const auto seconds = static_cast<time_t>(std::floor(time));
    tm local{};
    char buf[256] = "";
    if (::localtime_r(&seconds, &local) != nullptr && locale != static_cast<locale_t>(nullptr))
        ::strftime_l(buf, sizeof buf, "%x %X", &local, locale);
    if (locale != static_cast<locale_t>(nullptr)) ::freelocale(locale);
    // Locales in other encodings than UTF-8 still give a valid report.
    return repairUtf8(buf);
}

}  // namespace wharfy
