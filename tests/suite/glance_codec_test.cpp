#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "suite/glance_codec.h"
#include "suite_printers.h"

using namespace nemarro::suite;

namespace {

const std::string kMetrics =
    R"([{"id":"servers","label":"Servers","level":"ok","unit":"","value":12}])";

// Valid as it stands; every row below changes one thing in it.
const std::string kRecord =
    R"({"app":"wharfy","at":1767225600.25,"contract":1,"hosting":true,"level":"notice",)"
    R"("metrics":)" +
    kMetrics + R"(,"state":"running","ttl":30})";

GlanceRecord baseRecord() {
    GlanceRecord r;
    r.app = SuiteApp::wharfy;
    r.at = 1767225600.25;
    r.hosting = true;
    r.level = GlanceLevel::notice;
    r.ttl = 30;
    r.metrics = {{"servers", "Servers", 12.0, "", GlanceLevel::ok}};
    return r;
}

std::string replaced(const std::string& text, const std::string& from, const std::string& to) {
    auto at = text.find(from);
    if (at == std::string::npos) {
        ADD_FAILURE() << "no " << from << " in " << text;
        return text;
    }
    return text.substr(0, at) + to + text.substr(at + from.size());
}

std::string with(const std::string& from, const std::string& to) {
    return replaced(kRecord, from, to);
}

std::string withMetrics(const std::string& array) {
    return with(kMetrics, array);
}

// A metrics array of one metric: the base metric with one member replaced.
std::string withMetric(const std::string& from, const std::string& to) {
    return withMetrics(replaced(kMetrics, from, to));
}

std::string metric(const std::string& id, const std::string& more = R"("value":1)") {
    return R"({"id":")" + id + R"(","label":"L","level":"ok","unit":"",)" + more + "}";
}

GlanceReadResult invalid(const char* reason) {
    return GlanceInvalid{reason};
}

struct DecodeRow {
    const char* name;
    std::string bytes;
    GlanceReadResult expected;
    std::string fileName = "wharfy.json";
};

TEST(GlanceCodecDecode, FollowsTheRulesInOrder) {
    const auto changed = [](auto change) {
        GlanceRecord r = baseRecord();
        change(r);
        return r;
    };
    std::string emoji16, flags8, id24(24, 'a');
    for (int i = 0; i < 16; ++i)
        emoji16 += "\xF0\x9F\x98\x80";
    for (int i = 0; i < 8; ++i)
        flags8 += "\xF0\x9F\x87\xA9\xF0\x9F\x87\xAA";  // one flag: two scalars

    const std::vector<DecodeRow> rows = {
        {"the base record", kRecord, baseRecord()},
        {"unknown keys are ignored", with(R"("ttl":30)", R"("ttl":30,"extra":{"x":[1,null]})"),
         baseRecord()},
        {"not JSON", "{", invalid("JSON")},
        {"an array", "[1]", invalid("an object")},
        {"contract 2 skips everything else", R"({"contract":2,"app":7,"metrics":"x"})",
         GlanceSkipped{2}},
        {"contract just below 10^15 skips", R"({"contract":999999999999999})",
         GlanceSkipped{999999999999999}},
        {"contract 10^15 is no integer", R"({"contract":1e15})", invalid("contract: integer >= 1")},
        {"contract 1.0 is 1", with(R"("contract":1)", R"("contract":1.0)"), baseRecord()},
        {"contract true", with(R"("contract":1)", R"("contract":true)"),
         invalid("contract: integer >= 1")},
        {"contract 0", with(R"("contract":1)", R"("contract":0)"),
         invalid("contract: integer >= 1")},
        {"another app's file", kRecord, invalid("app equals file name"), "kobble.json"},
        {"unknown app", with(R"("wharfy")", R"("nemarro")"), invalid("app: catalog id")},
        {"app before hosting", with(R"("app":"wharfy")", R"("app":1)"), invalid("app: catalog id")},
        {"hosting 1", with(R"("hosting":true)", R"("hosting":1)"), invalid("hosting: boolean")},
        {"no hosting", with(R"("hosting":true,)", ""), invalid("hosting: boolean")},
        {"state word unknown", with(R"("running")", R"("paused")"), invalid("state")},
        {"no state", with(R"(,"state":"running")", ""), invalid("state")},
        {"at as text", with(R"(1767225600.25)", R"("now")"), invalid("at: required number")},
        {"at beyond a double", with(R"(1767225600.25)", "1e400"), invalid("at: required number")},
        {"ttl 2", with(R"("ttl":30)", R"("ttl":2)"), invalid("ttl: 3-60")},
        {"ttl 61", with(R"("ttl":30)", R"("ttl":61)"), invalid("ttl: 3-60")},
        {"ttl 3.0 is 3", with(R"("ttl":30)", R"("ttl":3.0)"), changed([](auto& r) { r.ttl = 3; })},
        {"ttl 3.5", with(R"("ttl":30)", R"("ttl":3.5)"), invalid("ttl: integer")},
        {"ttl fraction before a bad level",
         replaced(with(R"("ttl":30)", R"("ttl":3.5)"), R"("notice")", R"("bad")"),
         invalid("ttl: integer")},
        {"ttl beyond 64 bits", with(R"("ttl":30)", R"("ttl":1e300)"), invalid("ttl: 3-60")},
        {"metrics before the ttl's size",
         replaced(with(R"("ttl":30)", R"("ttl":1e300)"), R"("id":"servers",)", ""),
         invalid("metric id length")},
        {"level word unknown", with(R"("notice")", R"("warning")"), invalid("level")},
        {"no metrics", with(R"("metrics":)" + kMetrics + ",", ""), invalid("metrics: 0-4")},
        {"metrics not a list", withMetrics("{}"), invalid("metrics: 0-4")},
        {"five metrics",
         withMetrics("[" + metric("a") + "," + metric("b") + "," + metric("c") + "," + metric("d") +
                     "," + metric("e") + "]"),
         invalid("metrics: 0-4")},
        {"empty metrics", withMetrics("[]"), changed([](auto& r) { r.metrics.clear(); })},
        {"metric not an object", withMetrics("[1]"), invalid("metric: an object")},
        {"metric without label", withMetric(R"("label":"Servers",)", ""),
         invalid("label: 1-16 scalars")},
        {"metric without unit", withMetric(R"("unit":"",)", ""), invalid("unit: 0-6 scalars")},
        {"metric level unknown", withMetric(R"("level":"ok")", R"("level":"fine")"),
         invalid("level")},
        {"id checked before label", withMetric(R"("id":"servers","label":"Servers",)", ""),
         invalid("metric id length")},
        {"state word value", withMetric("12", R"("idle")"),
         changed([](auto& r) { r.metrics[0].value = StateWord::idle; })},
        {"value busy", withMetric("12", R"("busy")"), invalid("value: closed state-word list")},
        {"value true", withMetric("12", "true"), invalid("value: finite number")},
        {"no value", withMetric(R"(,"value":12)", ""), invalid("value: finite number")},
        {"value 12.345", withMetric("12", "12.345"), invalid("value: at most 2 decimals")},
        {"value 0.1 + 0.2", withMetric("12", "0.30000000000000004"),
         changed([](auto& r) { r.metrics[0].value = 0.1 + 0.2; })},
        {"metric id empty", withMetric(R"("servers")", R"("")"), invalid("metric id length")},
        {"metric id of 25", withMetric(R"("servers")", '"' + id24 + "b\""),
         invalid("metric id length")},
        {"metric id of 24", withMetric(R"("servers")", '"' + id24 + '"'),
         changed([&](auto& r) { r.metrics[0].id = id24; })},
        {"metric id CPU", withMetric(R"("servers")", R"("CPU")"), invalid("metric id charset")},
        {"metric id cpu_load", withMetric(R"("servers")", R"("cpu_load")"),
         invalid("metric id charset")},
        {"metric id counted in scalars", withMetric(R"("servers")", R"("ééééééééééééé")"),
         invalid("metric id charset")},
        {"metric ids repeat", withMetrics("[" + metric("cpu") + "," + metric("cpu") + "]"),
         invalid("metric ids unique")},
        {"a clash is reported before a later bad metric",
         withMetrics("[" + metric("cpu") + "," + metric("cpu") + "," + metric("CPU") + "]"),
         invalid("metric ids unique")},
        {"a bad metric is reported before its own clash",
         withMetrics("[" + metric("cpu") + "," + metric("cpu", R"("value":1.234)") + "]"),
         invalid("value: at most 2 decimals")},
        {"label empty", withMetric(R"("Servers")", R"("")"), invalid("label: 1-16 scalars")},
        {"label of 17", withMetric(R"("Servers")", R"("abcdefghijklmnopq")"),
         invalid("label: 1-16 scalars")},
        {"label of 16 emoji", withMetric(R"("Servers")", '"' + emoji16 + '"'),
         changed([&](auto& r) { r.metrics[0].label = emoji16; })},
        {"label of 8 flags", withMetric(R"("Servers")", '"' + flags8 + '"'),
         changed([&](auto& r) { r.metrics[0].label = flags8; })},
        {"label of 9 flags",
         withMetric(R"("Servers")", '"' + flags8 + "\xF0\x9F\x87\xA9\xF0\x9F\x87\xAA\""),
         invalid("label: 1-16 scalars")},
        {"label with a slash", withMetric(R"("Servers")", R"("a/b")"),
         invalid("label: no / or \\")},
        {"label with a backslash", withMetric(R"("Servers")", R"("a\\b")"),
         invalid("label: no / or \\")},
        {"label with U+202E", withMetric(R"("Servers")", R"("a\u202eb")"),
         invalid("label: no bidi formatting")},
        {"unit with a tab", withMetric(R"("unit":"")", R"("unit":"\t")"),
         invalid("unit: no control characters")},
        {"unit of 7", withMetric(R"("unit":"")", R"("unit":"abcdefg")"),
         invalid("unit: 0-6 scalars")},
    };
    for (const DecodeRow& row : rows)
        EXPECT_EQ(GlanceCodec::decode(row.bytes, row.fileName), row.expected) << row.name;
}

TEST(GlanceCodecDecode, SizeIsCheckedBeforeParsing) {
    std::string full = kRecord + std::string(2048 - kRecord.size(), ' ');
    ASSERT_EQ(full.size(), 2048u);
    EXPECT_EQ(GlanceCodec::decode(full, "wharfy.json"), GlanceReadResult{baseRecord()});
    EXPECT_EQ(GlanceCodec::decode(full + " ", "wharfy.json"), invalid("size: at most 2,048 bytes"));
    EXPECT_EQ(GlanceCodec::decode(std::string(2049, '{'), "wharfy.json"),
              invalid("size: at most 2,048 bytes"));
}

TEST(GlanceCodecText, WalksScalarsInOrderWithThreeTests) {
    struct Row {
        std::string text;
        std::optional<std::string> expected;
    };
    const std::vector<Row> rows = {
        {"", std::nullopt},
        {"a\t/", "unit: no control characters"},
        {"/\t", "unit: no / or \\"},
        {"\x7F", "unit: no control characters"},
        {"\xC2\x85", "unit: no control characters"},     // U+0085, a C1 control
        {"\xC2\xA0", std::nullopt},                      // no-break space
        {"\xE2\x80\x8D", std::nullopt},                  // zero-width joiner
        {"\xE2\x80\x8E\t", "unit: no bidi formatting"},  // U+200E first
        {"abcdef", std::nullopt},
        {"abcdefg", "unit: 0-6 scalars"},
        {"\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9", std::nullopt},  // 12 bytes, 6 scalars
    };
    for (const Row& row : rows)
        EXPECT_EQ(GlanceCodec::textProblem("unit", row.text, 0, 6), row.expected) << row.text;

    for (char32_t bidi : {0x061C, 0x200E, 0x200F, 0x202A, 0x202B, 0x202C, 0x202D, 0x202E, 0x2066,
                          0x2067, 0x2068, 0x2069}) {
        std::string text = "x";
        text += bidi < 0x800
                    ? std::string{char(0xC0 | (bidi >> 6)), char(0x80 | (bidi & 0x3F))}
                    : std::string{char(0xE0 | (bidi >> 12)), char(0x80 | ((bidi >> 6) & 0x3F)),
                                  char(0x80 | (bidi & 0x3F))};
        EXPECT_EQ(GlanceCodec::textProblem("label", text, 1, 16), "label: no bidi formatting")
            << std::hex << uint32_t(bidi);
    }
}

// The writer's rules, byte for byte: compact, keys sorted by bytes at every
// level, UTF-8 as it is, only '"', '\' and control characters escaped ("/"
// never), numbers rounded to two decimals and integral numbers without a
// fraction.
TEST(GlanceCodecEncode, WritesTheExactBytes) {
    EXPECT_EQ(GlanceCodec::encode(baseRecord()).value(), kRecord);

    GlanceRecord stopped;
    stopped.app = SuiteApp::kobble;
    stopped.state = GlanceState::stopped;
    stopped.at = 1767225600;
    stopped.ttl = 60;
    stopped.level = GlanceLevel::alert;
    stopped.metrics = {
        {"mode", "Mode \"x\" é", StateWord::idle, "°C", GlanceLevel::alert},
        {"load-1", "Load", 0.1 + 0.2, "%", GlanceLevel::notice},
    };
    EXPECT_EQ(GlanceCodec::encode(stopped).value(),
              R"({"app":"kobble","at":1767225600,"contract":1,"hosting":false,"level":"alert",)"
              R"("metrics":[{"id":"mode","label":"Mode \"x\" é","level":"alert","unit":"°C",)"
              R"("value":"idle"},{"id":"load-1","label":"Load","level":"notice","unit":"%",)"
              R"("value":0.3}],"state":"stopped","ttl":60})");
}

