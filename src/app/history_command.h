#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>

#include "app/ports_command.h"
#include "core/history/history_summary.h"

namespace wharfy::app {

/// The summary as `wharfy --history-json` prints it: {"days": [...],
/// "entries": N}, each day with its "date", "entries", "ports" and
/// "sessions"; times are internet dates in UTC, unknown values null.
nlohmann::json historyJson(const HistorySummary& summary);

/// The user's last seven days of history, read now, with the history folder
/// under "folder".
nlohmann::json historyJson(const UserContext& user);

}  // namespace wharfy::app
