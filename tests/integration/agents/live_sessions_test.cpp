#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "app/agents_command.h"
#include "core/agents/agent_monitor.h"
#include "core/agents/agent_session.h"
#include "test_process.h"

namespace wharfy {
namespace {

using testing::TempDir;
using testing::TestProcess;

const AgentSession* sessionRootedAt(const std::vector<AgentSession>& sessions, pid_t pid) {
    auto found = std::find_if(sessions.begin(), sessions.end(),
                              [&](const AgentSession& s) { return s.root.identity.pid == pid; });
    return found == sessions.end() ? nullptr : &*found;
}

bool rootsAny(const std::vector<AgentSession>& sessions, const std::vector<pid_t>& pids) {
    return std::any_of(pids.begin(), pids.end(),
                       [&](pid_t pid) { return sessionRootedAt(sessions, pid) != nullptr; });
}

TEST(LiveSessionsTest, FakeAgentWithBusyAndIdleChildrenIsOneSession) {
    TempDir home;
    ASSERT_FALSE(home.path().empty());
    namespace fs = std::filesystem;
    const fs::path repo = fs::path(home.path()) / "src/app";
    const fs::path workdir = repo / "server";
    fs::create_directories(repo / ".git");
    fs::create_directories(workdir);
    const std::string agentPath = home.path() + "/.local/share/claude/versions/2.0.14";
    ASSERT_TRUE(testing::copyExecutable(TestProcess::helperPath(), agentPath));

    auto agent =
        TestProcess::start({"--workers", "1", "--busy-child"}, agentPath, workdir.string());
    ASSERT_TRUE(agent.has_value());
    ASSERT_EQ(agent->children().size(), 2u);
    const pid_t idle = agent->children()[0], busy = agent->children()[1];

    SessionBuilder builder(AgentCatalog(home.path()),
                           ProjectResolver(home.path(), true, &ProjectResolver::pathExists),
                           static_cast<uint32_t>(::getuid()));
    LiveAgentSource source;
    AgentMonitor monitor;
    auto first = source.sessions(builder);
    monitor.ingest(first, 0.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    auto second = source.sessions(builder);
    monitor.ingest(second, 1.0);

    const AgentSession* before = sessionRootedAt(first, agent->pid());
    ASSERT_NE(before, nullptr);
    EXPECT_EQ(before->cpuPercent, std::nullopt);  // the first sample has no rates

    const AgentSession* session = sessionRootedAt(second, agent->pid());
    ASSERT_NE(session, nullptr);
    EXPECT_FALSE(rootsAny(second, {idle, busy})) << "a forked child headed its own session";
    EXPECT_EQ(session->tool, AgentTool::claudeCode);
    EXPECT_EQ(session->version, "2.0.14");
    EXPECT_EQ(session->root.path, agentPath);
    EXPECT_EQ(session->project, (ProjectInfo{"~/src/app", true}));
    std::vector<pid_t> expectedChildren{idle, busy};
    std::sort(expectedChildren.begin(), expectedChildren.end());
    std::vector<pid_t> children;
    for (const auto& c : session->children)
        children.push_back(c.identity.pid);
    EXPECT_EQ(children, expectedChildren);
    EXPECT_GT(session->footprint, 0u);

    const double busyPercent = AgentMonitor::Thresholds{}.busyPercent;
    ASSERT_TRUE(session->cpuPercent.has_value());
    EXPECT_GT(*session->cpuPercent, busyPercent);
    EXPECT_TRUE(monitor.status(session->id(), 1.0).isBusy);

    const auto json = app::agentsJson({*session});
    EXPECT_EQ(json["sessions"][0]["processes"], 3);
    EXPECT_EQ(json["sessions"][0]["project"]["path"], "~/src/app");
}

}  // namespace
}  // namespace wharfy
