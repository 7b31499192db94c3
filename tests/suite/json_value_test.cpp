#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "suite/json_value.h"
#include "suite_printers.h"

using namespace nemarro::suite;

namespace {

JSONValue object(JSONValue::Object members) {
    return JSONValue{std::move(members)};
}

TEST(JSONReader, ReadsExactlyOneStrictValue) {
    const double inf = std::numeric_limits<double>::infinity();
    struct Row {
        std::string text;
        std::optional<JSONValue> expected;
    };
    const std::vector<Row> rows = {
        {"1", JSONValue{int64_t{1}}},
        {"-0", JSONValue{int64_t{0}}},
        {"1.0", JSONValue{1.0}},
        {"1e2", JSONValue{100.0}},
        {"-9223372036854775808", JSONValue{std::numeric_limits<int64_t>::min()}},
        {"9223372036854775808", JSONValue{9223372036854775808.0}},
        {"1e400", JSONValue{inf}},
        {"-123.4e400", JSONValue{-inf}},
        {"1e-400", JSONValue{0.0}},
        {" \t\r\n[true,false,null] ", JSONValue{JSONValue::Array{true, false, nullptr}}},
        {"\xEF\xBB\xBF{}", object({})},
        {R"({"b":1,"a":{"c":[]}})",
         object({{"a", object({{"c", JSONValue{JSONValue::Array{}}}})}, {"b", int64_t{1}}})},
        {R"("\u00e9\ud83d\ude00\/\\\"\b\f\n\r\t\u0000")",
         JSONValue{std::string("é\xF0\x9F\x98\x80/\\\"\b\f\n\r\t") + '\0'}},
        {"\"\xC3\xA9\xF0\x9F\x98\x80\"", JSONValue{std::string("é\xF0\x9F\x98\x80")}},
        // Refused: each of these could be read differently by another app.
        {R"({"a":1,"a":1})", std::nullopt},
        {R"("\ud800")", std::nullopt},
        {R"("\udc00\ud800")", std::nullopt},
        {R"("\ud800\u0041")", std::nullopt},
        {"\"\xC0\x80\"", std::nullopt},          // overlong NUL
        {"\"\xED\xA0\x80\"", std::nullopt},      // encoded surrogate
        {"\"\xF4\x90\x80\x80\"", std::nullopt},  // past U+10FFFF
        {"\"\xFF\"", std::nullopt},
        {"\"\xE2\x82\"", std::nullopt},  // cut short
        {"\"a\tb\"", std::nullopt},
        {R"("\x")", std::nullopt},
        {R"("\u12")", std::nullopt},
        {"01", std::nullopt},
        {"1.", std::nullopt},
        {".5", std::nullopt},
        {"+1", std::nullopt},
        {"NaN", std::nullopt},
        {"Infinity", std::nullopt},
        {"[1,]", std::nullopt},
        {"{\"a\"}", std::nullopt},
        {"[1] [2]", std::nullopt},
        {"// note\n{}", std::nullopt},
        {"", std::nullopt},
    };
    for (const Row& row : rows)
        EXPECT_EQ(parseJSON(row.text), row.expected) << row.text;
}

TEST(JSONReader, LimitsNesting) {
    const auto nested = [](size_t depth) {
        return std::string(depth, '[') + std::string(depth, ']');
    };
    EXPECT_TRUE(parseJSON(nested(kMaxJSONDepth)));
    EXPECT_FALSE(parseJSON(nested(kMaxJSONDepth + 1)));
    EXPECT_FALSE(parseJSON(std::string(100000, '[')));
}

TEST(JSONWriter, IsCompactSortedByBytesAndLeavesSlashes) {
    const JSONValue value = object({
        {"z", int64_t{1}},
        {"Z", int64_t{2}},
        {"\xC3\xA9", int64_t{3}},
        {"a/b", JSONValue{std::string("c/d \"q\" \\ \x01\x1f\x7f\n\t é")}},
        {"n", JSONValue{JSONValue::Array{1.0, 0.5, 1e21, -2.0, int64_t{-7}, nullptr}}},
        {"inf", std::numeric_limits<double>::infinity()},
        {"bad", JSONValue{std::string("a\xFF")}},
    });
    EXPECT_EQ(writeJSON(value),
              R"({"Z":2,"a/b":"c/d \"q\" \\ \u0001\u001f)"
              "\x7f"
              R"(\n\t é","bad":"a�","inf":null,"n":[1.0,0.5,1e+21,-2.0,-7,null],"z":1,"é":3})");
}

TEST(JSONWriter, WhatItWritesReadsBackEqual) {
    const JSONValue value = object({
        {"numbers", JSONValue{JSONValue::Array{1.0, int64_t{1}, 0.1 + 0.2, -1e-300, 1e300,
                                               std::numeric_limits<int64_t>::max()}}},
        {"text", JSONValue{std::string("\xF0\x9F\x98\x80 \u2028 \"/\\")}},
        {"nested", object({{"", JSONValue{JSONValue::Array{object({}), false}}}})},
    });
    EXPECT_EQ(parseJSON(writeJSON(value)), value);
}

}  // namespace
