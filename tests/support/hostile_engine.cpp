#include "hostile_engine.h"

namespace wharfy::testing {

std::string hostileEnginePath() {
    return WHARFY_HOSTILE_ENGINE;
}

std::optional<TestProcess> startHostileEngine(const std::string& socket,
                                              const std::vector<std::string>& args) {
    std::vector<std::string> all{"--socket", socket};
    all.insert(all.end(), args.begin(), args.end());
    return TestProcess::start(all, hostileEnginePath());
}

}  // namespace wharfy::testing
