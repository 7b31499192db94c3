// The rules that real processes cannot easily play (roles, hidden
// listeners, exact wait counts, a tree that changes after planning), on a
// recorded process table. The common paths run against real processes in
// tests/integration/stop.
#include <gtest/gtest.h>

#include <functional>

#include "core/stop/stopper.h"
#include "fake_signal_sender.h"
#include "fake_stop_environment.h"

namespace wharfy {
namespace {

using nemarro::process::ProcessRef;

using Identity = nemarro::process::ProcessIdentity;
const std::string kStillRunning =
    "Still running after 10 s \u2014 it may be saving its work; check its terminal.";

// A terminal's zsh ran "npm run dev", which runs node through "sh -c".
class StopperTest : public ::testing::Test {
  protected:
    void SetUp() override {
        env.processes.clear();
        env.hiddenPorts.clear();
        sender = {};
        sleeps = 0;
        env.add(700, 1, "zsh", {"-zsh"});
        env.add(800, 700, "npm", {"npm", "run", "dev"});
        env.add(801, 800, "sh", {"sh", "-c", "node s.js"});
        env.add(802, 801, "node", {"node", "s.js"}, {3000}).path = "/usr/bin/node";
    }
    Identity id(int32_t pid) { return {pid, env.processes.at(pid).startTime}; }
    Result<StopPlan, StopRefusal> plan(Identity who) {
        return stopper.plan(who, 3000, std::nullopt, std::nullopt);
    }
    void exitOnSignal(std::function<void()> then = [] {}) {
        sender.onSend = [this, then](const Identity& target) {
            env.processes.erase(target.pid);
            then();
        };
    }

