#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/agents_command.h"

namespace wharfy::app {
namespace {

using nemarro::process::ProcessRef;

using nlohmann::json;

std::vector<AgentSession> sessions() {
    AgentSession claude;
    claude.version = "2.0.14";
    claude.root = ProcessRef{{812, 1'700'000'000'000'000}, "claude\x1b]0;pwn\x07", {}, {}};
    claude.project = ProjectInfo{"~/src/\x1b[31mapp", true};
    claude.children.resize(2);
    claude.footprint = 5'200'000'000;
    claude.cpuPercent = 12.5;
    AgentSession daemon;
    daemon.tool = AgentTool::codex;
    daemon.managedBy = "Claude";
    daemon.isOrphanDaemon = true;
    daemon.root = ProcessRef{{900, 5}, "codex", {}, {}};
    daemon.footprint = 1000;
    return {claude, daemon};
}

TEST(AgentsCommandTest, JsonHasEveryKeyWithNullForWhatIsUnknown) {
    const json expected = json::parse(R"json({"sessions":[
        {"tool":"claudeCode","version":"2.0.14","managedBy":null,
         "project":{"path":"~/src/\u001b[31mapp","isGitProject":true},
         "root":{"pid":812,"startTime":1700000000000000,"name":"claude\u001b]0;pwn\u0007"},
         "processes":3,"cpuPercent":12.5,"memoryBytes":5200000000,"orphanDaemon":false},
        {"tool":"codex","version":null,"managedBy":"Claude","project":null,
         "root":{"pid":900,"startTime":5,"name":"codex"},
         "processes":1,"cpuPercent":null,"memoryBytes":1000,"orphanDaemon":true}]})json");
    const std::string text = agentsJson(sessions()).dump(2);
    EXPECT_EQ(text.find('\x1b'), std::string::npos);  // escaped, never raw
    EXPECT_EQ(json::parse(text), expected);
}

TEST(AgentsCommandTest, TextTableEscapesMachineTextAndShowsState) {
    const AgentStatus runaway{12.5, {}, true, RunawayReason{RunawayReason::Memory{5'200'000'000}}};
    const auto all = sessions();
    // Keyed by session id: the second session's missing status reads idle.
    const std::string text = agentsText({all, {{all[0].id(), runaway}}});
    EXPECT_EQ(text.find_first_of("\x1b\x07"), std::string::npos) << text;
    for (const char* expected : {"Claude Code  2.0.14   812  3          12.5%  5.2 GB",
                                 "runaway: memory 5.2 GB  \\e[31mapp (git)",
                                 "Codex        -        900  1          -      1.0 KB  idle",
                                 "run by the Claude app, left-behind daemon"})
        EXPECT_NE(text.find(expected), std::string::npos) << expected << "\n" << text;
    EXPECT_EQ(agentsText({}), "Agent sessions\n  No agent sessions running.\n");
}

}  // namespace
}  // namespace wharfy::app
