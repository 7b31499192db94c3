#pragma once

#include <nlohmann/json_fwd.hpp>

#include <vector>

#include "suite/suite_folder.h"

namespace wharfy::app {

/// One reading of the suite folders at `now`, for `wharfy --suite-json`:
/// "isActive", "rows" (each with "app", "state", "hosting", "level" and
/// "metrics"), "worstLevel" and "menuBarValues" (the shared settings' choice).
/// It only reads: nothing is written and no record of Wharfy's is assumed.
nlohmann::json suiteJson(const std::vector<nemarro::suite::SuiteFolder>& folders, double now);

}  // namespace wharfy::app
