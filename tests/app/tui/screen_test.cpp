// The screen model: widths in display columns, clipping, and no control
// character ever reaching a cell.
#include <gtest/gtest.h>

#include "app/tui/screen.h"
#include "app/tui/text_width.h"

namespace wharfy::app::tui {
namespace {

TEST(TextWidth, CountsColumnsAsTerminalsDo) {
    struct Case {
        const char* text;
        int width;
    } cases[] = {
        {"node", 4},
        {"日本語", 6},              // East Asian wide
        {"e\xCC\x81t\xC3\xA9", 3},  // combining acute + precomposed é
        {"\xF0\x9F\x9A\x80go", 4},  // rocket emoji
        {"a\xE2\x80\xAE"
         "b",
         2},              // right-to-left override: no column
        {"\xFF\xFE", 2},  // invalid bytes: one replacement each
        {"\x1b[31m", 5},  // a control counts as its mark
    };
    for (const auto& c : cases)
        EXPECT_EQ(displayWidth(c.text), c.width) << c.text;
}

TEST(TextWidth, FitCutsByColumnsAndNeverSplitsAWideCharacter) {
    EXPECT_EQ(fitText("postgres", 8), "postgres");
    EXPECT_EQ(fitText("postgres", 5), "post…");
    EXPECT_EQ(fitText("日本語テキスト", 6), "日本…");  // 4 + 1, the next one would not fit
    EXPECT_EQ(displayWidth(fitText("日本語テキスト", 6)), 5);
    EXPECT_EQ(padText("42", 5, true), "   42");
}

TEST(Screen, WideCharactersTakeTwoCellsAndAreBlankedAtTheEdge) {
    Screen s(5, 1);
    EXPECT_EQ(s.put(0, 0, "日本語"), 5);
    EXPECT_EQ(s.at(0, 0).text, "日");
    EXPECT_TRUE(s.at(1, 0).isContinuation());
    EXPECT_EQ(s.at(4, 0).text, " ");  // 語 does not fit in the last column
    // Overwriting half of a wide character blanks the other half.
    s.put(1, 0, "x");
    EXPECT_EQ(s.line(0), " x本");
}

TEST(Screen, HostileTextNeverPutsAControlCharacterInACell) {
    Screen s(40, 1);
    s.put(0, 0,
          "evil\x1b]0;owned\x07\r\n\xC2\x9B"
          "2J\xE2\x80\xAEreversed\xCC\x81");
    for (int x = 0; x < s.cols(); ++x)
        for (unsigned char c : s.at(x, 0).text)
            EXPECT_FALSE(c < 0x20 || c == 0x7F) << "cell " << x;
    EXPECT_EQ(s.line(0).find("\xE2\x80\xAE"), std::string::npos);
}

TEST(Screen, OnlyChangedCellsAreRedrawn) {
    Screen before(10, 2), after(10, 2);
    before.put(0, 0, "ports 12");
    after.put(0, 0, "ports 13");
    EXPECT_EQ(changedCells(&before, after), (std::vector<std::pair<int, int>>{{7, 0}}));
    EXPECT_EQ(changedCells(&after, after).size(), 0u);
    Style bold;
    bold.bold = true;
    after.restyle(0, 1, 2, bold);
    EXPECT_EQ(changedCells(&before, after).size(), 3u);
    // A new size draws everything.
    EXPECT_EQ(changedCells(&before, Screen(4, 1)).size(), 4u);
}

}  // namespace
}  // namespace wharfy::app::tui
