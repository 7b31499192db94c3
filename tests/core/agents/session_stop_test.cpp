#include <gtest/gtest.h>

#include "core/agents/session_stop.h"
#include "fake_signal_sender.h"
#include "fake_stop_environment.h"

namespace wharfy {
namespace {

using nemarro::process::ProcessIdentity;
using testing::FakeProcess;
using testing::FakeStopEnvironment;
using testing::RecordingSignalSender;

constexpr uint32_t kUid = 501;
constexpr uint64_t kStart = 1'700'000'000'000'000;

struct StopFixture {
    FakeStopEnvironment environment;
    RecordingSignalSender sender;
    int sleeps = 0;
    Stopper stopper{Stopper::Config{kUid, 10.0, 4242}, environment, sender,
                    [this](double) { ++sleeps; }};

    StopFixture() {
        FakeProcess root;
        root.pid = 700;
        root.ppid = 1;
        root.uid = kUid;
        root.startTime = kStart;
        root.name = "codex";
        root.path = "/home/ana/.codex/packages/standalone/releases/0.46.0/codex";
        root.arguments = {"codex"};
        environment.add(root);
        FakeProcess child = root;
        child.pid = 701;
        child.ppid = 700;
        child.name = "rg";
        child.path = "/usr/bin/rg";
        child.arguments = {"rg", "TODO"};
        environment.add(child);
    }
};

AgentSession codexSession() {
    AgentSession s;
    s.tool = AgentTool::codex;
    s.root = ProcessRef{{700, kStart},
                        "codex",
                        "/home/ana/.codex/packages/standalone/releases/0.46.0/codex",
                        {"codex"}};
    s.project = ProjectInfo{"~/src/app", true};
    s.startTime = kStart;
    return s;
}

TEST(SessionStopTest, SessionsRunByADesktopAppAreQuitThere) {
    StopFixture f;
    AgentSession session = codexSession();
    EXPECT_EQ(SessionStop::refusal(session), std::nullopt);
    session.managedBy = "Claude";
    EXPECT_EQ(SessionStop::refusal(session), "Managed by the Claude app. Quit the session there.");
    auto plan = SessionStop::plan(session, f.stopper);
    ASSERT_FALSE(plan.ok());
    EXPECT_EQ(plan.error().message(), "Managed by the Claude app. Quit the session there.");
    EXPECT_TRUE(f.sender.sent.empty());
}

TEST(SessionStopTest, PlanTargetsTheRootWithTheToolsLabel) {
    StopFixture f;
    auto plan = SessionStop::plan(codexSession(), f.stopper);
    ASSERT_TRUE(plan.ok()) << plan.error().message();
    EXPECT_EQ(plan.value().target.identity, (ProcessIdentity{700, kStart}));
    EXPECT_EQ(plan.value().label, "Codex session");
    EXPECT_EQ(plan.value().project, (ProjectInfo{"~/src/app", true}));
    EXPECT_EQ(plan.value().port, std::nullopt);
}

TEST(SessionStopTest, StopperRefusalsPassThrough) {
    StopFixture f;
    f.environment.processes[700].startTime = kStart + 1;  // pid reused since the list was drawn
    auto plan = SessionStop::plan(codexSession(), f.stopper);
    ASSERT_FALSE(plan.ok());
    EXPECT_EQ(plan.error().message(),
              "This is no longer the process that was shown. Refresh the list.");
}

TEST(SessionStopTest, StopSendsOneTermToTheRootAndReportsSurvivors) {
    StopFixture f;
    auto plan = SessionStop::plan(codexSession(), f.stopper);
    ASSERT_TRUE(plan.ok());
    f.sender.onSend = [&](const ProcessIdentity& target) {
        f.environment.processes.erase(target.pid);  // the root exits, its child stays
    };
    auto report = SessionStop::stop(plan.value(), f.stopper);
    ASSERT_TRUE(report.ok()) << report.error().message();
    EXPECT_EQ(f.sender.sent, (std::vector<ProcessIdentity>{{700, kStart}}));
    EXPECT_EQ(report.value().message(), "Stopped.");
    ASSERT_EQ(report.value().survivors.size(), 1u);
    EXPECT_EQ(report.value().survivors[0].identity.pid, 701);
}

}  // namespace
}  // namespace wharfy
