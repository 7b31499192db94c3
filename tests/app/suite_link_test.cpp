// The suite link on a clock the test moves, over real files in a temporary
// folder; the option that points a run at a test folder; the headless reading.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "../suite/suite_printers.h"
#include "app/diagnostics.h"
#include "app/settings_file.h"
#include "app/suite_json_command.h"
#include "app/suite_link.h"
#include "fake_lock_files.h"
#include "fake_machine_reader.h"
#include "fake_notifier.h"
#include "fake_suite_system.h"
#include "manual_event_loop.h"
#include "suite/glance_store.h"
#include "test_process.h"

namespace wharfy::app {

inline void PrintTo(const SuiteFolderArgument::Problem& problem, std::ostream* os) {
    *os << problem.message();
}

namespace {

using nemarro::suite::GlanceLevel;
using nemarro::suite::GlanceMetric;
using nemarro::suite::GlanceRecord;
using nemarro::suite::GlanceState;
using nemarro::suite::GlanceStore;
using nemarro::suite::SuiteApp;
using nemarro::suite::SuiteFolder;
using Kind = SuiteFolderArgument::Problem::Kind;
using testing::FakeHistory;
using testing::FakeLockFiles;
using testing::FakeMachineReader;
using testing::ManualEventLoop;
using testing::MemorySettings;
using testing::RecordingHosts;
using testing::RecordingNotifier;
using testing::TempDir;

TEST(WharfyGlance, MetricsAndLevelFollowTheCounts) {
    using L = SuiteLevel;
    const auto metric = [](const char* id, const char* label) {
        return [=](int value, L level = L::ok) { return SuiteMetric{id, label, value, level}; };
    };
    const auto servers = metric("servers", "Servers"),
               exposed = metric("exposed", "Open to network"),
               containers = metric("containers", "Containers"),
               agents = metric("agents", "Agents busy");
    struct Case {
        WharfyCounts counts;
        std::vector<SuiteMetric> metrics;
        SuiteLevel level;
    };
    const std::vector<Case> cases{
        {{12, 2, std::nullopt, 1, false, 0}, {servers(12), exposed(2), agents(1)}, L::ok},
        {{0, 0, 4, 0, false, 3}, {servers(0), exposed(0), containers(4), agents(0)}, L::notice},
        {{1, 0, 0, 2, true, 3},
         {servers(1), exposed(0), containers(0), agents(2, L::alert)},
         L::alert},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(WharfyGlance::metrics(c.counts), c.metrics) << c.counts.json().dump();
        EXPECT_EQ(WharfyGlance::level(c.counts), c.level) << c.counts.json().dump();
    }
}

struct SuiteLinkTest : ::testing::Test {
    ManualEventLoop loop;
    const double t0 = loop.now();
    TempDir dir;
    SuiteFolder folder = SuiteFolder::at(dir.path() + "/suite");
    std::shared_ptr<FakeLockFiles> lockFiles = std::make_shared<FakeLockFiles>();
    std::shared_ptr<MemorySettings> settings = std::make_shared<MemorySettings>();
    std::shared_ptr<FakeMachineReader> reader = std::make_shared<FakeMachineReader>();
    RecordingHosts hosts;
    std::unique_ptr<AppModel> model = makeModel();
    std::vector<std::string> logged;

