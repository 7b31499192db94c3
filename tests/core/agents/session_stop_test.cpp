#include <gtest/gtest.h>

#include "core/agents/session_stop.h"
#include "fake_signal_sender.h"
#include "fake_stop_environment.h"

namespace wharfy {
namespace {

using nemarro::process::ProcessRef;

using nemarro::process::ProcessIdentity;

TEST(SessionStopTest, ManagedSessionsAreRefusedOthersGoThroughTheStopper) {
    testing::FakeStopEnvironment environment;
    testing::RecordingSignalSender sender;
    Stopper stopper({501, 10.0, 4242}, environment, sender, [](double) {});
    auto& root = environment.add(700, 1, "codex", {"codex"});
    environment.add(701, 700, "rg", {"rg", "TODO"});

    AgentSession session;
    session.tool = AgentTool::codex;
    session.root = ProcessRef{{700, root.startTime}, "codex", std::nullopt, {"codex"}};
    session.project = ProjectInfo{"~/src/app", true};

    session.managedBy = "Claude";
    const std::string managed = "Managed by the Claude app. Quit the session there.";
    EXPECT_EQ(SessionStop::refusal(session), managed);
    auto refused = SessionStop::plan(session, stopper);
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.error().message(), managed);

    session.managedBy.reset();
    EXPECT_EQ(SessionStop::refusal(session), std::nullopt);
    root.startTime += 1;  // the pid now names another process: the stopper's refusal comes back
    EXPECT_EQ(SessionStop::plan(session, stopper).error().message(),
              "This is no longer the process that was shown. Refresh the list.");
    root.startTime -= 1;

    auto plan = SessionStop::plan(session, stopper);
    ASSERT_TRUE(plan.ok()) << plan.error().message();
    EXPECT_EQ(plan.value().target.identity.pid, 700);
    EXPECT_EQ(plan.value().label, "Codex session");
    EXPECT_EQ(plan.value().project, session.project);
    EXPECT_TRUE(sender.sent.empty());

    sender.onSend = [&](const ProcessIdentity& target) { environment.processes.erase(target.pid); };
    auto report = SessionStop::stop(plan.value(), stopper);
    ASSERT_TRUE(report.ok());
    EXPECT_EQ(sender.sent, (std::vector<ProcessIdentity>{session.root.identity}));
    EXPECT_EQ(report.value().message(), "Stopped.");
    ASSERT_EQ(report.value().survivors.size(), 1u);  // the session's child outlived its root
    EXPECT_EQ(report.value().survivors[0].identity.pid, 701);
}

}  // namespace
}  // namespace wharfy
