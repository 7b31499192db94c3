// The app model on a clock the test moves, over a described machine.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/model/app_model.h"
#include "fake_machine_reader.h"
#include "fake_notifier.h"
#include "manual_event_loop.h"

namespace wharfy::app {
namespace {

using testing::FakeHistory;
using testing::FakeMachineActions;
using testing::FakeMachineReader;
using testing::ManualEventLoop;
using testing::MemorySettings;
using testing::RecordingNotifier;

PortRow row(uint16_t port, const char* name, AddressClass reach = AddressClass::thisMacOnly) {
    PortRow r;
    r.port = port;
    r.pid = port;
    r.startTime = 1;
    r.processName = name;
    r.addressClass = reach;
    r.isOwnedByUser = true;
    return r;
}

RuntimeCandidate runtime(const char* context) {
    RuntimeInfo info;
    info.kind.value = RuntimeKind::Context{context};
    info.displayName = context;
    info.socketPath = std::string("/run/") + context + ".sock";
    info.status = RuntimeStatus::running;
    return {info, info.socketPath};
}

ContainerInfo running(const char* name) {
    ContainerInfo c;
    c.id = name;
    c.names = {name};
    c.state = "running";
    return c;
}

StopPlan planFor(nemarro::process::ProcessIdentity identity, const char* name) {
    StopPlan plan;
    plan.target.identity = identity;
    plan.target.name = name;
    plan.shown = plan.target;
    return plan;
}

struct ModelTest : ::testing::Test {
    ManualEventLoop loop;
    std::shared_ptr<FakeMachineReader> reader = std::make_shared<FakeMachineReader>();
    std::shared_ptr<FakeMachineActions> actions = std::make_shared<FakeMachineActions>();
    std::shared_ptr<RecordingNotifier> notifier = std::make_shared<RecordingNotifier>();
    std::shared_ptr<FakeHistory> history = std::make_shared<FakeHistory>();
    std::shared_ptr<MemorySettings> settings = std::make_shared<MemorySettings>();
    std::vector<std::string> logged;

