#include <gtest/gtest.h>

#include "common/text.h"

namespace wharfy {
namespace {

TEST(RepairUtf8, ReplacesInvalidBytesAndKeepsValidText) {
    EXPECT_EQ(repairUtf8("plain"), "plain");
    EXPECT_EQ(repairUtf8("caf\xC3\xA9"), "caf\xC3\xA9");
    EXPECT_EQ(repairUtf8("\xF0\x9F\x90\xB3"), "\xF0\x9F\x90\xB3");
    EXPECT_EQ(repairUtf8("a\xFF"
                         "b"),
              "a\xEF\xBF\xBD"
              "b");
    EXPECT_EQ(repairUtf8("\xC3"), "\xEF\xBF\xBD");                                  // truncated
    EXPECT_EQ(repairUtf8("\xC0\xAF"), "\xEF\xBF\xBD\xEF\xBF\xBD");                  // overlong
    EXPECT_EQ(repairUtf8("\xED\xA0\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");  // surrogate
}

}  // namespace
}  // namespace wharfy
