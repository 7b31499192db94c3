#pragma once

#include <map>
#include <string>
#include <vector>

#include "system/command_runner.h"

namespace wharfy::testing {

/// ActionProcessRunner that records each run and answers with `result`.
class FakeActionProcessRunner final : public ActionProcessRunner {
  public:
    struct Run {
        std::string executable;
        std::vector<std::string> arguments;
        std::map<std::string, std::string> environment;
    };
    ProcessResult result;
    std::vector<Run> runs;

    ProcessResult run(const std::string& executable, const std::vector<std::string>& arguments,
                      const std::map<std::string, std::string>& environment) override {
        runs.push_back({executable, arguments, environment});
        return result;
    }
};

}  // namespace wharfy::testing
