// terminalSafe on any bytes: the output is valid UTF-8 without a raw C0, DEL,
// C1 or bidirectional control, and it is lossless: undoing the escapes gives
// back the input with invalid bytes repaired.

#include <optional>
#include <string>
#include <vector>

#include "app/terminal_text.h"
#include "common/text.h"
#include "fuzz_check.h"

namespace {

/// Code points of strictly valid UTF-8; absent for anything else.
std::optional<std::vector<char32_t>> decodeStrict(std::string_view s) {
    std::vector<char32_t> out;
    for (size_t i = 0; i < s.size();) {
        const auto c = static_cast<unsigned char>(s[i]);
        size_t len = 0;
        if (c < 0x80)
            len = 1;
        else if (c >= 0xC2 && c < 0xE0)
            len = 2;
        else if (c >= 0xE0 && c < 0xF0)
            len = 3;
        else if (c >= 0xF0 && c < 0xF5)
            len = 4;
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

void appendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

std::optional<unsigned> hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return std::nullopt;
}

/// The text the escapes stand for; absent when an escape is not one of
/// \\ \e \n \t \r \xHH \u{H...}.
std::optional<std::string> unescape(std::string_view s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '\\') {
            out += s[i];
            continue;
        }
        if (++i == s.size()) return std::nullopt;
        switch (s[i]) {
            case '\\':
                out += '\\';
                break;
            case 'e':
                out += '\x1b';
                break;
            case 'n':
                out += '\n';
                break;
            case 't':
                out += '\t';
                break;
            case 'r':
                out += '\r';
                break;
            case 'x': {
                if (i + 2 >= s.size()) return std::nullopt;
                auto hi = hexDigit(s[i + 1]), lo = hexDigit(s[i + 2]);
                if (!hi || !lo) return std::nullopt;
                out += static_cast<char>(*hi << 4 | *lo);
                i += 2;
                break;
            }
            case 'u': {
                if (i + 1 >= s.size() || s[i + 1] != '{') return std::nullopt;
                char32_t cp = 0;
                size_t j = i + 2;
                for (; j < s.size() && s[j] != '}' && j < i + 9; ++j) {
                    auto d = hexDigit(s[j]);
                    if (!d) return std::nullopt;
                    cp = cp << 4 | *d;
                }
                if (j >= s.size() || s[j] != '}' || j == i + 2) return std::nullopt;
                appendUtf8(out, cp);
                i = j;
                break;
            }
            default:
                return std::nullopt;
        }
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto text = wharfy::fuzz::asText(data, size);
    const std::string out = wharfy::app::terminalSafe(text);

    const auto decoded = decodeStrict(out);
    FUZZ_CHECK(decoded.has_value());
    for (char32_t cp : *decoded)
        FUZZ_CHECK(!isRawControl(cp));

    const auto original = unescape(out);
    FUZZ_CHECK(original.has_value());
    FUZZ_CHECK(*original == wharfy::repairUtf8(text));
    return 0;
}