    std::unique_ptr<AppModel> makeModel() {
        AppModelParts parts;
        parts.reader = reader;
        parts.notifier = std::make_shared<RecordingNotifier>();
        parts.history = std::make_shared<FakeHistory>();
        parts.settings = settings;
        return std::make_unique<AppModel>(loop, std::move(parts));
    }
    SuiteLinkParts parts(bool surface = false) {
        SuiteLinkParts p;
        p.folders = {folder};
        p.preferences = settings;
        if (surface) p.host = hosts.factory();
        p.log = [this](const std::string& message) { logged.push_back(message); };
        p.system.lockFiles = lockFiles;
        return p;
    }
    std::optional<GlanceRecord> onDisk(SuiteApp app) {
        auto result = GlanceStore{folder}.read(app);
        if (!result || !std::holds_alternative<GlanceRecord>(*result)) return std::nullopt;
        return std::get<GlanceRecord>(*result);
    }
};

TEST_F(SuiteLinkTest, EveryRefreshOfTheModelBecomesTheRecord) {
    PortRow row;
    row.port = 8080;
    row.pid = 1;
    row.processName = "web";
    row.addressClass = AddressClass::allNetworks;
    reader->processes.ports = {row};
    int earlierHook = 0;
    model->didRefresh = [&](const WharfyCounts&) { ++earlierHook; };
    SuiteLink link(loop, *model, parts());
    link.start();
    model->start();
    ASSERT_TRUE(loop.drainUntil([&] { return earlierHook == 1 && !model->isRefreshing(); }));

    auto written = onDisk(SuiteApp::wharfy);
    ASSERT_TRUE(written);
    GlanceRecord expected;
    expected.app = SuiteApp::wharfy;
    expected.at = t0;
    expected.ttl = 30;
    expected.metrics = {GlanceMetric{"servers", "Servers", 1.0, "", GlanceLevel::ok},
                        GlanceMetric{"exposed", "Open to network", 1.0, "", GlanceLevel::ok},
                        GlanceMetric{"containers", "Containers", 0.0, "", GlanceLevel::ok},
                        GlanceMetric{"agents", "Agents busy", 0.0, "", GlanceLevel::ok}};
    EXPECT_EQ(*written, expected);
    model->stop();
}

TEST_F(SuiteLinkTest, TheWatchdogWithdrawsTheNumbersAfter150SilentSeconds) {
    SuiteLink link(loop, *model, parts());
    link.start();
    loop.advance(59);
    EXPECT_EQ(onDisk(SuiteApp::wharfy), std::nullopt) << "nothing before the first refresh";

    link.publish(WharfyCounts{3, 0, std::nullopt, 1, true, 0});
    loop.advance(150);
    ASSERT_TRUE(onDisk(SuiteApp::wharfy));
    EXPECT_EQ(onDisk(SuiteApp::wharfy)->metrics.size(), 3u) << "150 s of silence";
    loop.advance(1);
    const auto withdrawn = onDisk(SuiteApp::wharfy);
    EXPECT_TRUE(withdrawn->metrics.empty()) << "151 s: the tick at 210 s";
    EXPECT_EQ(withdrawn->level, GlanceLevel::alert) << "the last level stays";
    EXPECT_EQ(withdrawn->at, t0 + 210);
    EXPECT_EQ(withdrawn->state, GlanceState::running);
}

TEST_F(SuiteLinkTest, QuittingWhileHostingStillReportsTheHost) {
    ASSERT_TRUE(folder.prepare());
    GlanceRecord kobble;
    kobble.app = SuiteApp::kobble;
    kobble.at = t0;
    ASSERT_TRUE(GlanceStore{folder}.write(kobble));
    auto diagnostics = std::make_shared<Diagnostics>();
    auto p = parts(true);
    p.diagnostics = diagnostics;
    SuiteLink link(loop, *model, std::move(p));
    link.publish(WharfyCounts{});
    ASSERT_TRUE(loop.drainUntil([&] { return link.participant().isHost(); }));
    EXPECT_FALSE(link.hostedAtQuit());

    link.stop();
    EXPECT_FALSE(link.participant().isHost());
    EXPECT_TRUE(link.hostedAtQuit());
    EXPECT_TRUE(link.suiteHost());
    EXPECT_EQ(diagnostics->json(ProcessCost{})["suiteHost"], true);
    EXPECT_EQ(onDisk(SuiteApp::wharfy)->state, GlanceState::stopped);
    EXPECT_TRUE(lockFiles->openDescriptors().empty());
}

TEST_F(SuiteLinkTest, ATestFolderKeepsTheSuitePreferencesApart) {
    AppPaths paths;
    paths.settingsFile = dir.path() + "/config/wharfy/settings.json";
    SuiteFolderChoice real{{folder}, false};
    EXPECT_EQ(suitePreferences(real, settings, paths), settings);

    SuiteFolderChoice test{{folder}, true};
    auto p = parts();
    p.preferences = suitePreferences(test, settings, paths);
    SuiteLink link(loop, *model, std::move(p));
    link.participant().setShowOwnIconSetting(true);
    EXPECT_TRUE(settings->values.empty());
    const std::string file = dir.path() + "/config/wharfy/com.nemarro.wharfy.qa-suite.json";
    EXPECT_EQ(SettingsFile(file).value("NemarroSuite.showOwnIcon"), true);
}

struct FolderArgumentTest : ::testing::Test {
    TempDir dir;
    std::string root = dir.path() + "/tmp";
    // The real folder lies in the temporary root here, so that a link to it
    // resolves inside the root and only the last rule can catch it.
    std::string real = root + "/home/.local/share/nemarro/suite";

