#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "suite/suite_settings.h"
#include "suite_printers.h"

using namespace nemarro::suite;

namespace {

TEST(SuiteSettings, ReadsWellFormedKeysAndKeepsTheRest) {
    struct Row {
        const char* name;
        std::string text;
        SuiteSettings expected;
    };
    SuiteSettings full;
    full.menuBarValues = std::vector<MetricRef>{{SuiteApp::wharfy, "servers"}};
    full.floatingVisible = true;
    full.floatingExpanded = true;
    full.floatingTopLeft = ScreenPoint{1, 2.5};
    full.statusItemPosition = 3;
    full.unknown = {{"future", JSONValue::Object{{"x", int64_t{1}}}}};

    SuiteSettings threeNumbers;
    threeNumbers.unknown = {
        {"floatingTopLeft", JSONValue::Array{int64_t{1}, int64_t{2}, int64_t{3}}}};

    SuiteSettings filtered;
    filtered.menuBarValues = std::vector<MetricRef>{{SuiteApp::kobble, "cpu"}};

    SuiteSettings wrongForms;
    wrongForms.unknown = {{"menuBarValues", "x"},
                          {"floatingVisible", int64_t{1}},
                          {"statusItemPosition", "3"},
                          {"floatingTopLeft", JSONValue::Array{int64_t{1}, "2"}}};

    SuiteSettings nulls;
    nulls.unknown = {{"statusItemPosition", nullptr}};

    const std::vector<Row> rows = {
        {"empty", "", SuiteSettings{}},
        {"not JSON", "{", SuiteSettings{}},
        {"not an object", "[1]", SuiteSettings{}},
        {"every key",
         R"({"menuBarValues":[{"app":"wharfy","metric":"servers"}],"floatingVisible":true,)"
         R"("floatingExpanded":true,"floatingTopLeft":[1,2.5],"statusItemPosition":3,)"
         R"("future":{"x":1}})",
         full},
        {"a point of three numbers", R"({"floatingTopLeft":[1,2,3]})", threeNumbers},
        {"menu-bar entries that do not name a catalog app and a metric are dropped",
         R"({"menuBarValues":[{"app":"nemarro","metric":"x"},3,{"app":"wharfy"},)"
         R"({"app":"kobble","metric":"cpu","extra":1},{"app":"wharfy","metric":5}]})",
         filtered},
        {"known keys of the wrong form stay as they are",
         R"({"menuBarValues":"x","floatingVisible":1,"statusItemPosition":"3",)"
         R"("floatingTopLeft":[1,"2"]})",
         wrongForms},
        {"null is kept", R"({"statusItemPosition":null})", nulls},
    };
    for (const Row& row : rows)
        EXPECT_EQ(SuiteSettings::parse(row.text), row.expected) << row.name;
}

TEST(SuiteSettings, RewritesWithoutTouchingWhatItDoesNotUnderstand) {
    const std::string text =
        R"({"floatingTopLeft":[1,2,3],"floatingVisible":"yes","later":{"b":[1.0,2,"/"]},)"
        R"("statusItemPosition":4})";
    SuiteSettings settings = SuiteSettings::parse(text);
    EXPECT_EQ(settings.serialise(),
              R"({"floatingExpanded":false,"floatingTopLeft":[1,2,3],"floatingVisible":"yes",)"
              R"("later":{"b":[1.0,2,"/"]},"statusItemPosition":4.0})");
    EXPECT_EQ(SuiteSettings::parse(settings.serialise()), settings);

    settings.floatingTopLeft = ScreenPoint{5, -6.5};
    settings.floatingVisible = true;
    settings.menuBarValues = std::vector<MetricRef>{};
    EXPECT_EQ(settings.serialise(),
              R"({"floatingExpanded":false,"floatingTopLeft":[5.0,-6.5],"floatingVisible":true,)"
              R"("later":{"b":[1.0,2,"/"]},"menuBarValues":[],"statusItemPosition":4.0})");
    EXPECT_EQ(SuiteSettings{}.serialise(), R"({"floatingExpanded":false,"floatingVisible":false})");
}

}  // namespace
