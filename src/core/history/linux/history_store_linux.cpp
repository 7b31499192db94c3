#include <cstdlib>

#include "core/history/history_store.h"

namespace wharfy {

HistoryStore liveHistoryStore(const std::string& home) {
    std::optional<std::string> xdgStateHome;
    if (const char* value = std::getenv("XDG_STATE_HOME")) xdgStateHome = value;
    return HistoryStore(historyDirectory(xdgStateHome, home), std::make_shared<LocalCalendar>());
}

}  // namespace wharfy
