#include "app/tui/text_width.h"
#include "common/text.h"

#include <algorithm>
#include <array>

namespace wharfy::app::tui {
namespace {

struct Range {
    char32_t first;
    char32_t last;
};

// Combining marks (Mn, Me) of the scripts developers meet in names and
// paths, plus the zero-width format characters.
constexpr std::array kZeroWidth{
    Range{0x0300, 0x036F},   Range{0x0483, 0x0489},   Range{0x0591, 0x05BD}, Range{0x05BF, 0x05BF},
    Range{0x05C1, 0x05C2},   Range{0x05C4, 0x05C5},   Range{0x05C7, 0x05C7}, Range{0x0610, 0x061A},
    Range{0x061C, 0x061C},   Range{0x064B, 0x065F},   Range{0x0670, 0x0670}, Range{0x06D6, 0x06DC},
    Range{0x06DF, 0x06E4},   Range{0x06E7, 0x06E8},   Range{0x06EA, 0x06ED}, Range{0x0711, 0x0711},
    Range{0x0730, 0x074A},   Range{0x07A6, 0x07B0},   Range{0x0900, 0x0902}, Range{0x093A, 0x093A},
    Range{0x093C, 0x093C},   Range{0x0941, 0x0948},   Range{0x094D, 0x094D}, Range{0x0951, 0x0957},
    Range{0x0962, 0x0963},   Range{0x0E31, 0x0E31},   Range{0x0E34, 0x0E3A}, Range{0x0E47, 0x0E4E},
    Range{0x1160, 0x11FF},   Range{0x1AB0, 0x1AFF},   Range{0x1DC0, 0x1DFF}, Range{0x200B, 0x200F},
    Range{0x2028, 0x202E},   Range{0x2060, 0x206F},   Range{0x20D0, 0x20FF}, Range{0x302A, 0x302D},
    Range{0x3099, 0x309A},   Range{0xFE00, 0xFE0F},   Range{0xFE20, 0xFE2F}, Range{0xFEFF, 0xFEFF},
    Range{0x1F3FB, 0x1F3FF}, Range{0xE0000, 0xE0FFF},
};

// East Asian Wide and Fullwidth, and the emoji shown in emoji presentation.
constexpr std::array kWide{
    Range{0x1100, 0x115F},   Range{0x231A, 0x231B},   Range{0x2329, 0x232A},
    Range{0x23E9, 0x23EC},   Range{0x23F0, 0x23F0},   Range{0x23F3, 0x23F3},
    Range{0x25FD, 0x25FE},   Range{0x2614, 0x2615},   Range{0x2648, 0x2653},
    Range{0x267F, 0x267F},   Range{0x2693, 0x2693},   Range{0x26A1, 0x26A1},
    Range{0x26AA, 0x26AB},   Range{0x26BD, 0x26BE},   Range{0x26C4, 0x26C5},
    Range{0x26CE, 0x26CE},   Range{0x26D4, 0x26D4},   Range{0x26EA, 0x26EA},
    Range{0x26F2, 0x26F3},   Range{0x26F5, 0x26F5},   Range{0x26FA, 0x26FA},
    Range{0x26FD, 0x26FD},   Range{0x2705, 0x2705},   Range{0x270A, 0x270B},
    Range{0x2728, 0x2728},   Range{0x274C, 0x274C},   Range{0x274E, 0x274E},
    Range{0x2753, 0x2755},   Range{0x2757, 0x2757},   Range{0x2795, 0x2797},
    Range{0x27B0, 0x27B0},   Range{0x27BF, 0x27BF},   Range{0x2B1B, 0x2B1C},
    Range{0x2B50, 0x2B50},   Range{0x2B55, 0x2B55},   Range{0x2E80, 0x3029},
    Range{0x302E, 0x303E},   Range{0x3041, 0x3098},   Range{0x309B, 0xA4CF},
    Range{0xA960, 0xA97F},   Range{0xAC00, 0xD7A3},   Range{0xF900, 0xFAFF},
    Range{0xFE10, 0xFE19},   Range{0xFE30, 0xFE6F},   Range{0xFF00, 0xFF60},
    Range{0xFFE0, 0xFFE6},   Range{0x16FE0, 0x16FE4}, Range{0x17000, 0x18CFF},
    Range{0x1B000, 0x1B2FF}, Range{0x1F004, 0x1F004}, Range{0x1F0CF, 0x1F0CF},
    Range{0x1F18E, 0x1F18E}, Range{0x1F191, 0x1F19A}, Range{0x1F200, 0x1F202},
    Range{0x1F210, 0x1F23B}, Range{0x1F240, 0x1F248}, Range{0x1F250, 0x1F251},
    Range{0x1F260, 0x1F265}, Range{0x1F300, 0x1F320}, Range{0x1F32D, 0x1F335},
    Range{0x1F337, 0x1F37C}, Range{0x1F37E, 0x1F393}, Range{0x1F3A0, 0x1F3CA},
    Range{0x1F3CF, 0x1F3D3}, Range{0x1F3E0, 0x1F3F0}, Range{0x1F3F4, 0x1F3F4},
    Range{0x1F3F8, 0x1F3FA}, Range{0x1F400, 0x1F43E}, Range{0x1F440, 0x1F440},
    Range{0x1F442, 0x1F4FC}, Range{0x1F4FF, 0x1F53D}, Range{0x1F54B, 0x1F54E},
    Range{0x1F550, 0x1F567}, Range{0x1F57A, 0x1F57A}, Range{0x1F595, 0x1F596},
    Range{0x1F5A4, 0x1F5A4}, Range{0x1F5FB, 0x1F64F}, Range{0x1F680, 0x1F6C5},
    Range{0x1F6CC, 0x1F6CC}, Range{0x1F6D0, 0x1F6D2}, Range{0x1F6D5, 0x1F6D7},
    Range{0x1F6DC, 0x1F6DF}, Range{0x1F6EB, 0x1F6EC}, Range{0x1F6F4, 0x1F6FC},
    Range{0x1F7E0, 0x1F7EB}, Range{0x1F7F0, 0x1F7F0}, Range{0x1F90C, 0x1F93A},
    Range{0x1F93C, 0x1F945}, Range{0x1F947, 0x1F9FF}, Range{0x1FA70, 0x1FAFF},
    Range{0x20000, 0x2FFFD}, Range{0x30000, 0x3FFFD},
};

template <size_t N>
bool within(const std::array<Range, N>& ranges, char32_t c) {
    auto it = std::upper_bound(ranges.begin(), ranges.end(), c,
                               [](char32_t v, const Range& r) { return v < r.first; });
    return it != ranges.begin() && c <= (it - 1)->last;
}

}  // namespace

int codepointWidth(char32_t c) {
    if (c == 0) return 0;
    if (c < 0x20 || (c >= 0x7F && c < 0xA0)) return -1;
    if (c < 0x300) return 1;
    if (within(kZeroWidth, c)) return 0;
    if (within(kWide, c)) return 2;
    return 1;
}

bool isLayoutControl(char32_t c) {
    return c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) ||
           (c >= 0x2066 && c <= 0x2069);
}

