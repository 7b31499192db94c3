#pragma once

#include <optional>
#include <string>
#include <vector>

#include "test_process.h"

namespace wharfy::testing {

/// Path of the hostile engine program (tests/support/hostile_engine_main.cpp).
std::string hostileEnginePath();

/// A hostile engine serving `socket`, started with `args` (such as
/// {"--mode", "drip"}); absent when it did not come up.
std::optional<TestProcess> startHostileEngine(const std::string& socket,
                                              const std::vector<std::string>& args);

}  // namespace wharfy::testing
