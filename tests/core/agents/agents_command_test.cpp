#include <gtest/gtest.h>

#include "app/agents_command.h"
#include "fake_process_source.h"

namespace wharfy::app {
namespace {

using nemarro::process::ProcessIdentity;
using nemarro::process::ProcessSampler;
using nemarro::process::ProcessUsage;
using nemarro::process::TickClock;
using nlohmann::json;

AgentSession claudeSession() {
    AgentSession s;
    s.tool = AgentTool::claudeCode;
    s.version = "2.0.14";
    s.root = ProcessRef{{812, 1'700'000'000'000'000}, "claude\x1b]0;pwn\x07", std::nullopt, {}};
    s.project = ProjectInfo{"~/src/\x1b[31mapp", true};
    s.children = {ProcessUsage{}, ProcessUsage{}};
    s.startTime = 1'700'000'000'000'000;
    s.footprint = 5'200'000'000;
    s.cpuPercent = 12.5;
    return s;
}

AgentSession orphanDaemon() {
    AgentSession s;
    s.tool = AgentTool::codex;
    s.managedBy = "Claude";
    s.isOrphanDaemon = true;
    s.root = ProcessRef{{900, 5}, "codex", std::nullopt, {}};
    s.startTime = 5;
    s.footprint = 1000;
    return s;
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
    const json got = agentsJson({claudeSession(), orphanDaemon()});
    EXPECT_EQ(got, expected);
    // Control characters reach the output only as JSON escapes.
    const std::string text = got.dump(2);
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
    EXPECT_EQ(json::parse(text), expected);
    EXPECT_EQ(agentsJson({}), json::parse(R"({"sessions":[]})"));
}

TEST(AgentsCommandTest, TextTableEscapesMachineTextAndShowsState) {
    AgentsReport report{
        {claudeSession(), orphanDaemon()},
        {AgentStatus{12.5, std::nullopt, true, RunawayReason{RunawayReason::Memory{5'200'000'000}}},
         AgentStatus{}}};
    const std::string text = agentsText(report);
    EXPECT_EQ(text.find('\x1b'), std::string::npos) << text;
    EXPECT_EQ(text.find('\x07'), std::string::npos) << text;
    for (const char* expected :
         {"Claude Code", "2.0.14", "812", "12.5%", "5.2 GB", "runaway: memory 5.2 GB",
          "~/src/\\e[31mapp", "Codex", "idle", "run by the Claude app, left-behind daemon"})
        EXPECT_NE(text.find(expected), std::string::npos) << expected << "\n" << text;
    EXPECT_EQ(agentsText({}), "Agent sessions\n  No agent sessions running.\n");
}

TEST(AgentsCommandTest, ReadingTwiceGivesCpuFiguresAndStatuses) {
    // Pids far above any real pid, so that the live argument and directory
    // reads find nothing.
    constexpr int32_t kRoot = 2'000'000'001, kChild = 2'000'000'002;
    const std::string home = "/home/ana";
    auto source = std::make_unique<testing::FakeProcessSource>();
    auto* table = source.get();
    auto add = [&](int32_t pid, int32_t ppid, std::string path) {
        testing::FakeProcessSource::Entry e;
        e.identity = ProcessIdentity{pid, 77};
        e.usage.ppid = ppid;
        e.usage.uid = 501;
        e.usage.name = path.substr(path.rfind('/') + 1);
        e.usage.path = path;
        e.usage.usage.footprint = 1000;
        table->table[pid] = e;
    };
    add(kRoot, 1, home + "/.local/share/claude/versions/2.0.14");
    add(kChild, kRoot, "/usr/bin/node");

    uint64_t clockNs = 0;
    LiveAgentSource live(
        ProcessSampler(std::move(source), TickClock{1, 1}, [&] { return clockNs; }));
    SessionBuilder builder(AgentCatalog(home),
                           ProjectResolver(home, true, [](const std::string&) { return false; }),
                           501);
    std::vector<double> sleeps;
    auto report = readAgents(live, builder, [&](double seconds) {
        sleeps.push_back(seconds);
        clockNs += 1'000'000'000;
        table->table[kChild].usage.usage.cpuTicks += 500'000'000;  // half a core
    });
    EXPECT_EQ(sleeps, std::vector<double>{1.0});
    EXPECT_EQ(table->listings, 2);
    ASSERT_EQ(report.sessions.size(), 1u);
    ASSERT_EQ(report.statuses.size(), 1u);
    EXPECT_DOUBLE_EQ(report.sessions[0].cpuPercent.value_or(-1), 50.0);
    EXPECT_EQ(report.sessions[0].footprint, 2000u);
    EXPECT_TRUE(report.statuses[0].isBusy);
    EXPECT_DOUBLE_EQ(report.statuses[0].cpuNow.value_or(-1), 50.0);
}

}  // namespace
}  // namespace wharfy::app
