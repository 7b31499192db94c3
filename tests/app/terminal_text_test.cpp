#include "app/terminal_text.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>
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

/// Code points of strictly valid UTF-8; absent for anything else.
std::optional<std::vector<char32_t>> decodeStrict(const std::string& s) {
    std::vector<char32_t> out;
    for (size_t i = 0; i < s.size();) {
        const auto c = static_cast<unsigned char>(s[i]);
        const size_t len = c < 0x80                ? 1
                           : c >= 0xC2 && c < 0xE0 ? 2
                           : c >= 0xE0 && c < 0xF0 ? 3
                           : c >= 0xF0 && c < 0xF5 ? 4
                                                   : 0;
        if (len == 0 || i + len > s.size()) return std::nullopt;
        char32_t cp = len == 1 ? c : c & (0x7F >> len);
        for (size_t k = 1; k < len; ++k) {
            const auto b = static_cast<unsigned char>(s[i + k]);
            if ((b & 0xC0) != 0x80) return std::nullopt;
            cp = (cp << 6) | (b & 0x3F);
        }
        static constexpr char32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < kMin[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return std::nullopt;
        out.push_back(cp);
        i += len;
    }
    return out;
}

bool isRawControl(char32_t cp) {
    return cp < 0x20 || (cp >= 0x7F && cp <= 0x9F) || cp == 0x061C || cp == 0x200E ||
           cp == 0x200F || (cp >= 0x202A && cp <= 0x202E) || (cp >= 0x2066 && cp <= 0x2069);
}

TEST(TerminalSafe, LongRandomInputNeverYieldsARawControl) {
    // Random bytes mixed with fragments of controls, so that whole and broken
    // sequences meet at every kind of boundary.
    const std::vector<std::string> fragments{
        "\x1b[31m", "\xC2\x9B",        "\xE2\x80\xAE", "\xE2\x81\xA6", "\xD8\x9C", "\xC2",
        "\xE2\x80", "\xF0\x9F",        "\x7f",         "\\",           "\xC0\x9B", "\xED\xA0\x80",
        "\n",       "\xF4\x90\x80\x80"};
    std::mt19937 random(20240611);
    std::string input;
    while (input.size() < 200'000) {
        if (random() % 2)
            input += fragments[random() % fragments.size()];
        else
            input += static_cast<char>(random() % 256);
    }
    const std::string out = terminalSafe(input);
    auto decoded = decodeStrict(out);
    ASSERT_TRUE(decoded) << "output is not valid UTF-8";
    size_t raw = 0;
    for (char32_t cp : *decoded)
        raw += isRawControl(cp) ? 1 : 0;
    EXPECT_EQ(raw, 0u);
    EXPECT_GE(out.size(), input.size()) << "nothing may be dropped";
}

}  // namespace
}  // namespace wharfy::app