    std::unique_ptr<AppModel> make(LaunchOptions options = LaunchOptions()) {
        AppModelParts parts;
        parts.reader = reader;
        parts.actions = actions;
        parts.notifier = notifier;
        parts.history = history;
        parts.settings = settings;
        parts.options = options;
        parts.log = [this](const std::string& m) { logged.push_back(m); };
        return std::make_unique<AppModel>(loop, std::move(parts));
    }
    /// How many ticks have read the process table.
    long reads() const {
        const auto calls = reader->calls();
        return std::count(calls.begin(), calls.end(), "processes");
    }
    /// Runs the loop until the model has finished a tick.
    void tick(AppModel& model) {
        ASSERT_TRUE(loop.drainUntil([&] { return !model.isRefreshing(); }));
    }
};

TEST_F(ModelTest, PortsArePublishedBeforeASlowEngineAnswers) {
    reader->processes.ports = {row(8080, "web", AddressClass::allNetworks)};
    reader->runtimes = {runtime("slow"), runtime("quick")};
    reader->runtimeReadings["context(name: \"quick\")"] = {{}, {running("q")}, {}, {}};
    reader->runtimeReadings["context(name: \"slow\")"] = {{}, {}, {}, "the engine did not answer"};
    reader->hold("context(name: \"slow\")");
    auto model = make();
    int counts = 0;
    model->didRefresh = [&](const WharfyCounts&) { ++counts; };
    model->start();

    ASSERT_TRUE(loop.drainUntil(
        [&] { return model->runtimes().size() == 2 && model->runtimes()[1].running() == 1; }));
    EXPECT_EQ(model->ports().size(), 1u);
    EXPECT_EQ(model->lastRefresh(), loop.now());
    EXPECT_FALSE(model->runtimeAnswered()) << "one engine is still being read";
    EXPECT_EQ(model->suiteCounts().containersRunning, std::nullopt);
    EXPECT_EQ(counts, 0);

    reader->release("context(name: \"slow\")");
    tick(*model);
    EXPECT_TRUE(model->runtimeAnswered());
    EXPECT_EQ(model->runtimes()[0].error,
              "Could not read the runtime (the engine did not answer).");
    EXPECT_EQ(model->suiteCounts(), (WharfyCounts{1, 1, 1, 0, false, 0}));
    EXPECT_EQ(counts, 1);
    EXPECT_EQ(loop.nextTimerIn(), AppModel::kHiddenInterval);
    EXPECT_TRUE(loop.drainUntil([&] { return history->entries().size() == 1; }))
        << "the first tick writes a line";
}

TEST_F(ModelTest, VisibilitySetsTheCadenceAndMarksAlertsSeen) {
    LaunchOptions options;
    options.qaUnseenAlerts = 3;
    auto model = make(options);
    model->start();
    tick(*model);
    EXPECT_TRUE(model->runtimeAnswered()) << "no runtime at all still answers";
    EXPECT_EQ(model->suiteCounts().containersRunning, 0);
    EXPECT_EQ(model->unseenAlerts(), 3);
    EXPECT_EQ(loop.nextTimerIn(), 60.0);

    loop.advance(10);  // a while later the app is shown: at once, then every 5 s
    const auto before = reads();
    model->setVisible(true);
    EXPECT_EQ(model->unseenAlerts(), 0);
    tick(*model);
    EXPECT_EQ(reads(), before + 1);
    EXPECT_EQ(loop.nextTimerIn(), 5.0);
    loop.advance(5);
    tick(*model);
    EXPECT_EQ(reads(), before + 2);

    model->setWindowOpen(true);
    model->setVisible(false);
    tick(*model);
    EXPECT_EQ(loop.nextTimerIn(), 60.0);
    EXPECT_EQ(reads(), before + 3) << "hiding refreshes at once too";
}

TEST_F(ModelTest, AlertsCountAsUnseenOnlyWhenRefusedAndKeepThatTickOutOfHistory) {
    for (bool accepted : {false, true}) {
        notifier->setAccepts(accepted);
        history = std::make_shared<FakeHistory>();
        reader->processes.ports = {row(3000, "dev")};
        auto model = make();
        model->refresh();
        tick(*model);  // the baseline: nothing public yet
        ASSERT_TRUE(loop.drainUntil([&] { return history->entries().size() == 1; }));

        reader->processes.ports = {row(3000, "dev"), row(5432, "db", AddressClass::allNetworks),
                                   row(6379, "cache", AddressClass::allNetworks)};
        loop.advance(1);
        model->refresh();
        tick(*model);
        ASSERT_TRUE(
            loop.drainUntil([&] { return notifier->posted().size() == (accepted ? 4u : 2u); }));
        loop.drainUntil([] { return false; }, std::chrono::milliseconds(50));
        EXPECT_EQ(model->unseenAlerts(), accepted ? 0 : 2) << accepted;
        EXPECT_EQ(history->entries().size(), 1u) << "a tick with alerts writes no history";

        loop.advance(1);
        model->refresh();
        tick(*model);
        EXPECT_TRUE(loop.drainUntil([&] { return history->entries().size() == 2; }))
            << "the ports changed since the last line";
    }
    const auto posted = notifier->posted();
    EXPECT_NE(posted[0].identifier, posted[1].identifier);
}

TEST_F(ModelTest, ThresholdsSettingsAndSearch) {
    for (double stored : {0.0, -2.0}) {
        settings->values["memoryThresholdGB"] = stored;
        auto model = make();
        EXPECT_EQ(model->memoryThresholdGB(), 4.0);
        EXPECT_EQ(model->monitor().thresholds().memoryBytes, 4'294'967'296u);
    }
    settings->values["alertSettings"] = "not an object";
    auto model = make();
    EXPECT_EQ(model->alertSettings(), AlertSettings{});
    model->setMemoryThresholdGB(1.5);
    EXPECT_EQ(model->monitor().thresholds().memoryBytes, 1'610'612'736u);
    AlertSettings quiet;
    quiet.publicListener = false;
    model->setAlertSettings(quiet);
    EXPECT_EQ(make()->alertSettings(), quiet) << "stored and read back";
    EXPECT_EQ(make()->memoryThresholdGB(), 1.5);
    EXPECT_EQ(AppModel::gibibytes(1e12), std::nullopt);

    std::vector<PortRow> rows{row(5432, "postgres"), row(54321, "other"), row(80, "Web5432")};
    rows[1].project = ProjectInfo{"~/src/Shop", true};
    const std::pair<const char*, std::vector<uint16_t>> searches[] = {
        {" 5432 \n", {5432}}, {"shop", {54321}}, {"WEB", {80}}, {"  ", {5432, 54321, 80}}};
    for (const auto& [search, expected] : searches) {
        std::vector<uint16_t> found;
        for (const auto& r : AppModel::filter(rows, search))
            found.push_back(r.port);
        EXPECT_EQ(found, expected) << search;
    }
}

TEST_F(ModelTest, AConfirmedStopActsOnThePlanShownThenReportsAndRefreshes) {
    const PortRow web = row(3000, "node");
    actions->plans.insert_or_assign("node", planFor({3000, 1}, "node"));
    actions->plans.insert_or_assign("zsh", std::string("Wharfy never stops zsh."));
    auto model = make();

    model->requestStop(row(22, "zsh"));
    ASSERT_TRUE(loop.drainUntil([&] { return model->notice().has_value(); }));
    EXPECT_EQ(model->notice()->text, "Wharfy never stops zsh.");
    EXPECT_FALSE(model->pending());

    model->requestStop(web);
    ASSERT_TRUE(loop.drainUntil([&] { return model->pending().has_value(); }));
    const StopPlan shown = model->pending()->as<PendingAction::Stop>()->plan;
    // What refreshes bring meanwhile changes nothing the confirmation will do.
    actions->plans.insert_or_assign("node", planFor({4000, 9}, "other"));
    model->requestStop(row(4000, "node"));
    loop.drainUntil([] { return false; }, std::chrono::milliseconds(20));
    EXPECT_EQ(model->pending()->as<PendingAction::Stop>()->plan, shown);

    const auto callsBefore = reads();
    model->confirm();
    EXPECT_TRUE(model->isWorking());
    ASSERT_TRUE(loop.drainUntil([&] { return !model->isWorking() && !model->isRefreshing(); }));
    EXPECT_EQ(actions->stopped(), std::vector<StopPlan>{shown});
    EXPECT_EQ(model->notice()->text, "Stopped. Port 3000 is free.");
    EXPECT_GT(reads(), callsBefore) << "a refresh follows the report";

    model->requestStop(web);
    ASSERT_TRUE(loop.drainUntil([&] { return model->pending().has_value(); }));
    model->cancelPending();
    EXPECT_EQ(actions->stopped().size(), 1u) << "a cancelled plan signals nothing";
}

}  // namespace
}  // namespace wharfy::app
