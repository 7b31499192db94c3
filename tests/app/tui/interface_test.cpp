// The interface over a real model on a test loop: search, selection across
// refreshes, the frozen confirmation, refusals, the clean-up flow, the armed
// confirmation and the snapshots.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/tui/interface.h"
#include "fake_machine_reader.h"
#include "fake_terminal.h"
#include "manual_event_loop.h"
#include "samples.h"
#include "spawned_process.h"
#include "test_process.h"

namespace wharfy::app::tui {
namespace {

using K = Key::Kind;

bool contains(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

struct InterfaceTest : ::testing::Test {
    testing::ManualEventLoop loop;
    std::shared_ptr<testing::FakeMachineReader> reader =
        std::make_shared<testing::FakeMachineReader>();
    std::shared_ptr<testing::FakeMachineActions> actions =
        std::make_shared<testing::FakeMachineActions>();
    testing::FakeTerminal terminal{120, 40};
    std::unique_ptr<AppModel> model;
    std::unique_ptr<Interface> ui;
    int quits = 0;

    void open(LaunchOptions options = LaunchOptions(), bool withTerminal = true) {
        reader->processes.ports = {samples::port(3000, "node", 812, AddressClass::allNetworks),
                                   samples::port(5432, "postgres", 90),
                                   samples::port(6379, "redis", 77)};
        AppModelParts parts;
        parts.reader = reader;
        parts.actions = actions;
        parts.history = std::make_shared<testing::FakeHistory>();
        parts.settings = std::make_shared<testing::MemorySettings>();
        parts.options = options;
        model = std::make_unique<AppModel>(loop, std::move(parts));
        Interface::Settings settings;
        settings.options = options;
        settings.clock = [](double) { return std::string("14:03:21"); };
        settings.fileStamp = [](double) { return std::string("2026-01-05-1403"); };
        ui = std::make_unique<Interface>(
            loop, *model, withTerminal ? &terminal : nullptr, settings, nullptr,
            [this] { ++quits; }, nullptr);
        ui->start();
        model->start();
        ASSERT_TRUE(loop.drainUntil([&] { return model->runtimeAnswered(); }));
        loop.drain();
    }
    void refresh() {
        const auto before = model->lastRefresh();
        loop.advance(AppModel::kHiddenInterval);
        ASSERT_TRUE(loop.drainUntil(
            [&] { return model->lastRefresh() != before && !model->isRefreshing(); }));
        loop.drain();
    }
    void press(Key key) {
        ui->handle(key);
        loop.drain();
    }
    void type(std::string_view text) {
        for (char c : text)
            press(Key::chr(static_cast<char32_t>(c)));
    }
    template <typename Pred>
    void settle(Pred done) {
        ASSERT_TRUE(loop.drainUntil(done));
        loop.drain();
    }
    StopPlan planOf(const PortRow& row) {
        StopPlan plan;
        plan.target = {{row.pid, *row.startTime}, row.processName, std::nullopt, *row.commandLine};
        plan.shown = plan.target;
        return plan;
    }
};

TEST_F(InterfaceTest, SearchByPortShowsExactlyThatPort) {
    open();
    press(Key::chr('/'));
    type("5432");
    EXPECT_EQ(model->portSearch(), "5432");
    EXPECT_TRUE(contains(terminal.text(), "postgres (90)"));
    EXPECT_FALSE(contains(terminal.text(), "node (812)"));
    press(Key::of(K::escape));
    EXPECT_EQ(model->portSearch(), "");
    EXPECT_TRUE(contains(terminal.text(), "node (812)"));
}

TEST_F(InterfaceTest, SelectionKeepsItsIdentityAcrossRefreshes) {
    open();
    press(Key::of(K::down));  // node -> postgres
    const std::string postgres = reader->processes.ports[1].id();
    ASSERT_EQ(ui->state().selected[0], postgres);
    // Reordered, with a new row on top: still postgres.
    auto& ports = reader->processes.ports;
    ports = {samples::port(8080, "java", 5), ports[2], ports[1], ports[0]};
    refresh();
    EXPECT_EQ(ui->state().selected[0], postgres);
    // postgres gone: its neighbour in the list takes the cursor, and the
    // detail pane says what went.
    ports = {ports[0], ports[1], ports[3]};
    refresh();
    EXPECT_EQ(ui->state().selected[0], ports[2].id());
    EXPECT_TRUE(contains(terminal.text(), "Gone: postgres (90) on port 5432"));
}

TEST_F(InterfaceTest, ConfirmationIsFrozenOnThePlannedProcess) {
    open();
    const PortRow node = reader->processes.ports[0];
    actions->plans.emplace("node", planOf(node));
    press(Key::of(K::f9));
    settle([&] { return model->pending().has_value(); });
    EXPECT_TRUE(contains(terminal.text(), "Sends SIGTERM once. Wharfy never forces a stop."));
    // Underneath, port 3000 now belongs to another process.
    reader->processes.ports[0] = samples::port(3000, "node", 999, AddressClass::allNetworks);
    refresh();
    ASSERT_TRUE(model->pending());
    press(Key::chr('y'));
    settle([&] { return !model->isWorking() && model->notice(); });
    ASSERT_EQ(actions->stopped().size(), 1u);
    EXPECT_EQ(actions->stopped()[0].target.identity.pid, 812);
    EXPECT_TRUE(contains(terminal.text(), "Stopped. Port 3000 is free."));
    press(Key::of(K::down));  // any key clears the notice
    EXPECT_FALSE(contains(terminal.text(), "Stopped. Port 3000 is free."));
}

TEST_F(InterfaceTest, RefusalIsANoticeAndNothingElse) {
    open();
    actions->plans.emplace("node", std::string("Wharfy never stops zsh."));
    press(Key::chr('k'));
    settle([&] { return model->notice().has_value(); });
    EXPECT_TRUE(contains(terminal.text(), "Wharfy never stops zsh."));
    EXPECT_FALSE(model->pending());
    press(Key::chr('y'));
    EXPECT_TRUE(actions->stopped().empty());
}

TEST_F(InterfaceTest, CleanupActsOnTheIdsShownNotOnWhatAppearedSince) {
    reader->runtimes = {{samples::podman(), samples::podman().socketPath}};
    reader->runtimeReadings["podman"] = {
        samples::podman(), samples::busyRuntime().containers, {}, std::nullopt};
    reader->sizeReadings.emplace("podman", *samples::busyRuntime().sizes);
    open();
    press(Key::chr('2'));
    settle([&] { return model->runtimes().at(0).sizes.has_value(); });
    press(Key::chr('c'));
    EXPECT_TRUE(contains(terminal.text(), "Remove 1 dangling image (2.5 GB)"));
    EXPECT_TRUE(contains(terminal.text(), "Remove volume scratch (12.0 MB)"));
    press(Key::of(K::down));
    press(Key::of(K::down));  // the dangling images
    press(Key::of(K::enter));
    settle([&] { return model->pending().has_value(); });
    // A new dangling image appears before the user confirms.
    CachedSizes more = *samples::busyRuntime().sizes;
    more.danglingImageIDs.push_back("sha256:ffffffffffff0000");
    reader->sizeReadings.insert_or_assign("podman", more);
    model->loadSizes(true);
    loop.drain();
    press(Key::chr('y'));
    settle([&] { return !model->isWorking() && model->lastContainerReport(); });
    ASSERT_EQ(actions->performed().size(), 1u);
    EXPECT_EQ(
        actions->performed()[0].value,
        ContainerAction::Value{ContainerAction::RemoveDanglingImages{{"sha256:dddddddddddd0000"}}});
    EXPECT_EQ(ui->state().overlay, Overlay::report);
    EXPECT_TRUE(contains(terminal.text(), "The command succeeded."));
}

TEST_F(InterfaceTest, ArmedConfirmationOpensAfterTheFirstRefresh) {
    LaunchOptions options({"--confirm-stop-port", "5432", "--open", "agents"});
    actions->plans.emplace("postgres", StopPlan{});
    open(options);
    settle([&] { return model->pending().has_value(); });
    EXPECT_EQ(ui->state().tab, ViewTab::ports);
    EXPECT_EQ(ui->state().selected[0], reader->processes.ports[1].id());
    EXPECT_TRUE(actions->stopped().empty());
}

TEST_F(InterfaceTest, FocusDrivesVisibility) {
    open();
    model->setVisible(true);
    press(Key::of(K::focusOut));
    EXPECT_FALSE(model->isVisible());
    press(Key::of(K::focusIn));
    EXPECT_TRUE(model->isVisible());
}

TEST_F(InterfaceTest, SnapshotsAreWrittenWithoutATerminalAndThenItQuits) {
    testing::TempDir dir;
    LaunchOptions options({"--snapshot", dir.path() + "/window.txt", "--snapshot-popover",
                           dir.path() + "/popover.txt", "--quit-after-snapshot", "--open",
                           "settings"});
    open(options, /*withTerminal=*/false);
    loop.advance(0.1);  // the snapshot waits for its (zero) delay on a timer
    settle([&] { return quits > 0; });
    const std::string window = testing::readTextFile(dir.path() + "/window.txt");
    EXPECT_TRUE(contains(window, "Agent memory threshold (GiB)"));
    EXPECT_EQ(std::count(window.begin(), window.end(), '\n'), 40);
    EXPECT_EQ(window.find('\x1b'), std::string::npos);
    EXPECT_TRUE(contains(testing::readTextFile(dir.path() + "/popover.txt"), "3 listening"));
}

}  // namespace
}  // namespace wharfy::app::tui
