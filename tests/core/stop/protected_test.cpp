#include <gtest/gtest.h>

#include "core/stop/protected.h"
#include "core/stop/runners.h"

namespace wharfy {
namespace {

using nemarro::process::ProcessRef;

TEST(ProtectedTest, MatchesNormalisedNamesAndExecutableNames) {
    struct Case {
        std::string name;
        std::optional<std::string> path;
        bool expected;
    };
    const Case cases[] = {
        {"zsh", std::nullopt, true},
        {"-zsh", std::nullopt, true},          // login shell
        {"--zsh", std::nullopt, false},        // only one dash is removed
        {"tmux: server", std::nullopt, true},  // cut at ":"
        {"gnome-terminal-server", std::nullopt, true},
        {"wharfy", std::nullopt, true},
        {"node", "/usr/bin/zsh", true},  // renamed, but the executable is a shell
        {"node", "/usr/bin/node", false},
        {"zshrc-helper", std::nullopt, false},
        {"node", "/opt/tmux/", false},  // no last component
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Protected::matches(c.name, c.path), c.expected) << c.name;
    }
}

TEST(ProtectedTest, CommandWrapperRule) {
    struct Case {
        std::string name;
        std::vector<std::string> commandLine;
        bool expected;
    };
    const Case cases[] = {
        {"sh", {"sh", "-c", "node server.js"}, true},
        {"bash", {"bash", "-lc", "make run"}, true},
        {"sh", {"/bin/sh", "build.sh"}, true},        // a script
        {"zsh", {"-zsh"}, false},                     // login shell at a prompt
        {"bash", {"bash", "-l", "-i"}, false},        // options only
        {"bash", {"bash", "--rcfile", "-x"}, false},  // long option holding c, not a cluster
        {"bash", {"bash", "-c1"}, false},             // a cluster is letters only
        {"node", {"node", "server.js"}, false},       // not a shell
    };
    for (const auto& c : cases) {
        EXPECT_EQ(isCommandWrapper(c.name, c.commandLine), c.expected)
            << c.name << " " << (c.commandLine.size() > 1 ? c.commandLine[1] : "");
    }
}

TEST(RunnersTest, RecognisesRunnersByNamePathScriptAndWordPair) {
    struct Case {
        std::string name;
        std::optional<std::string> path;
        std::vector<std::string> commandLine;
        bool expected;
    };
    const Case cases[] = {
        {"npm", std::nullopt, {}, true},
        {"node", "/home/u/.cargo/bin/cargo-watch", {}, true},
        {"node",
         "/usr/bin/node",
         {"node", "/usr/lib/node_modules/npm/bin/npm-cli.js", "run"},
         true},
        {"node", "/usr/bin/node", {"node", "node_modules/.bin/next", "dev"}, true},
        {"python3", std::nullopt, {"python3", "-m", "flask", "--app", "site", "run"}, true},
        {"python3", std::nullopt, {"uvicorn", "app:main", "--reload"}, true},
        {"python3", std::nullopt, {"python3", "manage.py", "runserver"}, true},
        {"node", std::nullopt, {"node", "dev", "next"}, false},  // words out of order
        {"node", std::nullopt, {"node", "next-server.js", "dev"}, false},
        {"node", std::nullopt, {"node", "server.js"}, false},
    };
    for (const auto& c : cases) {
        ProcessRef ref{{42, 1}, c.name, c.path, c.commandLine};
        EXPECT_EQ(Runners::isRunner(ref), c.expected)
            << c.name << " " << (c.commandLine.size() > 1 ? c.commandLine[1] : "");
    }
}

}  // namespace
}  // namespace wharfy