    testing::FakeStopEnvironment env;
    testing::RecordingSignalSender sender;
    int sleeps = 0;
    Stopper stopper{
        {.uid = 501, .waitSeconds = 10, .selfPID = 999}, env, sender, [this](double seconds) {
            EXPECT_EQ(seconds, 0.25);
            ++sleeps;
        }};
};

TEST_F(StopperTest, RefusalsCarryTheirMessages) {
    struct Case {
        std::function<void(testing::FakeProcess&)> change;
        std::string message;
    };
    using P = testing::FakeProcess;
    const Case cases[] = {
        {[](P& p) { p.zombie = true; }, "This process has already exited."},
        {[](P& p) { p.startTime += 1; },
         "This is no longer the process that was shown. Refresh the list."},
        {[](P& p) { p.pid = 1; }, "Wharfy never stops tini."},
        {[](P& p) { p.pid = 999; }, "Wharfy never stops tini."},  // Wharfy itself
        {[](P& p) { p.path = "/usr/lib/systemd/systemd-resolved"; },
         "Part of the operating system."},
        {[](P& p) {
             p.role.value =
                 ListenerRole::BackgroundService{"foo", "systemctl --user stop foo.service", true};
         },
         "Restarts automatically. Stop it with its service tool: systemctl --user stop "
         "foo.service"},
        {[](P& p) { p.role.value = ListenerRole::PartOfApp{"Slack"}; },
         "Part of Slack. Quit Slack instead."},
        {[](P& p) { p.role.value = ListenerRole::ContainerForwarder{"Podman"}; },
         "A container runtime holds this port. Stop the container instead."},
    };
    for (const auto& c : cases) {
        SetUp();
        P p = env.processes.at(802);
        env.processes.erase(802);
        p.name = "tini";
        P changed = p;
        c.change(changed);
        env.add(changed);
        auto result = plan({changed.pid, p.startTime});
        ASSERT_FALSE(result.ok()) << c.message;
        EXPECT_EQ(result.error().message(), c.message);
    }
    PortRow netstatOnly;
    netstatOnly.pid = 4242;
    EXPECT_EQ(stopper.plan(netstatOnly).error(), StopRefusal{StopRefusal::NotYours{}});
}

TEST_F(StopperTest, PromotionSkipsParentsThatCannotBeTargetsAndGoesOnPastAPromotion) {
    struct Case {
        const char* what;
        std::function<void()> change;
        int32_t target;
        std::string reason;
        std::vector<int32_t> chain;
    };
    const std::string npm =
        "npm runs this and would start it again, so the stop request goes to npm.";
    const Case cases[] = {
        {"npm is another user's", [&] { env.processes.at(800).uid = 0; }, 802, "", {801}},
        {"npm is not plain",
         [&] { env.processes.at(800).role.value = ListenerRole::PartOfApp{"Code"}; },
         802,
         "",
         {801}},
        {"worker under its master under npm",
         [&] {
             env.processes.at(802).ppid = 803;
             env.add(803, 801, "gunicorn", {}, {3000});
         },
         800,
         npm,
         {700}},
    };
    for (const auto& c : cases) {
        SetUp();
        c.change();
        StopPlan p = plan(id(802)).value();
        EXPECT_EQ(p.target.identity.pid, c.target) << c.what;
        EXPECT_EQ(p.promotionReason.value_or(""), c.reason) << c.what;
        std::vector<int32_t> chain;
        for (const auto& r : p.chain)
            chain.push_back(r.identity.pid);
        EXPECT_EQ(chain, c.chain) << c.what;
    }
}

TEST_F(StopperTest, SummaryNamesTargetReasonParentsAndProject) {
    StopPlan p = stopper.plan(id(802), 3000, ProjectInfo{"~/src/shop", true}, std::nullopt).value();
    EXPECT_EQ(p.summary(),
              "Send the polite stop request (SIGTERM) to npm (pid 800). You picked node (pid 802); "
              "npm runs this and would start it again, so the stop request goes to npm. Started by "
              "zsh (pid 700). Project: ~/src/shop.");
    env.processes.at(802).ppid = 1;
    EXPECT_EQ(plan(id(802)).value().summary(),
              "Send the polite stop request (SIGTERM) to node (pid 802).");
}

TEST_F(StopperTest, OutcomesAfterTheOneSignal) {
    struct Case {
        std::function<void()> setup;
        std::string message;
        int sleeps;
    };
    const Case cases[] = {
        {[&] { exitOnSignal(); }, "Stopped. Port 3000 is free.", 0},
        {[] {}, kStillRunning, 40},
        {[&] {
             env.add(950, 1, "nginx", {}, {3000});
             env.add(960, 1, "node", {}, {3000});
             exitOnSignal([&] { env.add(810, 1, "node", {}, {3000}); });
         },
         "Stopped. Port 3000 is still used by nginx.", 0},
        {[&] {
             env.hiddenPorts.insert(3000);
             exitOnSignal();
         },
         "Stopped. Port 3000 is still used by another process.", 0},
        {[&] { exitOnSignal([&] { env.hiddenPorts.insert(3000); }); },
         "Stopped, but port 3000 is open again.", 0},
    };
    for (const auto& c : cases) {
        SetUp();
        env.processes.at(802).ppid = 1;
        StopPlan p = plan(id(802)).value();
        c.setup();
        StopReport report = stopper.stop(p, false).value();
        EXPECT_EQ(report.message(), c.message);
        EXPECT_EQ(sleeps, c.sleeps) << c.message;
        EXPECT_EQ(sender.sent, std::vector<Identity>{p.target.identity}) << c.message;
    }
}

TEST_F(StopperTest, WaitCoversTheShownProcessAndTheConfiguredSeconds) {
    exitOnSignal();  // npm exits, node lingers
    EXPECT_EQ(stopper.stop(plan(id(802)).value(), false).value().message(), kStillRunning);

    SetUp();
    env.processes.at(802).ppid = 1;
    Stopper shortWait{
        {.uid = 501, .waitSeconds = 2.6, .selfPID = 999}, env, sender, [this](double) {
            ++sleeps;
        }};
    EXPECT_EQ(shortWait.stop(plan(id(802)).value(), false).value().message(), kStillRunning);
    EXPECT_EQ(sleeps, 10);
}

TEST_F(StopperTest, NothingIsSignalledWhenThePlanNoLongerHolds) {
    const std::function<void()> changes[] = {
        [&] { env.processes.at(800).name = "npx"; },
        [&] {
            env.add(600, 1, "turbo");
            env.processes.at(800).ppid = 600;  // the request would now go to turbo
        },
    };
    for (const auto& change : changes) {
        SetUp();
        StopPlan p = plan(id(802)).value();
        change();
        EXPECT_EQ(stopper.stop(p, true).error(), StopRefusal{StopRefusal::IdentityChanged{}});
        EXPECT_TRUE(sender.sent.empty());
    }
}

TEST_F(StopperTest, SurvivorsAreTheSameDescendantsStillAlive) {
    env.add(820, 802, "esbuild");
    env.add(821, 820, "esbuild-worker");
    env.add(822, 802, "tail");
    env.processes.at(802).ppid = 1;
    StopPlan p = stopper.plan(ProcessRef{id(802), "node", {}, {}}, std::nullopt, "dev").value();
    exitOnSignal([&] {
        env.processes.erase(822);
        env.processes.at(821).startTime += 1;  // its pid went to a new process
    });
    StopReport report = stopper.stop(p, true).value();
    EXPECT_EQ(report.message(), "Stopped.");
    ASSERT_EQ(report.survivors.size(), 1u);
    EXPECT_EQ(report.survivors[0].identity, id(820));
}

}  // namespace
}  // namespace wharfy
