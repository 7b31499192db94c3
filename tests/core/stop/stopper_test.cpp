#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "core/stop/stopper.h"
#include "fake_signal_sender.h"
#include "fake_stop_environment.h"

namespace wharfy {
namespace {

using testing::FakeProcess;
using Identity = nemarro::process::ProcessIdentity;

constexpr uint32_t kUid = 501;

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
    Result<StopPlan, StopRefusal> plan(int32_t pid, std::optional<uint16_t> port = 3000) {
        return stopper.plan(id(pid), port, std::nullopt, std::nullopt);
    }
    StopPlan planned(int32_t pid, std::optional<uint16_t> port = 3000) {
        auto p = plan(pid, port);
        EXPECT_TRUE(p.ok()) << (p.ok() ? "" : p.error().message());
        return p.ok() ? p.value() : StopPlan{};
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
        {.uid = kUid, .waitSeconds = 10, .selfPID = 999}, env, sender, [this](double seconds) {
            EXPECT_EQ(seconds, 0.25);
            ++sleeps;
        }};
};

TEST_F(StopperTest, RefusalsCarryTheirMessages) {
    const std::string notYours =
        "This process belongs to another user or to the system, so Wharfy does not stop it.";
    struct Case {
        const char* what;
        std::function<void(FakeProcess&)> change;
        int32_t pid;
        std::string message;
    };
    const Case cases[] = {
        {"zombie", [](FakeProcess& p) { p.zombie = true; }, 802,
         "This process has already exited."},
        {"pid reused", [](FakeProcess& p) { p.startTime += 1; }, 802,
         "This is no longer the process that was shown. Refresh the list."},
        {"other user", [](FakeProcess& p) { p.uid = 0; }, 802, notYours},
        {"pid 1", [](FakeProcess& p) { p.pid = 1; }, 1, "Wharfy never stops tini."},
        {"itself", [](FakeProcess& p) { p.pid = 999; }, 999, "Wharfy never stops node."},
        {"login shell", [](FakeProcess& p) { p.name = "-zsh"; }, 802, "Wharfy never stops -zsh."},
        {"multiplexer", [](FakeProcess& p) { p.name = "tmux: server"; }, 802,
         "Wharfy never stops tmux: server."},
        {"system path", [](FakeProcess& p) { p.path = "/usr/lib/systemd/systemd-resolved"; }, 802,
         "Part of the operating system."},
        {"service",
         [](FakeProcess& p) {
             p.role.value = ListenerRole::BackgroundService{
                 "foo.service", "systemctl --user stop foo.service", true};
         },
         802,
         "Restarts automatically. Stop it with its service tool: systemctl --user stop "
         "foo.service"},
        {"app", [](FakeProcess& p) { p.role.value = ListenerRole::PartOfApp{"Slack"}; }, 802,
         "Part of Slack. Quit Slack instead."},
        {"container",
         [](FakeProcess& p) { p.role.value = ListenerRole::ContainerForwarder{"Podman"}; }, 802,
         "A container runtime holds this port. Stop the container instead."},
    };
    for (const auto& c : cases) {
        SetUp();
        FakeProcess p = env.processes.at(802);
        Identity shown{c.pid, p.startTime};
        env.processes.erase(802);
        if (c.pid == 1) p.name = "tini";
        c.change(p);
        env.add(p);
        auto result = stopper.plan(shown, 3000, std::nullopt, std::nullopt);
        ASSERT_FALSE(result.ok()) << c.what;
        EXPECT_EQ(result.error().message(), c.message) << c.what;
    }
    EXPECT_EQ(stopper.plan(Identity{4242, 1}, 3000, std::nullopt, std::nullopt).error(),
              StopRefusal{StopRefusal::Gone{}});
    PortRow netstatOnly;
    netstatOnly.port = 22;
    netstatOnly.pid = 4242;
    EXPECT_EQ(stopper.plan(netstatOnly).error(), StopRefusal{StopRefusal::NotYours{}});
}

TEST_F(StopperTest, PromotionWalksPastWrappersToTheOutermostRestarter) {
    struct Case {
        const char* what;
        std::function<void()> change;
        int32_t picked;
        int32_t target;
        std::string reason;
        std::vector<int32_t> chain;
    };
    const std::string npmReason =
        "npm runs this and would start it again, so the stop request goes to npm.";
    const Case cases[] = {
        {"npm through sh -c", [] {}, 802, 800, npmReason, {700}},
        {"started at a prompt", [&] { env.processes.at(802).ppid = 700; }, 802, 802, "", {700}},
        {"interactive shell under npm",
         [&] { env.processes.at(801).arguments = {"sh"}; },
         802,
         802,
         "",
         {801}},
        {"npm is another user's", [&] { env.processes.at(800).uid = 0; }, 802, 802, "", {801}},
        {"npm is not a plain process",
         [&] { env.processes.at(800).role.value = ListenerRole::OtherUser{}; },
         802,
         802,
         "",
         {801}},
        {"workers",
         [&] {
             env.add(900, 700, "gunicorn", {}, {3000});
             env.add(901, 900, "gunicorn", {}, {3000});
         },
         901,
         900,
         "gunicorn and its workers share this port, so the stop request goes to gunicorn.",
         {700}},
        {"workers under npm",
         [&] {
             env.add(900, 800, "gunicorn", {}, {3000});
             env.add(901, 900, "gunicorn", {}, {3000});
         },
         901,
         800,
         npmReason,
         {700}},
    };
    for (const auto& c : cases) {
        SetUp();
        c.change();
        StopPlan p = planned(c.picked);
        EXPECT_EQ(p.shown.identity.pid, c.picked) << c.what;
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
    EXPECT_EQ(planned(802).summary(), "Send the polite stop request (SIGTERM) to node (pid 802).");
}

TEST_F(StopperTest, OutcomesAfterTheOneSignal) {
    struct Case {
        const char* what;
        std::function<void()> setup;
        std::string message;
        int sleeps;
    };
    const Case cases[] = {
        {"exits at once", [&] { exitOnSignal(); }, "Stopped. Port 3000 is free.", 0},
        {"ignores it", [] {},
         "Still running after 10 s \u2014 it may be saving its work; check its terminal.", 40},
        {"restarted by its supervisor",
         [&] { exitOnSignal([&] { env.add(810, 1, "node", {}, {3000}); }); },
         "Stopped, but port 3000 is open again \u2014 node started it again.", 0},
        {"port shared with an older listener",
         [&] {
             env.add(950, 1, "nginx", {}, {3000});
             env.add(960, 1, "node", {}, {3000});
             exitOnSignal([&] { env.add(810, 1, "node", {}, {3000}); });
         },
         "Stopped. Port 3000 is still used by nginx.", 0},
        {"hidden listener before and after",
         [&] {
             env.hiddenPorts.insert(3000);
             exitOnSignal();
         },
         "Stopped. Port 3000 is still used by another process.", 0},
        {"hidden listener appears", [&] { exitOnSignal([&] { env.hiddenPorts.insert(3000); }); },
         "Stopped, but port 3000 is open again.", 0},
        {"send fails", [&] { sender.result = ESRCH; },
         "The stop request could not be delivered (No such process).", 0},
    };
    for (const auto& c : cases) {
        SetUp();
        env.processes.at(802).ppid = 1;
        StopPlan p = planned(802);
        Identity target = id(802);
        c.setup();
        auto report = stopper.stop(p, false);
        ASSERT_TRUE(report.ok()) << c.what;
        EXPECT_EQ(report.value().message(), c.message) << c.what;
        EXPECT_EQ(sleeps, c.sleeps) << c.what;
        EXPECT_EQ(sender.sent, std::vector<Identity>{target}) << c.what;
    }
}

TEST_F(StopperTest, WaitsForTheShownProcessToo) {
    StopPlan p = planned(802);
    ASSERT_EQ(p.target.identity.pid, 800);
    exitOnSignal();  // npm exits, node lingers
    auto report = stopper.stop(p, false);
    EXPECT_TRUE(report.value().outcome.is<ProcessStopOutcome::StillRunning>());
}

TEST_F(StopperTest, WaitLengthFollowsTheConfiguredSeconds) {
    Stopper shortWait{
        {.uid = kUid, .waitSeconds = 2.6, .selfPID = 999}, env, sender, [this](double) {
            ++sleeps;
        }};
    env.processes.at(802).ppid = 1;
    auto report = shortWait.stop(planned(802), false);
    EXPECT_EQ(sleeps, 10);
    EXPECT_EQ(report.value().message(),
              "Still running after 10 s \u2014 it may be saving its work; check its terminal.");
}

TEST_F(StopperTest, NothingIsSignalledWhenThePlanNoLongerHolds) {
    struct Case {
        const char* what;
        std::function<void()> change;
        StopRefusal expected;
    };
    const Case cases[] = {
        {"pid reused",
         [&] { env.processes.at(800).startTime += 7; },
         {StopRefusal::IdentityChanged{}}},
        {"renamed", [&] { env.processes.at(800).name = "npx"; }, {StopRefusal::IdentityChanged{}}},
        {"exited", [&] { env.processes.erase(800); }, {StopRefusal::Gone{}}},
        {"now under another runner",
         [&] {
             env.add(600, 1, "turbo");
             env.processes.at(800).ppid = 600;
         },
         {StopRefusal::IdentityChanged{}}},
    };
    for (const auto& c : cases) {
        SetUp();
        StopPlan p = planned(802);
        c.change();
        auto report = stopper.stop(p, true);
        ASSERT_FALSE(report.ok()) << c.what;
        EXPECT_EQ(report.error(), c.expected) << c.what;
        EXPECT_TRUE(sender.sent.empty()) << c.what;
    }
}

TEST_F(StopperTest, SurvivorsAreTheDescendantsStillAlive) {
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
    EXPECT_EQ(report.survivors[0].name, "esbuild");
}

}  // namespace
}  // namespace wharfy
