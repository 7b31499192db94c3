#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "core/history/export_snapshot.h"

namespace wharfy {
namespace {

const ExportRenderer kRenderer([](double) { return std::string("3/7/26, 2:05:09\xE2\x80\xAFPM"); });

TEST(ExportRendererTest, EmptySnapshotKeepsEveryHeading) {
    EXPECT_EQ(kRenderer.markdown({}),
              "# What is running\n"
              "Written by Nemarro Wharfy on 3/7/26, 2:05:09\xE2\x80\xAFPM.\n"
              "\n"
              "## Ports (0)\n"
              "Nothing is listening.\n"
              "\n"
              "## Containers\n"
              "No container runtime is running.\n"
              "\n"
              "## Agent sessions (0)\n"
              "No agent session is running.");
}

ExportSnapshot full() {
    ExportSnapshot s;
    s.generatedAt = 1772892309;
    s.ports = {{3000, "node", 812, "All networks", {"::"}, "process", "shop", {}},
               {5432, "a|b", 9, "This computer only", {"127.0.0.1"}, "process", {}, {}},
               {8080,
                "line\nbreak",
                10,
                "All networks",
                {"0.0.0.0"},
                "container web (nginx), Podman",
                {},
                "web"}};
    s.runtimes = {{"Podman",
                   1,
                   1,
                   1'234'567'890,
                   {{"web", "nginx", "running", {8080, 8443}}, {"old", "redis", "exited", {}}}},
                  {"Docker Engine", 0, 0, std::nullopt, {}}};
    s.agents = {{"Claude Code", "2.0.1", "shop", "Claude", 3, 12.6, 1'500'000'000, "busy"},
                {"Aider", {}, {}, {}, 1, std::nullopt, 2'000'000, "idle"}};
    return s;
}

TEST(ExportRendererTest, FullSnapshotOneRowPerItem) {
    EXPECT_EQ(kRenderer.markdown(full()),
              "# What is running\n"
              "Written by Nemarro Wharfy on 3/7/26, 2:05:09\xE2\x80\xAFPM.\n"
              "\n"
              "## Ports (3)\n"
              "| Port | Process | Reachable from | Kind | Project | Container |\n"
              "|---|---|---|---|---|---|\n"
              "| 3000 | node | All networks | process | shop |  |\n"
              "| 5432 | a\\|b | This computer only | process |  |  |\n"
              "| 8080 | line break | All networks | container web (nginx), Podman |  | web |\n"
              "\n"
              "## Containers\n"
              "### Podman\n"
              "\n"
              "1 running, 1 stopped — occupies 1.2 GB on this computer\n"
              "\n"
              "| Container | Image | State | Ports |\n"
              "|---|---|---|---|\n"
              "| web | nginx | running | 8080, 8443 |\n"
              "| old | redis | exited |  |\n"
              "\n"
              "### Docker Engine\n"
              "\n"
              "0 running, 0 stopped\n"
              "\n"
              "## Agent sessions (2)\n"
              "| Tool | Project | Status | CPU | Memory | Processes |\n"
              "|---|---|---|---|---|---|\n"
              "| Claude Code (managed by Claude) | shop | busy | 13% | 1.5 GB | 3 |\n"
              "| Aider |  | idle | — | 2.0 MB | 1 |");
}

TEST(ExportRendererTest, JsonLeavesOutWhatIsAbsentAndStaysValidUtf8) {
    auto s = full();
    s.ports[0].process = "bad\xFF";
    const auto json = nlohmann::json::parse(kRenderer.json(s));
    EXPECT_EQ(json["generatedAt"], "2026-03-07T14:05:09Z");
    EXPECT_EQ(json["ports"][0]["process"], "bad\xEF\xBF\xBD");
    EXPECT_EQ(json["ports"][0],
              nlohmann::json::parse(R"({"port":3000,"process":"bad\ufffd","pid":812,
                  "exposure":"All networks","addresses":["::"],"kind":"process","project":"shop"})"));
    EXPECT_FALSE(json["runtimes"][1].contains("macDiskBytes"));
    EXPECT_EQ(json["runtimes"][0]["containers"][0]["publishedPorts"],
              nlohmann::json::parse("[8080,8443]"));
    EXPECT_EQ(json["agents"][1],
              nlohmann::json::parse(
                  R"({"tool":"Aider","processes":1,"memoryBytes":2000000,"status":"idle"})"));
}

TEST(ExportRendererTest, MarkdownCellsCannotBreakTheTable) {
    struct Case {
        const char* text;
        const char* cell;
    };
    const Case cases[] = {
        {"plain name", "plain name"},
        {"a|b", "a\\|b"},
        {"a\\|b", "a\\\\\\|b"},  // a backslash cannot escape our escape
        {"one\ntwo\r\nthree\rfour\tfive", "one two three four five"},
        {"`code`", "\\`code\\`"},
        {"# title", "\\# title"},
        {"> quote", "\\> quote"},
        {"- item", "\\- item"},
        {"  + item", "  \\+ item"},
        {"a#b-c>d", "a#b-c>d"},
        {"<img src=x>", "\\<img src=x>"},
        {"esc\x1b[31m", "esc\xEF\xBF\xBD[31m"},
        {"rtl\xE2\x80\xAEgnp.exe", "rtl\xEF\xBF\xBDgnp.exe"},
        {"bad\xFF", "bad\xEF\xBF\xBD"},
        {"caf\xC3\xA9 \xF0\x9F\x90\xB3", "caf\xC3\xA9 \xF0\x9F\x90\xB3"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(markdownCell(c.text), c.cell) << c.text;
}

TEST(ExportRendererTest, FileByteCounts) {
    struct Case {
        uint64_t bytes;
        const char* text;
    };
    const Case cases[] = {{0, "0 bytes"},
                          {1, "1 byte"},
                          {999, "999 bytes"},
                          {1000, "1 KB"},
                          {999'499, "999 KB"},
                          {999'500, "1.0 MB"},
                          {23'400'000'000, "23.4 GB"},
                          {2'500'000'000'000, "2.5 TB"}};
    for (const auto& c : cases)
        EXPECT_EQ(fileBytes(c.bytes), c.text) << c.bytes;
}

TEST(ExportRendererTest, EntriesFromLiveRecords) {
    ContainerInfo web{"id", {"/web"}, "nginx", "running", "Up", {}};
    web.ports = {{"0.0.0.0", 80, 8080, "tcp"}, {"::", 80, 8080, "tcp"}, {{}, 443, {}, "tcp"}};
    ContainerInfo old{"id2", {}, "redis", "exited", "Exited", {}};
    const auto runtime = runtimeEntry("Podman", {web, old}, 5);
    EXPECT_EQ(runtime, (RuntimeEntry{
                           "Podman",
                           1,
                           1,
                           5,
                           {{"web", "nginx", "running", {8080}}, {"id2", "redis", "exited", {}}}}));

    AgentStatus status;
    EXPECT_EQ(agentStatusText(status), "idle");
    status.isBusy = true;
    EXPECT_EQ(agentStatusText(status), "busy");
    status.runaway = RunawayReason{RunawayReason::Cpu{96.6}};
    EXPECT_EQ(agentStatusText(status), "runaway (CPU 97%)");
    status.runaway = RunawayReason{RunawayReason::Memory{5'200'000'000}};
    EXPECT_EQ(agentStatusText(status), "runaway (memory 5.2 GB)");
}

}  // namespace
}  // namespace wharfy