TEST(GlanceCodecEncode, RoundsNumbersToTwoDecimals) {
    struct Row {
        double value;
        const char* written;
    };
    const std::vector<Row> rows = {
        {12.34, "12.34"}, {12.3400000001, "12.34"},
        {-0.07, "-0.07"}, {2.5, "2.5"},
        {-0.0, "0"},      {123456789.12, "123456789.12"},
        {1e15, "1e+15"},  {999999999999999, "999999999999999"},
    };
    for (const Row& row : rows) {
        GlanceRecord r = baseRecord();
        r.metrics[0].value = row.value;
        EXPECT_EQ(GlanceCodec::encode(r).value(),
                  replaced(kRecord, R"("value":12)", std::string(R"("value":)") + row.written))
            << row.value;
    }
    // 2.005 * 100 is exactly 200.5 as a double: a third decimal, refused before rounding.
    GlanceRecord third = baseRecord();
    third.metrics[0].value = 2.005;
    EXPECT_EQ(GlanceCodec::encode(third).error().reason, "value: at most 2 decimals");
    EXPECT_EQ(GlanceCodec::roundedValue(2.005), 2.01);
    EXPECT_EQ(GlanceCodec::roundedValue(-2.005), -2.01);
}

TEST(GlanceCodecEncode, RefusesWhatTheReaderWouldRefuse) {
    struct Row {
        const char* name;
        void (*change)(GlanceRecord&);
        const char* reason;
    };
    const std::vector<Row> rows = {
        {"ttl 0", [](GlanceRecord& r) { r.ttl = 0; }, "ttl: 3-60"},
        {"contract 0", [](GlanceRecord& r) { r.contract = 0; }, "contract: integer >= 1"},
        {"at NaN", [](GlanceRecord& r) { r.at = std::nan(""); }, "at: required number"},
        {"five metrics", [](GlanceRecord& r) { r.metrics.resize(5, r.metrics[0]); },
         "metrics: 0-4"},
        {"value infinite", [](GlanceRecord& r) { r.metrics[0].value = INFINITY; },
         "value: finite number"},
        {"value too large for cents", [](GlanceRecord& r) { r.metrics[0].value = 1e307; },
         "value: at most 2 decimals"},
        {"label with a newline", [](GlanceRecord& r) { r.metrics[0].label = "a\nb"; },
         "label: no control characters"},
    };
    for (const Row& row : rows) {
        GlanceRecord r = baseRecord();
        row.change(r);
        EXPECT_EQ(GlanceCodec::encode(r).error().reason, row.reason) << row.name;
        EXPECT_EQ(GlanceCodec::problem(r), row.reason) << row.name;
    }
}

TEST(GlanceCodecEncode, RoundTrips) {
    std::vector<GlanceRecord> records(4, baseRecord());
    records[1].metrics.clear();
    records[1].hosting = false;
    records[2].app = SuiteApp::tessik;
    records[2].at = 1767225612.123456789;
    records[2].metrics = {{"a", "A", -1234.56, "ms", GlanceLevel::ok},
                          {"b", "\xF0\x9F\x98\x80", StateWord::none, "", GlanceLevel::alert},
                          {"c", "C \"q\"", 1e20, "", GlanceLevel::notice},
                          {"d", "D", 0.0, "", GlanceLevel::ok}};
    records[3].state = GlanceState::stopped;
    records[3].at = 0.5;
    for (const GlanceRecord& r : records) {
        auto bytes = GlanceCodec::encode(r);
        ASSERT_TRUE(bytes) << bytes.error().reason;
        EXPECT_EQ(GlanceCodec::decode(bytes.value(), glanceFileName(r.app)), GlanceReadResult{r});
    }
}

}  // namespace
