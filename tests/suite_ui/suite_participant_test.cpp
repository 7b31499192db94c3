// The participant on a clock the test moves, over real files in a temporary
// folder, with the lock, the folder events, the open requests and the clocks
// played by the test.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "../suite/suite_printers.h"
#include "fake_lock_files.h"
#include "fake_suite_system.h"
#include "manual_event_loop.h"
#include "suite/glance_store.h"
#include "suite_ui/suite_participant.h"
#include "test_process.h"

namespace nemarro::suite_ui {
namespace {

using suite::GlanceState;
using suite::GlanceStore;
using suite::NotRunningRow;
using suite::RunningRow;
using wharfy::testing::FakeClocks;
using wharfy::testing::FakeFolderWatches;
using wharfy::testing::FakeLockFiles;
using wharfy::testing::FakeOpenRequests;
using wharfy::testing::ManualEventLoop;
using wharfy::testing::MemoryPreferences;
using wharfy::testing::RecordingHosts;
using wharfy::testing::TempDir;

GlanceMetric metric(const char* id, double value) {
    return GlanceMetric{id, "Label", value, "", GlanceLevel::ok};
}

GlanceRecord record(SuiteApp app, double at, GlanceState state = GlanceState::running,
                    std::vector<GlanceMetric> metrics = {}) {
    GlanceRecord r;
    r.app = app;
    r.at = at;
    r.state = state;
    r.metrics = std::move(metrics);
    return r;
}

struct ParticipantTest : ::testing::Test {
    ManualEventLoop loop;
    const double t0 = loop.now();
    TempDir dir;
    SuiteFolder folder = SuiteFolder::at(dir.path() + "/suite");
    std::shared_ptr<FakeLockFiles> lockFiles = std::make_shared<FakeLockFiles>();
    std::shared_ptr<MemoryPreferences> preferences = std::make_shared<MemoryPreferences>();
    FakeFolderWatches watches;
    FakeOpenRequests opens;
    FakeClocks clocks;
    RecordingHosts hosts;
    std::vector<std::string> logged;
    int opened = 0;

    void SetUp() override { ASSERT_TRUE(folder.prepare()); }
    void TearDown() override { lockFiles->unblock(); }

