#include <gtest/gtest.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "app/agents_command.h"
#include "app/machine_report.h"
#include "app/model/live_machine_reader.h"
#include "test_process.h"

namespace wharfy {
namespace {

using testing::TestProcess;

TEST(LiveSessionsTest, FakeAgentWithBusyAndIdleChildrenIsOneBusySession) {
    testing::TempDir home;
    ASSERT_FALSE(home.path().empty());
    const auto repo = std::filesystem::path(home.path()) / "src/app";
    std::filesystem::create_directories(repo / ".git");
    std::filesystem::create_directories(repo / "server");
    const std::string agentPath = home.path() + "/.local/share/claude/versions/2.0.14";
    ASSERT_TRUE(testing::copyExecutable(TestProcess::helperPath(), agentPath));

    // One forked idle worker and one forked busy child, both running the agent's executable.
    auto agent = TestProcess::start({"--workers", "1", "--busy-child"}, agentPath,
                                    (repo / "server").string());
    ASSERT_TRUE(agent.has_value());
    ASSERT_EQ(agent->children().size(), 2u);
    std::vector<pid_t> children = agent->children();
    std::sort(children.begin(), children.end());

    app::LiveMachineReader reader(static_cast<uint32_t>(::getuid()), home.path(), std::nullopt);
    const auto report = app::readMachine(reader, false, &app::sleepSeconds).agents;

    // Agents really running on this machine may show up too; only ours is checked.
    auto mine = [&](const AgentSession& s) {
        return s.root.identity.pid == agent->pid() ||
               std::binary_search(children.begin(), children.end(), s.root.identity.pid);
    };
    ASSERT_EQ(std::count_if(report.sessions.begin(), report.sessions.end(), mine), 1)
        << "the agent and its forks must form exactly one session";
    const size_t index =
        static_cast<size_t>(std::find_if(report.sessions.begin(), report.sessions.end(), mine) -
                            report.sessions.begin());
    const AgentSession& session = report.sessions[index];
    EXPECT_EQ(session.root.identity.pid, agent->pid());
    EXPECT_EQ(session.tool, AgentTool::claudeCode);
    EXPECT_EQ(session.version, "2.0.14");
    EXPECT_EQ(session.project, (ProjectInfo{"~/src/app", true}));
    std::vector<pid_t> found;
    for (const auto& c : session.children)
        found.push_back(c.identity.pid);
    EXPECT_EQ(found, children);
    ASSERT_TRUE(session.cpuPercent.has_value());
    EXPECT_GT(*session.cpuPercent, AgentMonitor::Thresholds{}.busyPercent);
    EXPECT_TRUE(report.status(session).isBusy);
    EXPECT_EQ(app::agentsJson({session})["sessions"][0]["processes"], 3);
}

}  // namespace
}  // namespace wharfy
