#include <gtest/gtest.h>

#include "core/history/alert_engine.h"

namespace wharfy {
namespace {

constexpr double kMinute = 60;

PortRow publicRow(uint16_t port, int32_t pid, std::string name = "node",
                  AddressClass reach = AddressClass::allNetworks) {
    PortRow row;
    row.port = port;
    row.pid = pid;
    row.startTime = 1000 + pid;
    row.processName = std::move(name);
    row.addressClass = reach;
    return row;
}

RunawayInput runaway(std::string id, std::optional<std::string> project, RunawayReason reason) {
    return {std::move(id), "claudeCode", std::move(project), reason};
}

std::vector<std::string> keys(const std::vector<Alert>& alerts) {
    std::vector<std::string> out;
    for (const auto& a : alerts)
        out.push_back(std::string(rawValue(a.kind)) + "|" + a.key);
    return out;
}

TEST(AlertEngineTest, RunawayBodiesAndPerSessionCooldown) {
    AlertEngine engine;
    const auto cpu = runaway("s1", "shop", {RunawayReason::Cpu{97.9}});
    const auto memory = runaway("s2", std::nullopt, {RunawayReason::Memory{5'249'999'999}});
    const auto first = engine.evaluate(0, {cpu, memory}, {}, {});
    ASSERT_EQ(first.size(), 2u) << "two sessions on one tick alert both";
    EXPECT_EQ(first[0], (Alert{AlertKind::runawaySession, "s1", "A session is using a lot",
                               "Claude Code in shop. It has averaged 97% of one core for 10 "
                               "minutes."}));
    EXPECT_EQ(first[1].body, "Claude Code. It is using 5.2 GB of memory.");
    EXPECT_TRUE(engine.evaluate(29 * kMinute, {cpu}, {}, {}).empty());
    EXPECT_EQ(keys(engine.evaluate(30 * kMinute, {cpu, memory}, {}, {})),
              (std::vector<std::string>{"runawaySession|s1", "runawaySession|s2"}));

    engine.setSettings({false, true, true, 1});
    EXPECT_TRUE(engine.evaluate(90 * kMinute, {cpu}, {}, {}).empty());
}

TEST(AlertEngineTest, StorageAboveTheThresholdOnly) {
    AlertEngine engine(AlertSettings{true, true, true, 20'000'000'000});
    const std::vector<RuntimeDiskInput> runtimes{
        {"dockerEngine", "Docker Engine", 20'000'000'000},  // exactly: no
        {"podman", "Podman", 23'400'000'001},
        {"colima(profile: \"default\")", "Colima (default)", std::nullopt},
    };
    const auto alerts = engine.evaluate(0, {}, runtimes, {});
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0], (Alert{AlertKind::containerStorage, "podman", "Container storage is large",
                                "Podman occupies 23.4 GB on this computer. Open Wharfy to see "
                                "what can be cleaned up."}));
    auto oneMore = runtimes;
    oneMore[0].macDiskBytes = 20'000'000'001;
    EXPECT_EQ(keys(engine.evaluate(kMinute, {}, oneMore, {})),
              std::vector<std::string>{"containerStorage|dockerEngine"});
}

TEST(AlertEngineTest, PublicListenersAfterTheFirstLookOnly) {
    AlertEngine engine;
    const auto early = publicRow(8080, 10);
    EXPECT_TRUE(engine.evaluate(0, {}, {}, {early}).empty()) << "public at launch: silent";
    ASSERT_TRUE(engine.publicBaseline());

    const auto later = publicRow(3000, 11, "vite");
    const auto local = publicRow(4000, 12, "x", AddressClass::thisMacOnly);
    const auto alerts = engine.evaluate(kMinute, {}, {}, {early, later, later, local});
    ASSERT_EQ(alerts.size(), 1u) << "a row twice in one look alerts once";
    EXPECT_EQ(alerts[0],
              (Alert{AlertKind::publicListener, later.id(), "A new listener on all networks",
                     "vite is now listening on port 3000, reachable from every "
                     "network."}));

    auto reopened = early;
    reopened.pid = 20;  // the same port opened again by another process
    EXPECT_EQ(keys(engine.evaluate(2 * kMinute, {}, {}, {reopened, later})),
              std::vector<std::string>{"publicListener|" + reopened.id()});
}

TEST(AlertEngineTest, PublicListenerSettingOffStillMovesTheBaseline) {
    AlertEngine engine(AlertSettings{true, true, false, 1});
    engine.evaluate(0, {}, {}, {});
    engine.evaluate(kMinute, {}, {}, {publicRow(3000, 11)});
    engine.setSettings({});
    EXPECT_TRUE(engine.evaluate(2 * kMinute, {}, {}, {publicRow(3000, 11)}).empty());
    EXPECT_EQ(engine.evaluate(3 * kMinute, {}, {}, {publicRow(3000, 11), publicRow(9, 9)}).size(),
              1u);
}

TEST(AlertEngineTest, KindsComeInTheirOrder) {
    AlertEngine engine(AlertSettings{true, true, true, 0});
    engine.evaluate(0, {}, {}, {});
    const auto alerts = engine.evaluate(1, {runaway("s", {}, {RunawayReason::Cpu{95}})},
                                        {{"podman", "Podman", 1}}, {publicRow(1, 1)});
    EXPECT_EQ(keys(alerts), (std::vector<std::string>{"runawaySession|s", "containerStorage|podman",
                                                      "publicListener|1@1001:1"}));
}

TEST(AlertEngineTest, SettingsJsonRoundTripsAndRejectsPartialData) {
    const AlertSettings custom{false, true, false, 5'000'000'000};
    EXPECT_EQ(custom.json(),
              R"({"containerStorage":true,"publicListener":false,"runawaySession":false,)"
              R"("storageThresholdBytes":5000000000})");
    EXPECT_EQ(AlertSettings::fromJson(custom.json()), custom);
    for (
        const char* bad :
        {"", "[]", R"({"containerStorage":true,"publicListener":false,"runawaySession":false})",
         R"({"containerStorage":1,"publicListener":false,"runawaySession":false,"storageThresholdBytes":1})",
         R"({"containerStorage":true,"publicListener":false,"runawaySession":false,"storageThresholdBytes":-1})"})
        EXPECT_FALSE(AlertSettings::fromJson(bad)) << bad;
}

TEST(AlertEngineTest, OccupiedBytesOfNativeEnginesAndVirtualMachines) {
    DiskUsage usage;
    usage.images = {{"i", {}, 1000, 0}, {"j", {}, -5, 0}};
    usage.containers = {{"c", {}, "running", 200}};
    usage.volumes = {{"v", 0, 30}};
    usage.buildCache = {{"b", 4, true}, {"d", 1, false}};
    RuntimeInfo podman{{RuntimeKind::Podman{}}, "Podman", "/run/podman.sock", {}, RuntimeStatus::running, {}};
    RuntimeInfo desktop{{RuntimeKind::DockerDesktop{}}, "Docker Desktop", {}, {}, RuntimeStatus::running, {"/img"}};
    const std::vector<DiskFile> files{{"/img", 7000, 90000}};

    EXPECT_EQ(occupiedBytes(podman, &usage, {}), 1235u);
    EXPECT_EQ(occupiedBytes(podman, nullptr, {}), std::nullopt) << "sizes not loaded yet";
    EXPECT_EQ(occupiedBytes(desktop, &usage, files), 7000u);
    EXPECT_EQ(occupiedBytes(desktop, &usage, {}), std::nullopt);
}

}  // namespace
}  // namespace wharfy