    std::unique_ptr<SuiteParticipant> make(SuiteApp app = SuiteApp::wharfy, bool surface = true,
                                           std::vector<SuiteFolder> folders = {}) {
        ParticipantParts parts;
        parts.app = app;
        parts.folders = folders.empty() ? std::vector<SuiteFolder>{folder} : folders;
        parts.preferences = preferences;
        if (surface) parts.host = hosts.factory();
        parts.onOpen = [this] { ++opened; };
        parts.log = [this](const std::string& message) { logged.push_back(message); };
        parts.system.lockFiles = lockFiles;
        parts.system.watchFolders = watches.factory();
        parts.system.openRequests = opens.factory();
        parts.system.clocks = clocks.clocks();
        return std::make_unique<SuiteParticipant>(loop, std::move(parts));
    }
    void put(const GlanceRecord& r, const SuiteFolder& where) {
        ASSERT_TRUE(GlanceStore{where}.write(r)) << "test record";
    }
    void put(const GlanceRecord& r) { put(r, folder); }
    std::optional<GlanceRecord> onDisk(SuiteApp app) {
        auto result = GlanceStore{folder}.read(app);
        if (!result || !std::holds_alternative<GlanceRecord>(*result)) return std::nullopt;
        return std::get<GlanceRecord>(*result);
    }
    std::vector<std::string> rowApps(const SuiteParticipant& p) {
        std::vector<std::string> apps;
        for (const auto& row : p.rows()) {
            if (const auto* running = std::get_if<RunningRow>(&row))
                apps.push_back(std::string(suite::id(running->record.app)));
            else
                apps.push_back(std::string(suite::id(std::get<NotRunningRow>(row).app)) + " gone");
        }
        return apps;
    }
};

TEST(TimerInterval, IsHalfTheClampedTTLLessHalfASecondAtMostFive) {
    const std::vector<std::pair<int64_t, double>> cases{{-1, 1}, {2, 1},  {3, 1}, {10, 4.5},
                                                        {11, 5}, {30, 5}, {61, 5}};
    for (const auto& [ttl, interval] : cases)
        EXPECT_EQ(SuiteParticipant::timerInterval(ttl), interval) << "ttl " << ttl;
}

TEST(WakeDetector, ASleepIsBootTimeRunningAheadByMoreThanFiveSeconds) {
    struct Case {
        double boot, mono;
        bool slept;
    };
    const std::vector<Case> cases{{5, 5, false}, {10, 5, false}, {10.5, 5, true}, {3600, 0, true}};
    for (const auto& c : cases) {
        FakeClocks clocks;
        WakeDetector detector(clocks.clocks());
        EXPECT_FALSE(detector.check()) << "the first check only reads";
        clocks.now->boottime += c.boot;
        clocks.now->monotonic += c.mono;
        EXPECT_EQ(detector.check(), c.slept) << c.boot << " / " << c.mono;
        EXPECT_FALSE(detector.check()) << "a sleep is told once";
    }
}

TEST_F(ParticipantTest, PublishesAtOnceAndRewritesAnUnchangedRecordEveryHalfTTL) {
    auto p = make(SuiteApp::wharfy, false);
    p->publish(GlanceLevel::notice, {metric("servers", 12)}, 30);
    auto written = onDisk(SuiteApp::wharfy);
    ASSERT_TRUE(written);
    GlanceRecord expected =
        record(SuiteApp::wharfy, t0, GlanceState::running, {metric("servers", 12)});
    expected.level = GlanceLevel::notice;
    EXPECT_EQ(*written, expected);
    EXPECT_EQ(loop.nextTimerIn(), 5);

    loop.advance(0.25);
    p->publish(GlanceLevel::notice, {metric("servers", 13)}, 30);
    EXPECT_EQ(onDisk(SuiteApp::wharfy)->at, t0 + 0.25) << "a change is written at once";
    loop.advance(14.75);
    EXPECT_EQ(onDisk(SuiteApp::wharfy)->at, t0 + 15)
        << "the tick 14.75 s after the write is close enough to half the ttl";
    p->publish(GlanceLevel::notice, {metric("servers", 13)}, 30);
    EXPECT_EQ(onDisk(SuiteApp::wharfy)->at, t0 + 15) << "unchanged: not due";
    loop.advance(15);
    EXPECT_EQ(onDisk(SuiteApp::wharfy)->at, t0 + 30);
}

TEST_F(ParticipantTest, CountsItselfBeforeItsOwnFileIsRead) {
    put(record(SuiteApp::kobble, t0));
    auto p = make(SuiteApp::wharfy, false);
    watches.fire();
    EXPECT_TRUE(p->isActive()) << "this app and kobble";
    ASSERT_EQ(p->rows().size(), 2u);
    GlanceRecord self = record(SuiteApp::wharfy, t0);
    self.ttl = 10;
    EXPECT_EQ(std::get<RunningRow>(p->rows()[1]).record, self)
        << "ttl 10 before the first publication";

    put(record(SuiteApp::wharfy, t0 - 1, GlanceState::running, {metric("servers", 3)}));
    watches.fire();
    EXPECT_EQ(std::get<RunningRow>(p->rows()[1]).record.metrics.size(), 1u)
        << "a fresh own record on disk is kept as it is";
}

TEST_F(ParticipantTest, AFailedWriteIsLoggedOnceAndStopsItCountingItself) {
    put(record(SuiteApp::kobble, t0));
    ASSERT_EQ(::mkdir(folder.glancesPath().append("/wharfy.json").c_str(), 0700), 0);
    auto p = make(SuiteApp::wharfy, false);
    p->publish(GlanceLevel::ok, {}, 30);
    EXPECT_TRUE(p->isActive()) << "counted itself before the write failed";
    watches.fire();
    EXPECT_TRUE(p->isActive()) << "just below two apps";
    loop.advance(9);
    EXPECT_TRUE(p->isActive());
    loop.advance(1);
    EXPECT_FALSE(p->isActive()) << "the others cannot see it, so neither does it";
    ASSERT_EQ(logged.size(), 1u) << "once, however many ticks retried";
    EXPECT_TRUE(logged[0].starts_with("glance record not written: Could not ")) << logged[0];
}

TEST_F(ParticipantTest, AnInvalidReadoutIsLoggedOnceAndNeverWritten) {
    auto p = make(SuiteApp::wharfy, false);
    GlanceMetric tooLong = metric("servers", 1);
    tooLong.label = "Seventeen letters";
    p->publish(GlanceLevel::ok, {tooLong}, 30);
    loop.advance(20);
    EXPECT_EQ(onDisk(SuiteApp::wharfy), std::nullopt);
    EXPECT_EQ(logged, std::vector<std::string>{"glance record not written: label: 1-16 scalars"});
}

TEST_F(ParticipantTest, TheLaterRecordWinsBetweenFolders) {
    const SuiteFolder second = SuiteFolder::at(dir.path() + "/second");
    ASSERT_TRUE(second.prepare());
    put(record(SuiteApp::kobble, t0 - 5, GlanceState::running, {metric("a", 1)}), folder);
    put(record(SuiteApp::kobble, t0 - 1, GlanceState::running, {metric("a", 2)}), second);
    put(record(SuiteApp::tessik, t0, GlanceState::running, {metric("a", 1)}), folder);
    put(record(SuiteApp::tessik, t0, GlanceState::running, {metric("a", 2)}), second);
    auto records = readSuiteRecords({folder, second});
    EXPECT_EQ(records.at(SuiteApp::kobble).metrics[0].value, suite::MetricValue(2.0));
    EXPECT_EQ(records.at(SuiteApp::tessik).metrics[0].value, suite::MetricValue(1.0))
        << "a tie goes to the first folder";
}

TEST_F(ParticipantTest, HostsOnlyWhileHoldingTheLockAndTheSuiteIsActive) {
    put(record(SuiteApp::kobble, t0));
    auto p = make();
    p->publish(GlanceLevel::ok, {metric("servers", 1)}, 30);
    ASSERT_TRUE(loop.drainUntil([&] { return p->isHost(); }));
    EXPECT_EQ(hosts.alive, 1);
    EXPECT_TRUE(onDisk(SuiteApp::wharfy)->hosting) << "rewritten at once";
    ASSERT_FALSE(hosts.shown.empty());
    EXPECT_EQ(hosts.shown.back().rows, p->rows());

    loop.advance(2);
    put(record(SuiteApp::kobble, t0 + 2, GlanceState::stopped));
    watches.fire();
    EXPECT_EQ(rowApps(*p), (std::vector<std::string>{"kobble gone", "wharfy"}));
    loop.advance(8);
    EXPECT_TRUE(p->isActive()) << "8 s below two apps";
    EXPECT_TRUE(p->isHost());
    loop.advance(2);
    watches.fire();
    EXPECT_FALSE(p->isActive()) << "10 s below two apps";
    EXPECT_FALSE(p->isHost()) << "still holds the lock, but the suite is off";
    EXPECT_EQ(hosts.alive, 0);
    const auto rewritten = onDisk(SuiteApp::wharfy);
    EXPECT_FALSE(rewritten->hosting);
    EXPECT_EQ(rewritten->at, t0 + 12) << "not put off to the next half ttl";
}

TEST_F(ParticipantTest, OnlyAHostCapableAppWithASurfaceTakesTheLock) {
    struct Case {
        SuiteApp app;
        bool surface;
    };
    for (const Case& c : {Case{SuiteApp::wharfy, false}, Case{SuiteApp::kobble, true}}) {
        put(record(SuiteApp::quosset, loop.now()));
        auto p = make(c.app, c.surface);
        p->publish(GlanceLevel::ok, {}, 30);
        EXPECT_TRUE(p->isActive());
        loop.drainUntil([] { return false; }, std::chrono::milliseconds(50));
        EXPECT_FALSE(p->isHost());
        p.reset();
        EXPECT_TRUE(lockFiles->calls().empty()) << suite::id(c.app);
    }
    EXPECT_EQ(hosts.created, 0);
}

TEST_F(ParticipantTest, ShutdownWithdrawsTheRecordAndReleasesTheLock) {
    put(record(SuiteApp::kobble, t0));
    auto p = make();
    int changes = 0;
    p->changed = [&] { ++changes; };
    p->publish(GlanceLevel::alert, {metric("servers", 1)}, 30);
    ASSERT_TRUE(loop.drainUntil([&] { return p->isHost(); }));
    ASSERT_EQ(lockFiles->openDescriptors().size(), 1u);
    loop.advance(1);
    const int before = changes;

    p->shutdown();
    EXPECT_FALSE(p->isHost());
    EXPECT_GT(changes, before);
    EXPECT_EQ(hosts.alive, 0);
    GlanceRecord stopped = record(SuiteApp::wharfy, t0 + 1, GlanceState::stopped);
    stopped.level = GlanceLevel::alert;
    EXPECT_EQ(onDisk(SuiteApp::wharfy), stopped) << "no metrics, not hosting, last level";
    EXPECT_TRUE(lockFiles->openDescriptors().empty());
    EXPECT_FALSE(watches.fire()) << "no longer watching";
    EXPECT_FALSE(opens.arrive()) << "no longer listening";
    EXPECT_EQ(loop.timerCount(), 0u);

    p->publish(GlanceLevel::ok, {metric("servers", 2)}, 30);
    p->shutdown();
    EXPECT_EQ(onDisk(SuiteApp::wharfy), stopped) << "nothing more after shutdown";
}

TEST_F(ParticipantTest, AWakeKeepsTheSuiteOnThroughTheGrace) {
    // Kobble's record goes stale 2 s from now, as every record would over a sleep.
    put(record(SuiteApp::kobble, t0 - 28));
    auto p = make(SuiteApp::wharfy, false);
    p->publish(GlanceLevel::ok, {}, 30);
    ASSERT_TRUE(p->isActive());
    clocks.sleep(600);
    loop.advance(20);
    EXPECT_TRUE(p->isActive()) << "off delay counted only from the end of the grace, at 15 s";
    loop.advance(5);
    EXPECT_FALSE(p->isActive());
}

TEST_F(ParticipantTest, OpenRequestsGoBothWays) {
    auto p = make();
    EXPECT_TRUE(opens.arrive());
    EXPECT_EQ(opened, 1);
    p->requestOpen(SuiteApp::kobble);
    EXPECT_EQ(opens.requested, std::vector<SuiteApp>{SuiteApp::kobble});
}

TEST_F(ParticipantTest, SharedSettingsAreSavedShortlyAfterAChangeAndFollowedFromDisk) {
    put(record(SuiteApp::kobble, t0, GlanceState::running, {metric("a", 1), metric("b", 2)}));
    auto p = make(SuiteApp::wharfy, false);
    p->publish(GlanceLevel::ok, {}, 30);
    ASSERT_EQ(p->menuBarValues().size(), 1u);
    EXPECT_EQ(p->menuBarValues()[0].first, (MetricRef{SuiteApp::kobble, "a"}));

    SuiteSettings chosen;
    chosen.menuBarValues = std::vector<MetricRef>{{SuiteApp::kobble, "b"}};
    p->setSettings(chosen);
    EXPECT_EQ(p->menuBarValues()[0].first, (MetricRef{SuiteApp::kobble, "b"}));
    EXPECT_EQ(SuiteSettings::read(folder), SuiteSettings{}) << "not yet";
    loop.advance(1);
    EXPECT_EQ(SuiteSettings::read(folder), chosen);

    SuiteSettings other;
    other.floatingVisible = true;
    ASSERT_TRUE(other.write(folder));
    watches.fire();
    EXPECT_EQ(p->settings(), other) << "another participant's change";
    EXPECT_EQ(p->menuBarValues()[0].first, (MetricRef{SuiteApp::kobble, "a"}));

    p->floatingBarMoved({3, 4});
    p->shutdown();
    EXPECT_EQ(SuiteSettings::read(folder).floatingTopLeft, (suite::ScreenPoint{3, 4}))
        << "a pending change is saved at shutdown";
}

TEST_F(ParticipantTest, TheOwnIconChoiceIsAPreferenceThatOverridesTheHost) {
    put(record(SuiteApp::kobble, t0));
    auto p = make(SuiteApp::wharfy, false);
    p->publish(GlanceLevel::ok, {}, 30);
    EXPECT_FALSE(p->showsOwnIcon()) << "active, host not yet missing";
    p->setShowOwnIconSetting(true);
    EXPECT_TRUE(p->showsOwnIcon());
    EXPECT_TRUE(p->ownIconByRules());
    EXPECT_EQ(preferences->flags,
              (std::map<std::string, bool>{{"NemarroSuite.showOwnIcon", true}}));
    EXPECT_TRUE(make(SuiteApp::wharfy, false)->showOwnIconSetting()) << "read back at start";

    preferences->failure = "disk full";
    p->setShowOwnIconSetting(false);
    EXPECT_EQ(logged, std::vector<std::string>{"suite preference not saved: disk full"});
}

TEST_F(ParticipantTest, AFolderThatCannotBePreparedIsLoggedAndLeftOut) {
    std::ofstream(dir.path() + "/file") << "x";
    const SuiteFolder blocked = SuiteFolder::at(dir.path() + "/file/suite");
    auto p = make(SuiteApp::wharfy, false, {blocked, folder});
    EXPECT_EQ(p->folders(), std::vector<SuiteFolder>{folder});
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_TRUE(logged[0].starts_with("suite folder not usable: Could not ")) << logged[0];
    EXPECT_EQ(watches.watched, (std::vector<std::string>{folder.path, folder.glancesPath()}));
    p->publish(GlanceLevel::ok, {}, 30);
    EXPECT_TRUE(onDisk(SuiteApp::wharfy));
}

}  // namespace
}  // namespace nemarro::suite_ui
