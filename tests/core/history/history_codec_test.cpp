#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "core/history/history_entry.h"
#include "core/history/history_store.h"
#include "history_test_support.h"

namespace wharfy {
namespace {

using testing::utc;

HistoryEntry sample() {
    return {utc("2026-03-07T14:05:09Z") + 0.7,
            {{3000, "node", "All networks", "shop"}, {5432, "postgres", "This computer only", {}}},
            {{"Claude Code", "shop", 12.5, 5'200'000'000}, {"Aider", {}, {}, 1000}}};
}

TEST(HistoryCodecTest, EncodesOneCompactLineWithSortedKeysAndWholeSeconds) {
    EXPECT_EQ(
        HistoryCodec::encode(sample()),
        R"({"ports":[{"exposure":"All networks","port":3000,"process":"node","project":"shop"},)"
        R"({"exposure":"This computer only","port":5432,"process":"postgres"}],)"
        R"("sessions":[{"cpuPercent":12.5,"memoryBytes":5200000000,"project":"shop","tool":"Claude Code"},)"
        R"({"memoryBytes":1000,"tool":"Aider"}],"time":"2026-03-07T14:05:09Z"})"
        "\n");
}

TEST(HistoryCodecTest, MachineTextRoundTripsAsValidUtf8) {
    HistoryEntry entry{utc("2026-03-07T00:00:00Z"),
                       {{80, "a\"b\\c\n\x1b[31m\xF0\x9F\x90\xB3", "All networks", {}},
                        {81, "bad\xFF\xC0", "One network", {}}},
                       {}};
    const std::string line = HistoryCodec::encode(entry);
    EXPECT_EQ(line.find('\x1b'), std::string::npos);
    auto back = HistoryCodec::decode(std::string_view(line).substr(0, line.size() - 1));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->ports[0], entry.ports[0]);
    EXPECT_EQ(back->ports[1].process, "bad\xEF\xBF\xBD\xEF\xBF\xBD") << "repaired, not dropped";
}

TEST(HistoryCodecTest, DecodesOnlyWholeWellFormedEntries) {
    const std::string good =
        R"({"ports":[{"exposure":"All networks","port":3000,"process":"node"}],"sessions":[],"time":"2026-03-07T14:05:09Z"})";
    struct Case {
        std::string line;
        bool decodes;
    };
    const Case cases[] = {
        {good, true},
        {" " + good + " \r", true},
        {R"({"time":"2026-03-07T14:05:09Z","extra":{"a":[1,true,null]},"sessions":[{"tool":"Codex","project":null,"cpuPercent":1e1,"memoryBytes":-1}],"ports":[]})",
         true},
        {R"({"ports":[],"sessions":[],"time":"2026-03-07T14:05:09Z","k":"\ud83d\udc33"})", true},
        {good.substr(0, good.size() - 1), false},  // truncated
        {good.substr(0, 40), false},
        {good + "x", false},
        {R"({"ports":[],"sessions":[]})", false},  // no time
        {R"({"ports":[],"sessions":[],"time":"2026-03-07T14:05:09.5Z"})", false},
        {R"({"ports":[],"sessions":[],"time":"2026-03-07T14:05:09+01:00"})", false},
        {R"({"ports":[],"sessions":[],"time":"2026-02-30T14:05:09Z"})", false},
        {R"({"ports":[{"exposure":"x","port":70000,"process":"p"}],"sessions":[],"time":"2026-03-07T14:05:09Z"})",
         false},
        {R"({"ports":[{"exposure":"x","port":1.5,"process":"p"}],"sessions":[],"time":"2026-03-07T14:05:09Z"})",
         false},
        {R"({"ports":[{"port":1,"process":"p"}],"sessions":[],"time":"2026-03-07T14:05:09Z"})",
         false},
        {R"({"ports":[],"sessions":[{"tool":"Codex"}],"time":"2026-03-07T14:05:09Z"})", false},
        {"{\"ports\":[],\"sessions\":[],\"time\":\"2026-03-07T14:05:09Z\",\"k\":\"\xFF\"}", false},
        {R"({"ports":[],"sessions":[],"time":"2026-03-07T14:05:09Z","k":"\ud83d"})", false},
        {R"({"ports":[],"sessions":[],"time":"2026-03-07T14:05:09Z","k":01})", false},
        {"[]", false},
        {"", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(HistoryCodec::decode(c.line).has_value(), c.decodes) << c.line;
}

TEST(HistoryCodecTest, LineDecoderReusesRepeatedPortsButNotAcrossABadLine) {
    auto line = [](const char* ports, const char* time) {
        return std::string(R"({"ports":)") + ports + R"(,"sessions":[],"time":")" + time + "\"}";
    };
    const char* a = R"([{"exposure":"e","port":1,"process":"a"}])";
    const char* b =
        R"([{"exposure":"e","port":2,"process":"b"},{"exposure":"e","port":3,"process":"c"}])";
    HistoryLineDecoder decoder;
    HistoryEntry entry;
    ASSERT_TRUE(decoder.decode(line(a, "2026-03-07T00:00:00Z"), entry));
    ASSERT_TRUE(decoder.decode(line(a, "2026-03-07T00:05:00Z"), entry));
    EXPECT_EQ(entry, *HistoryCodec::decode(line(a, "2026-03-07T00:05:00Z")));
    ASSERT_TRUE(decoder.decode(line(b, "2026-03-07T00:10:00Z"), entry));
    EXPECT_EQ(entry, *HistoryCodec::decode(line(b, "2026-03-07T00:10:00Z")));
    ASSERT_FALSE(decoder.decode(line(a, "bad"), entry));  // decoded a's ports, then failed
    ASSERT_TRUE(decoder.decode(line(b, "2026-03-07T00:15:00Z"), entry));
    EXPECT_EQ(entry.ports.size(), 2u);
}

TEST(HistoryCodecTest, InternetDates) {
    struct Case {
        double time;
        const char* text;
    };
    const Case cases[] = {{0, "1970-01-01T00:00:00Z"},
                          {-0.5, "1969-12-31T23:59:59Z"},
                          {951782400, "2000-02-29T00:00:00Z"},
                          {1772892309.999, "2026-03-07T14:05:09Z"}};
    for (const auto& c : cases) {
        EXPECT_EQ(internetDate(c.time), c.text);
        EXPECT_EQ(parseInternetDate(c.text), std::floor(c.time)) << c.text;
    }
    for (const char* bad : {"2026-03-07 14:05:09Z", "2026-03-07T24:00:00Z", "2026-13-01T00:00:00Z",
                            "2026-03-07T14:05:60Z", "2026-03-07T14:05:09z", "+026-03-07T14:05:09Z"})
        EXPECT_FALSE(parseInternetDate(bad)) << bad;
}

TEST(HistoryCodecTest, FolderFollowsXdgStateHomeOnlyWhenAbsolute) {
    struct Case {
        std::optional<std::string> xdg;
        const char* folder;
    };
    const Case cases[] = {
        {"/var/state", "/var/state/wharfy/history"},
        {"/var/state//", "/var/state/wharfy/history"},
        {"relative/state", "/home/u/.local/state/wharfy/history"},
        {"", "/home/u/.local/state/wharfy/history"},
        {std::nullopt, "/home/u/.local/state/wharfy/history"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(historyDirectory(c.xdg, "/home/u"), c.folder) << c.xdg.value_or("(unset)");
}

TEST(HistoryCodecTest, EntryFromLiveRows) {
    PortRow shop;
    shop.port = 3000;
    shop.processName = "node";
    shop.addressClass = AddressClass::allNetworks;
    shop.project = ProjectInfo{"~/src/shop", true};
    PortRow db;
    db.port = 5432;
    db.processName = "postgres";
    db.addressClass = AddressClass::oneNetwork;
    AgentSession measured;
    measured.root.identity = {10, 1};
    measured.project = ProjectInfo{"~/src/shop", true};
    measured.footprint = std::numeric_limits<uint64_t>::max();
    AgentSession unmeasured = measured;
    unmeasured.tool = AgentTool::geminiCLI;
    unmeasured.root.identity = {11, 1};
    unmeasured.project.reset();
    unmeasured.footprint = 7;
    const std::map<std::string, AgentStatus> statuses{{"10@1", AgentStatus{42.0, {}, true, {}}},
                                                      {"11@1", AgentStatus{}}};

    const auto entry = HistoryEntry::from(5, {shop, db}, {measured, unmeasured}, statuses);
    const std::vector<HistoryPort> ports{{3000, "node", "All networks", "shop"},
                                         {5432, "postgres", "One network", {}}};
    const std::vector<HistorySession> sessions{
        {"Claude Code", "shop", 42.0, std::numeric_limits<int64_t>::max()},
        {"Gemini CLI", {}, {}, 7}};
    EXPECT_EQ(entry, (HistoryEntry{5, ports, sessions}));
}

}  // namespace
}  // namespace wharfy
