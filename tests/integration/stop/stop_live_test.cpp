#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "core/ports/live_environment.h"
#include "core/stop/stopper.h"
#include "fake_signal_sender.h"
#include "test_process.h"

namespace wharfy {
namespace {

using nemarro::process::ProcessIdentity;
using testing::TestProcess;

// Kills what a helper handle does not know about at the end of a test: the
// process group of a --spawn runner, or a worker that outlives its master.
struct Killer {
    pid_t pid;
    bool group;
    ~Killer() { group ? ::killpg(pid, SIGKILL) : ::kill(pid, SIGKILL); }
};

class LiveStopTest : public ::testing::Test {
  protected:
    // Orphans of the helpers become our children, so they are reaped here
    // rather than left as zombies under an init that may not reap.
    void SetUp() override {
        sender.forward = &live;
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    }
    void TearDown() override {
        for (int tries = 0; tries < 1000;) {
            pid_t r = ::waitpid(-1, nullptr, WNOHANG);
            if (r < 0) break;
            if (r == 0) {
                ++tries;
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        }
    }
    ProcessIdentity identity(pid_t pid) {
        auto id = ProcessIdentity::current(pid);
        EXPECT_TRUE(id) << "no process " << pid;
        return id.value_or(ProcessIdentity{});
    }
    /// The one process listening on `port`.
    pid_t holder(int port) {
        auto holders = env.holders(static_cast<uint16_t>(port));
        EXPECT_EQ(holders.pids.size(), 1u) << "port " << port;
        return holders.pids.empty() ? -1 : *holders.pids.begin();
    }
    Result<StopPlan, StopRefusal> plan(pid_t pid, int port) {
        return stopper.plan(identity(pid), static_cast<uint16_t>(port), std::nullopt, std::nullopt);
    }
    /// A copy of the helper named npm.
    std::string npm() {
        std::string path = dir.path() + "/npm";
        EXPECT_TRUE(testing::copyExecutable(TestProcess::helperPath(), path));
        return path;
    }
    /// The injected sleep returns once `id` has exited, so waits end without real delays.
    void sleepUntilGone(ProcessIdentity id) {
        onSleep = [this, id] {
            for (int i = 0; i < 1000; ++i) {
                auto info = env.process(id.pid);
                if (!info || info->isZombie() || info->startTime != id.startTime) return;
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        };
    }

    // The real port rules decide what each process is.
    LiveStopEnvironment env{makeLiveRoleRules(::geteuid(), "/nonexistent-home",
                                              std::make_shared<SystemCommandRunner>(10))};
    LiveSignalSender live;
    testing::RecordingSignalSender sender;
    int sleeps = 0;
    std::function<void()> onSleep;
    Stopper stopper{{::geteuid(), 10.0, ::getpid()}, env, sender, [this](double) {
                        ++sleeps;
                        if (onSleep) onSleep();
                    }};
    testing::TempDir dir;
    const std::string helper = TestProcess::helperPath();
};

TEST_F(LiveStopTest, PromotesToTheRunnerAboveTheListener) {
    const std::string reason =
        "npm runs this and would start it again, so the stop request goes to npm.";
    struct Case {
        const char* what;
        std::vector<std::string> spawn;
        std::string stdinText;
        bool promoted;
        const char* listenerParent;
    };
    const Case cases[] = {
        {"child of npm", {helper, "--listen", "127.0.0.1:0"}, "", true, "npm"},
        {"through sh -c",
         {"/bin/sh", "-c", "'" + helper + "' --listen 127.0.0.1:0; exit 0"},
         "",
         true,
         "sh"},
        {"from an interactive shell",
         {"/bin/sh"},
         "'" + helper + "' --listen 127.0.0.1:0\n",
         false,
         "sh"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args;
        if (!c.stdinText.empty()) args = {"--stdin", c.stdinText};
        args.push_back("--spawn");
        args.insert(args.end(), c.spawn.begin(), c.spawn.end());
        auto runner = TestProcess::start(args, npm());
        ASSERT_TRUE(runner) << c.what;
        Killer killer{runner->pid(), true};
        pid_t listener = holder(runner->ports().at(0));
        ASSERT_EQ(env.process(env.process(listener)->ppid)->name, c.listenerParent) << c.what;

        StopPlan p = plan(listener, runner->ports()[0]).value();
        EXPECT_EQ(p.shown.identity.pid, listener) << c.what;
        EXPECT_EQ(p.target.identity.pid, c.promoted ? runner->pid() : listener) << c.what;
        EXPECT_EQ(p.promotionReason.value_or(""), c.promoted ? reason : "") << c.what;
        if (!c.promoted) {
            ASSERT_EQ(p.chain.size(), 1u) << "the shell ends the chain";
            EXPECT_EQ(p.chain[0].name, "sh");
        }
    }
}

TEST_F(LiveStopTest, PromotesAWorkerToTheMasterSharingItsSocket) {
    auto master = TestProcess::start({"--listen", "127.0.0.1:0", "--workers", "2"});
    ASSERT_TRUE(master);
    StopPlan p = plan(master->children().at(1), master->ports().at(0)).value();
    EXPECT_EQ(p.target.identity, identity(master->pid()));
    const std::string name = p.target.name;
    EXPECT_EQ(p.promotionReason,
              name + " and its workers share this port, so the stop request goes to " + name + ".");
}

TEST_F(LiveStopTest, RefusesProtectedProgramsAndPidOne) {
    for (std::string name : {"zsh", "-zsh", "tmux", "wharfy"}) {
        auto p = TestProcess::start({"--name", name, "--listen", "127.0.0.1:0"});
        ASSERT_TRUE(p) << name;
        auto result = plan(p->pid(), p->ports().at(0));
        ASSERT_FALSE(result.ok()) << name;
        EXPECT_EQ(result.error().message(), "Wharfy never stops " + name + ".");
    }
    auto init = env.process(1);
    ASSERT_TRUE(init);
    Stopper asInitsOwner{{init->uid, 10.0, ::getpid()}, env, sender, [](double) {}};
    auto result = asInitsOwner.plan(identity(1), std::nullopt, std::nullopt, std::nullopt);
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error(), StopRefusal{StopRefusal::ProtectedProgram{init->name}});
    EXPECT_TRUE(sender.sent.empty());
}

TEST_F(LiveStopTest, RefusesAnotherUsersProcess) {
    if (::geteuid() != 0) GTEST_SKIP() << "starting a process as uid 65534 needs root";
    auto p = TestProcess::start({"--uid", "65534", "--listen", "127.0.0.1:0"});
    ASSERT_TRUE(p);
    auto result = plan(p->pid(), p->ports().at(0));
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error().message(),
              "This process belongs to another user or to the system, so Wharfy does not stop it.");
}

TEST_F(LiveStopTest, NeverSignalsAProcessThatIsNoLongerThePlannedOne) {
    auto p = TestProcess::start({"--listen", "127.0.0.1:0"});
    ASSERT_TRUE(p);
    StopPlan altered = plan(p->pid(), p->ports().at(0)).value();
    altered.target.identity.startTime += 1;
    altered.shown = altered.target;
    EXPECT_EQ(stopper.stop(altered, false).error(), StopRefusal{StopRefusal::IdentityChanged{}});

    // The live sender checks again behind its pidfd, for a caller without a plan.
    EXPECT_EQ(live.terminate(altered.target.identity), ESRCH);
    EXPECT_FALSE(p->wait(0.3)) << "the process was signalled";

    StopPlan old = plan(p->pid(), p->ports()[0]).value();
    ::kill(p->pid(), SIGKILL);
    ASSERT_TRUE(p->wait(5));
    auto successor = TestProcess::start({"--listen", "127.0.0.1:0"});
    ASSERT_TRUE(successor);
    auto refused = stopper.stop(old, false);
    ASSERT_FALSE(refused.ok());
    EXPECT_TRUE(refused.error().is<StopRefusal::Gone>() ||
                refused.error().is<StopRefusal::IdentityChanged>());
    EXPECT_TRUE(sender.sent.empty());
    EXPECT_FALSE(successor->wait(0.1));
}

TEST_F(LiveStopTest, ExitOnSigtermFreesThePort) {
    auto p = TestProcess::start({"--listen", "127.0.0.1:0"});
    ASSERT_TRUE(p);
    int port = p->ports().at(0);
    StopPlan planned = plan(p->pid(), port).value();
    onSleep = [&] { p->wait(5); };
    StopReport report = stopper.stop(planned, false).value();
    EXPECT_EQ(report.message(), "Stopped. Port " + std::to_string(port) + " is free.");
    EXPECT_LE(sleeps, 1);
    EXPECT_EQ(sender.sent.size(), 1u);
}

TEST_F(LiveStopTest, IgnoredSigtermIsReportedAfterTheFullWaitWithOneSignal) {
    auto p = TestProcess::start({"--ignore-term", "--listen", "127.0.0.1:0"});
    ASSERT_TRUE(p);
    StopReport report = stopper.stop(plan(p->pid(), p->ports().at(0)).value(), false).value();
    EXPECT_EQ(report.message(),
              "Still running after 10 s \u2014 it may be saving its work; check its terminal.");
    EXPECT_EQ(sleeps, 40);
    EXPECT_EQ(sender.sent, std::vector<ProcessIdentity>{identity(p->pid())});
    EXPECT_FALSE(p->wait(0.1));
}

TEST_F(LiveStopTest, SupervisorRestartingTheChildReopensThePort) {
    auto supervisor = TestProcess::start({"--respawn", "--listen", "127.0.0.1:0"});
    ASSERT_TRUE(supervisor);
    int port = supervisor->ports().at(0);
    pid_t child = supervisor->children().at(0);
    StopPlan planned = plan(child, port).value();
    ASSERT_EQ(planned.target.identity.pid, child);
    sleepUntilGone(planned.target.identity);
    StopReport report = stopper.stop(planned, false).value();
    auto reopened = report.outcome.as<ProcessStopOutcome::StoppedPortReopened>();
    ASSERT_TRUE(reopened && reopened->by) << report.message();
    EXPECT_NE(reopened->by->identity.pid, child);
    EXPECT_EQ(reopened->by->identity.pid, holder(port));
    EXPECT_EQ(report.message(), "Stopped, but port " + std::to_string(port) +
                                    " is open again \u2014 " + reopened->by->name +
                                    " started it again.");
}

TEST_F(LiveStopTest, AnotherListenerOnThePortKeepsItInUse) {
    auto first = TestProcess::start({"--listen", "127.0.0.1:0"});
    ASSERT_TRUE(first);
    int port = first->ports().at(0);
    auto second = TestProcess::start({"--listen", "127.0.0.2:" + std::to_string(port)});
    if (!second) GTEST_SKIP() << "cannot listen on 127.0.0.2 here";
    StopPlan planned = plan(first->pid(), port).value();
    onSleep = [&] { first->wait(5); };
    StopReport report = stopper.stop(planned, false).value();
    auto used = report.outcome.as<ProcessStopOutcome::StoppedPortStillUsed>();
    ASSERT_TRUE(used && used->by) << report.message();
    EXPECT_EQ(used->by->identity, identity(second->pid()));
    EXPECT_EQ(report.message(), "Stopped. Port " + std::to_string(port) + " is still used by " +
                                    used->by->name + ".");
}

TEST_F(LiveStopTest, WorkersOutlivingTheMasterAreSurvivors) {
    auto master =
        TestProcess::start({"--listen", "127.0.0.1:0", "--workers", "1", "--keep-workers"});
    ASSERT_TRUE(master);
    pid_t worker = master->children().at(0);
    Killer killer{worker, false};
    ProcessIdentity workerID = identity(worker);
    onSleep = [&] { master->wait(5); };
    StopReport report =
        stopper.stop(plan(master->pid(), master->ports().at(0)).value(), true).value();
    ASSERT_EQ(report.survivors.size(), 1u);
    EXPECT_EQ(report.survivors[0].identity, workerID);
    auto used = report.outcome.as<ProcessStopOutcome::StoppedPortStillUsed>();
    ASSERT_TRUE(used && used->by) << report.message();
    EXPECT_EQ(used->by->identity, workerID);
}

TEST_F(LiveStopTest, AFailedSendIsReportedWithTheSystemsText) {
    auto p = TestProcess::start({"--listen", "127.0.0.1:0"});
    ASSERT_TRUE(p);
    sender.forward = nullptr;
    sender.result = EPERM;
    StopReport report = stopper.stop(plan(p->pid(), p->ports().at(0)).value(), false).value();
    EXPECT_EQ(report.message(),
              "The stop request could not be delivered (Operation not permitted).");
    EXPECT_EQ(sleeps, 0);
}

}  // namespace
}  // namespace wharfy
