#include "common/text.h"

#include <cstdint>

namespace wharfy {

std::string repairUtf8(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    for (size_t i = 0; i < bytes.size();) {
        const Utf8Step step = utf8Step(bytes, i);
        if (step.valid)
            out.append(bytes.substr(i, step.length));
        else
            out.append("\xEF\xBF\xBD");
        i += step.length;
    }
    return out;
}

Utf8Step utf8Step(std::string_view text, size_t pos) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char c = byte(pos);
    if (c < 0x80) return {c, 1, true};
    size_t length = 0;
    char32_t scalar = 0;
    char32_t minimum = 0;
    if (c >= 0xC2 && c <= 0xDF)
        length = 2, scalar = c & 0x1F, minimum = 0x80;
    else if (c >= 0xE0 && c <= 0xEF)
        length = 3, scalar = c & 0x0F, minimum = 0x800;
    else if (c >= 0xF0 && c <= 0xF4)
        length = 4, scalar = c & 0x07, minimum = 0x10000;
    const Utf8Step invalid{0xFFFD, 1, false};
    if (length == 0 || pos + length > text.size()) return invalid;
    for (size_t k = 1; k < length; ++k) {
        if ((byte(pos + k) & 0xC0) != 0x80) return invalid;
        scalar = (scalar << 6) | (byte(pos + k) & 0x3F);
    }
    if (scalar < minimum || scalar > 0x10FFFF || (scalar >= 0xD800 && scalar <= 0xDFFF))
        return invalid;
    return {scalar, length, true};
}

void appendUtf8(std::string& out, char32_t s) {
    if (s < 0x80) {
        out.push_back(static_cast<char>(s));
    } else if (s < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (s >> 6)));
        out.push_back(static_cast<char>(0x80 | (s & 0x3F)));
    } else if (s < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (s >> 12)));
        out.push_back(static_cast<char>(0x80 | ((s >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (s & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (s >> 18)));
        out.push_back(static_cast<char>(0x80 | ((s >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((s >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (s & 0x3F)));
    }
}

namespace {

std::optional<char32_t> hex4(std::string_view text, size_t pos) {
    if (pos + 4 > text.size()) return std::nullopt;
    char32_t value = 0;
    for (size_t k = pos; k < pos + 4; ++k) {
        const char c = text[k];
        value <<= 4;
        if (c >= '0' && c <= '9')
            value |= static_cast<char32_t>(c - '0');
        else if (c >= 'a' && c <= 'f')
            value |= static_cast<char32_t>(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F')
            value |= static_cast<char32_t>(c - 'A' + 10);
        else
            return std::nullopt;
    }
    return value;
}

}  // namespace

std::optional<size_t> decodeJsonEscape(std::string_view text, std::string& out) {
    if (text.empty()) return std::nullopt;
    const char c = text[0];
    switch (c) {
        case '"':
        case '\\':
        case '/':
            out.push_back(c);
            return 1;
        case 'b':
            out.push_back('\b');
            return 1;
        case 'f':
            out.push_back('\f');
            return 1;
        case 'n':
            out.push_back('\n');
            return 1;
        case 'r':
            out.push_back('\r');
            return 1;
        case 't':
            out.push_back('\t');
            return 1;
        case 'u':
            break;
        default:
            return std::nullopt;
    }
    auto unit = hex4(text, 1);
    if (!unit || (*unit >= 0xDC00 && *unit <= 0xDFFF)) return std::nullopt;
    if (*unit < 0xD800 || *unit > 0xDBFF) {
        appendUtf8(out, *unit);
        return 5;
    }
    if (text.substr(5, 2) != "\\u") return std::nullopt;
    auto low = hex4(text, 7);
    if (!low || *low < 0xDC00 || *low > 0xDFFF) return std::nullopt;
    appendUtf8(out, 0x10000 + ((*unit - 0xD800) << 10) + (*low - 0xDC00));
    return 11;
}

}  // namespace wharfy
