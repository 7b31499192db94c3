#include <gtest/gtest.h>
#include <sys/stat.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>

#include "app/export_command.h"
#include "app/history_command.h"
#include "test_process.h"

namespace wharfy::app {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;

TEST(ExportCommandTest, FormatAndPathFromTheArguments) {
    EXPECT_EQ(exportFormat("out.json"), ExportFormat::json);
    EXPECT_EQ(exportFormat("/tmp/OUT.JSON"), ExportFormat::json);
    for (const char* markdown : {"-", "out.md", "json", "out.json.md", ".jso"})
        EXPECT_EQ(exportFormat(markdown), ExportFormat::markdown) << markdown;
}

TEST(ExportCommandTest, SnapshotKeepsRunningRuntimesWithWhatTheyOccupy) {
    PortRow row;
    row.port = 8080;
    row.pid = 4;
    row.processName = "rootlessport";
    row.role.value = ListenerRole::ContainerForwarder{"Podman"};
    row.container = ContainerRef{"id", "web", "nginx", "Podman"};

    RuntimeReport podman;
    podman.runtime = {{RuntimeKind::Podman{}}, "Podman", "/run/podman.sock", {},
                      RuntimeStatus::running,  {}};
    podman.containers = {{"id", {"/web"}, "nginx", "running", "Up", {{{}, 80, 8080, "tcp"}}}};
    podman.sizes = CachedSizes{};
    podman.sizes->usage.images = {{"i", {}, 700, 1}};
    RuntimeReport stopped;
    stopped.runtime = {
        {RuntimeKind::DockerEngine{}}, "Docker Engine", {}, {}, RuntimeStatus::notRunning, {}};

    AgentsReport agents;
    agents.sessions.resize(1);
    agents.sessions[0].footprint = 10;

    const auto s = exportSnapshot(5, {row}, {podman, stopped}, agents);
    EXPECT_EQ(s.generatedAt, 5);
    ASSERT_EQ(s.ports.size(), 1u);
    EXPECT_EQ(s.ports[0].kind, "container web (nginx), Podman");
    EXPECT_EQ(s.ports[0].container, "web");
    ASSERT_EQ(s.runtimes.size(), 1u) << "a runtime that is not running is left out";
    EXPECT_EQ(s.runtimes[0],
              (RuntimeEntry{"Podman", 1, 0, 700, {{"web", "nginx", "running", {8080}}}}));
    ASSERT_EQ(s.agents.size(), 1u);
    EXPECT_EQ(s.agents[0].status, "idle");
}

TEST(ExportCommandTest, AFailedWriteSaysWhereAndWhyInOneLine) {
    TempDir dir;
    fs::create_directory(dir.path() + "/folder");
    struct Case {
        std::string path;
        std::string message;
    };
    const Case cases[] = {
        {dir.path() + "/missing/r.md", "Could not write the export to " + dir.path() +
                                           "/missing/r.md (No such file or directory)."},
        {dir.path() + "/folder",
         "Could not write the export to " + dir.path() + "/folder (Is a directory)."},
        {dir.path() + "/\x1b[31m\n/r.md", "Could not write the export to " + dir.path() +
                                              "/\\e[31m\\n/r.md (No such file or directory)."},
    };
    for (const auto& c : cases) {
        auto written = writePrivateFile(c.path, "x", FolderPolicy::mustExist);
        ASSERT_FALSE(written) << c.path;
        EXPECT_EQ(exportFailure(written.error()), c.message);
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 1);
}

TEST(HistoryCommandTest, SummaryJsonNamesEveryFieldWithNullForTheUnknown) {
    HistorySummary summary;
    summary.entries = 2;
    summary.days = {{{2026, 3, 7},
                     2,
                     {{3000, "node", "All networks", {}, 1772892309, 1772892609}},
                     {{"Codex", "shop", 9, {}, 1772892309, 1772892309}}}};
    EXPECT_EQ(historyJson(summary), nlohmann::json::parse(R"({"entries":2,"days":[
        {"date":"2026-03-07","entries":2,
         "ports":[{"port":3000,"process":"node","exposure":"All networks","project":null,
                   "firstSeen":"2026-03-07T14:05:09Z","lastSeen":"2026-03-07T14:10:09Z"}],
         "sessions":[{"tool":"Codex","project":"shop","peakMemoryBytes":9,"peakCpuPercent":null,
                      "firstSeen":"2026-03-07T14:05:09Z","lastSeen":"2026-03-07T14:05:09Z"}]}]})"));
}

}  // namespace
}  // namespace wharfy::app
