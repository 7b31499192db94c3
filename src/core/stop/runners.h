#pragma once

#include <array>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/stop/stop_plan.h"

namespace wharfy {

/// Programs that restart what they run (package-manager scripts, file
/// watchers, process managers): stopping only their child is pointless.
struct Runners {
    /// Runner programs by name.
    static constexpr std::array<std::string_view, 13> names{
        "npm",         "pnpm",        "yarn", "bun",     "turbo",    "nodemon", "npx",
        "ts-node-dev", "cargo-watch", "air",  "foreman", "overmind", "honcho"};
    /// Script files run by an interpreter that make the interpreter a runner.
    static constexpr std::array<std::string_view, 6> scripts{
        "npm-cli.js", "npx-cli.js", "pnpm.cjs", "pnpm.js", "yarn.js", "yarn.cjs"};
    /// Word pairs of a development server with a restarting supervisor.
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 9> patterns{{
        {"tsx", "watch"},
        {"next", "dev"},
        {"webpack", "serve"},
        {"react-scripts", "start"},
        {"flask", "run"},
        {"manage.py", "runserver"},
        {"uvicorn", "--reload"},
        {"nuxt", "dev"},
        {"astro", "dev"},
    }};

    /// Whether `ref` is a runner: by name or executable name, else by a runner
    /// script or a word pair on its command line.
    static bool isRunner(const nemarro::process::ProcessRef& ref);
    /// Whether a pattern's two words occur on the command line (see the .cpp for the rule).
    static bool matchesPattern(const std::vector<std::string>& commandLine);
    /// The shell command-wrapper rule (core/stop/protected.h).
    static bool isCommandWrapper(std::string_view name,
                                 const std::vector<std::string>& commandLine);
};

}  // namespace wharfy
