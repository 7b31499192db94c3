#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace wharfy::testing {

/// A file system that holds exactly `present`, recording every path probed.
struct FakeFiles {
    std::set<std::string> present;
    std::vector<std::string> probes;
    std::function<bool(const std::string&)> exists() {
        return [this](const std::string& p) {
            probes.push_back(p);
            return present.count(p) > 0;
        };
    }
};

}  // namespace wharfy::testing
