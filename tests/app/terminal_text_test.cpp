#include "app/terminal_text.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace wharfy::app {
namespace {

using namespace std::string_literals;

const std::string kReplacement = "\xEF\xBF\xBD";

TEST(TerminalSafe, EscapesControlsBidiAndInvalidBytes) {
    struct Case {
        const char* what;
        std::string in;
        std::string out;
    };
    const Case cases[] = {
        {"plain text passes", "web-1 :8080 caf\xC3\xA9 \xF0\x9F\x98\x80", ""},
        {"backslash is doubled", "a\\b", "a\\\\b"},
        {"C0 controls", "\x01\x1f"s + "a\0b"s, "\\x01\\x1fa\\x00b"},
        {"escape sequence", "\x1b[2J", "\\e[2J"},
        {"line breaks and tab", "a\nb\tc\r", "a\\nb\\tc\\r"},
        {"DEL", "\x7f", "\\x7f"},
        {"C1 CSI",
         "\xC2\x9B"
         "31m",
         "\\u{9b}31m"},
        {"C1 edges, NBSP stays", "\xC2\x80\xC2\x9F\xC2\xA0", "\\u{80}\\u{9f}\xC2\xA0"},
        {"arabic letter mark", "\xD8\x9C", "\\u{61c}"},
        {"LRM and RLM", "\xE2\x80\x8E\xE2\x80\x8F", "\\u{200e}\\u{200f}"},
        {"embeddings and overrides", "\xE2\x80\xAA\xE2\x80\xAB\xE2\x80\xAC\xE2\x80\xAD\xE2\x80\xAE",
         "\\u{202a}\\u{202b}\\u{202c}\\u{202d}\\u{202e}"},
        {"isolates", "\xE2\x81\xA6\xE2\x81\xA7\xE2\x81\xA8\xE2\x81\xA9",
         "\\u{2066}\\u{2067}\\u{2068}\\u{2069}"},
        {"neighbours of the bidi ranges stay",
         "\xD8\x9B\xE2\x80\x8D\xE2\x80\xA9\xE2\x80\xAF\xE2\x81\xA5\xE2\x81\xAA", ""},
        {"lone C1 byte",
         "\x9b"
         "31m",
         kReplacement + "31m"},
        {"overlong ESC is not ESC", "\xC0\x9B", kReplacement + kReplacement},
        {"truncated RLO", "\xE2\x80", kReplacement + kReplacement},
        {"surrogate", "\xED\xA0\x80", kReplacement + kReplacement + kReplacement},
    };
    for (const auto& c : cases)
        EXPECT_EQ(terminalSafe(c.in), c.out.empty() ? c.in : c.out) << c.what;
}

}  // namespace
}  // namespace wharfy::app