char32_t nextCodepoint(std::string_view text, size_t& pos) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(pos);
    int extra = 0;
    char32_t c = 0;
    if (lead < 0x80) {
        ++pos;
        return lead;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
        extra = 1;
        c = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        extra = 2;
        c = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        extra = 3;
        c = lead & 0x07;
    } else {
        ++pos;
        return 0xFFFD;
    }
    if (pos + static_cast<size_t>(extra) >= text.size()) {
        ++pos;
        return 0xFFFD;
    }
    for (int i = 1; i <= extra; ++i) {
        const unsigned char b = byte(pos + static_cast<size_t>(i));
        if ((b & 0xC0) != 0x80) {
            ++pos;
            return 0xFFFD;
        }
        c = (c << 6) | (b & 0x3F);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not text.
    const char32_t least = extra == 1 ? 0x80 : extra == 2 ? 0x800 : 0x10000;
    if (c < least || (c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF) {
        ++pos;
        return 0xFFFD;
    }
    pos += static_cast<size_t>(extra) + 1;
    return c;
}

int displayWidth(std::string_view text) {
    int width = 0;
    for (size_t pos = 0; pos < text.size();) {
        const int w = codepointWidth(nextCodepoint(text, pos));
        width += w < 0 ? 1 : w;
    }
    return width;
}

std::string fitText(std::string_view text, int width) {
    if (width <= 0) return {};
    if (displayWidth(text) <= width) return std::string(text);
    // Room for the ellipsis.
    const int room = width - 1;
    std::string out;
    int used = 0;
    for (size_t pos = 0; pos < text.size();) {
        const size_t start = pos;
        const char32_t c = nextCodepoint(text, pos);
        int w = codepointWidth(c);
        if (w < 0) w = 1;
        if (used + w > room) break;
        used += w;
        if (c == 0xFFFD && pos - start == 1)
            appendUtf8(out, c);
        else
            out.append(text.substr(start, pos - start));
    }
    return out + "…";
}

std::string padText(std::string_view text, int width, bool right) {
    std::string fitted = fitText(text, width);
    const int gap = width - displayWidth(fitted);
    if (gap <= 0) return fitted;
    if (right) return std::string(static_cast<size_t>(gap), ' ') + fitted;
    return fitted + std::string(static_cast<size_t>(gap), ' ');
}

}  // namespace wharfy::app::tui