    void SetUp() override {
        std::filesystem::create_directories(real);
        std::filesystem::create_directories(root + "/ok");
        std::filesystem::create_directory_symlink(real, root + "/to-real");
        std::filesystem::create_directory_symlink(root, dir.path() + "/tmp-link");
    }
};

TEST_F(FolderArgumentTest, ProblemsAndTheirTexts) {
    struct Case {
        std::vector<std::string> arguments;
        std::optional<SuiteFolderArgument::Problem> problem;
        std::string text;
    };
    const auto arg = [](std::string value) {
        return std::vector<std::string>{"--background", "--suite-folder", std::move(value)};
    };
    const std::vector<Case> cases{
        {{"--suite-folder"}, {{Kind::missingValue, ""}}, "--suite-folder needs a path"},
        {{"--suite-folder", "--snapshot-suite-popover", "/tmp/x"},
         {{Kind::missingValue, ""}},
         "--suite-folder needs a path"},
        {arg("tmp/x"),
         {{Kind::notAbsolute, "tmp/x"}},
         "--suite-folder must be an absolute path: tmp/x"},
        {arg(root),
         {{Kind::outsideTemporaryFolder, root}},
         "--suite-folder must be inside the temporary folder: " + root},
        {arg(root + "/ok/.."), {{Kind::outsideTemporaryFolder, root + "/ok/.."}}, ""},
        {arg(dir.path() + "/elsewhere"),
         {{Kind::outsideTemporaryFolder, dir.path() + "/elsewhere"}},
         ""},
        {arg(root + "/to-real"),
         {{Kind::realSuiteFolder, root + "/to-real"}},
         "--suite-folder must not be the real suite folder: " + root + "/to-real"},
        {arg(root + "/to-real/glances"), {{Kind::realSuiteFolder, root + "/to-real/glances"}}, ""},
        {arg(real), {{Kind::realSuiteFolder, real}}, ""},
        // A folder that holds the real one.
        {arg(root + "/home"), {{Kind::realSuiteFolder, root + "/home"}}, ""},
    };
    for (const auto& c : cases) {
        auto result = SuiteFolderArgument::resolve(c.arguments, root, real);
        ASSERT_FALSE(result) << c.arguments.back();
        EXPECT_EQ(result.error(), *c.problem) << c.arguments.back();
        if (!c.text.empty()) {
            EXPECT_EQ(result.error().message(), c.text);
        }
    }

    const std::string resolvedRoot = SuiteFolderArgument::resolved(root);
    EXPECT_EQ(SuiteFolderArgument::resolve({}, root, real).value(), std::nullopt);
    EXPECT_EQ(SuiteFolderArgument::resolve(arg(root + "/ok/suite/"), root, real).value(),
              resolvedRoot + "/ok/suite");
    EXPECT_EQ(
        SuiteFolderArgument::resolve(arg(root + "/ok"), dir.path() + "/tmp-link", real).value(),
        resolvedRoot + "/ok")
        << "a temporary root reached through a link";
}

TEST(SuiteFolderChoice, TheRealFolderStaysOutOfReachEvenWhenSandboxed) {
    TempDir dir;
    const std::string root = dir.path() + "/tmp";
    nemarro::suite::SuiteLocationFacts facts;
    facts.passwordHome = root + "/home";
    const std::string real = root + "/home/.local/share/nemarro/suite";
    std::filesystem::create_directories(real);
    std::filesystem::create_directory_symlink(real, root + "/link");
    EXPECT_EQ(chooseSuiteFolders({}, facts, root).value(),
              (SuiteFolderChoice{{SuiteFolder::at(real)}, false}));

    facts.sandboxed = true;
    EXPECT_EQ(chooseSuiteFolders({}, facts, root).value(), SuiteFolderChoice{}) << "no folder";
    auto refused = chooseSuiteFolders({"--suite-folder", root + "/link"}, facts, root);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().kind, Kind::realSuiteFolder);
    EXPECT_EQ(
        chooseSuiteFolders({"--suite-folder", root + "/x"}, facts, root).value(),
        (SuiteFolderChoice{{SuiteFolder::at(SuiteFolderArgument::resolved(root) + "/x")}, true}));
}

TEST(SuiteFolderArgument, TheTemporaryRootIsTMPDIRWhenAbsolute) {
    const std::vector<std::pair<std::optional<std::string>, std::string>> cases{
        {std::nullopt, "/tmp"},
        {"", "/tmp"},
        {"relative/tmp", "/tmp"},
        {"/run/user/1/tmp", "/run/user/1/tmp"}};
    for (const auto& c : cases) {
        EXPECT_EQ(SuiteFolderArgument::temporaryRoot([&](const char* name) {
                      EXPECT_STREQ(name, "TMPDIR");
                      return c.first;
                  }),
                  c.second);
    }
}

TEST(SuiteJson, ReadsTheFolderWithoutTakingPart) {
    TempDir dir;
    const SuiteFolder folder = SuiteFolder::at(dir.path());
    ASSERT_TRUE(folder.prepare());
    const double now = 1'767'225'600;
    GlanceRecord kobble;
    kobble.app = SuiteApp::kobble;
    kobble.at = now - 1;
    kobble.hosting = true;
    kobble.level = GlanceLevel::notice;
    kobble.metrics = {
        GlanceMetric{"cpu", "CPU", 12.5, "%", GlanceLevel::notice},
        GlanceMetric{"mode", "Mode", nemarro::suite::StateWord::idle, "", GlanceLevel::ok}};
    GlanceRecord wharfy;
    wharfy.app = SuiteApp::wharfy;
    wharfy.at = now;
    wharfy.metrics = {GlanceMetric{"servers", "Servers", 3.0, "", GlanceLevel::ok}};
    GlanceRecord tessik = wharfy;
    tessik.app = SuiteApp::tessik;
    tessik.state = GlanceState::stopped;
    for (const auto& r : {kobble, wharfy, tessik})
        ASSERT_TRUE(GlanceStore{folder}.write(r));
    nemarro::suite::SuiteSettings settings;
    settings.menuBarValues = std::vector<nemarro::suite::MetricRef>{{SuiteApp::wharfy, "servers"}};
    ASSERT_TRUE(settings.write(folder));

    const auto expected = nlohmann::json::parse(R"({
      "isActive": true,
      "worstLevel": "notice",
      "rows": [
        {"app": "kobble", "state": "running", "hosting": true, "level": "notice", "metrics": [
          {"id": "cpu", "label": "CPU", "value": 12.5, "unit": "%", "level": "notice"},
          {"id": "mode", "label": "Mode", "value": "idle", "unit": "", "level": "ok"}]},
        {"app": "wharfy", "state": "running", "hosting": false, "level": "ok", "metrics": [
          {"id": "servers", "label": "Servers", "value": 3, "unit": "", "level": "ok"}]}
      ],
      "menuBarValues": [
        {"app": "wharfy", "metric": "servers", "label": "Servers", "value": 3, "unit": "", "level": "ok"}]
    })");
    EXPECT_EQ(suiteJson({folder}, now), expected);
    size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder.glancesPath()))
        files += entry.is_regular_file() ? 1 : 0;
    EXPECT_EQ(files, 3u) << "nothing written";
    EXPECT_FALSE(std::filesystem::exists(folder.hostLockPath()));
}

}  // namespace
}  // namespace wharfy::app
