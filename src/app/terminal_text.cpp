#include "app/terminal_text.h"

#include <algorithm>
#include <cstdio>

#include "common/text.h"

namespace wharfy::app {
namespace {

size_t displayWidth(std::string_view s) {
    size_t n = 0;
    for (unsigned char c : s)
        if ((c & 0xC0) != 0x80) ++n;
    return n;
}

constexpr char kHexDigits[] = "0123456789abcdef";

/// "\x1b" style: exactly two digits.
void appendByteEscape(std::string& out, unsigned char c) {
    out += "\\x";
    out += kHexDigits[c >> 4];
    out += kHexDigits[c & 0xF];
}

/// "\u{202e}" style: the code point without leading zeros.
void appendCodePointEscape(std::string& out, char32_t cp) {
    out += "\\u{";
    int shift = 20;
    while (shift > 0 && ((cp >> shift) & 0xF) == 0)
        shift -= 4;
    for (; shift >= 0; shift -= 4)
        out += kHexDigits[(cp >> shift) & 0xF];
    out += '}';
}

// C1 controls include CSI, which terminals honour like ESC [. The
// bidirectional controls reorder what follows them on screen, so a name can
// show text other than the bytes it holds.
bool mustEscape(char32_t cp) {
    return (cp >= 0x80 && cp <= 0x9F) || cp == 0x061C || cp == 0x200E || cp == 0x200F ||
           (cp >= 0x202A && cp <= 0x202E) || (cp >= 0x2066 && cp <= 0x2069);
}

/// Length of the UTF-8 sequence that starts with `lead`, which must be valid.
size_t sequenceLength(unsigned char lead) {
    if (lead < 0x80) return 1;
    if (lead < 0xE0) return 2;
    if (lead < 0xF0) return 3;
    return 4;
}

}  // namespace

std::string terminalSafe(std::string_view text) {
    const std::string repaired = wharfy::repairUtf8(text);
    std::string out;
    out.reserve(repaired.size());
    const auto* s = reinterpret_cast<const unsigned char*>(repaired.data());
    for (size_t i = 0; i < repaired.size();) {
        const unsigned char c = s[i];
        const size_t len = sequenceLength(c);
        if (len == 1) {
            if (c == '\\')
                out += "\\\\";
            else if (c == 0x1B)
                out += "\\e";
            else if (c == '\n')
                out += "\\n";
            else if (c == '\t')
                out += "\\t";
            else if (c == '\r')
                out += "\\r";
            else if (c < 0x20 || c == 0x7F)
                appendByteEscape(out, c);
            else
                out.push_back(static_cast<char>(c));
            ++i;
            continue;
        }
        // repairUtf8 leaves only complete, valid sequences.
        char32_t cp = c & (0xFF >> (len + 1));
        for (size_t k = 1; k < len; ++k)
            cp = (cp << 6) | (s[i + k] & 0x3F);
        if (mustEscape(cp))
            appendCodePointEscape(out, cp);
        else
            out.append(repaired, i, len);
        i += len;
    }
    return out;
}

std::string gigabytes(uint64_t bytes) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f GB", static_cast<double>(bytes) / 1e9);
    return buf;
}

std::string formatBytes(uint64_t bytes) {
    if (bytes >= 1'000'000'000) return gigabytes(bytes);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f MB", static_cast<double>(bytes) / 1e6);
    return buf;
}

TextTable::TextTable(std::vector<std::string> headers) : headers_(std::move(headers)) {}

void TextTable::add(std::vector<std::string> row) {
    row.resize(headers_.size());
    rows_.push_back(std::move(row));
}

std::string TextTable::render(std::string_view indent) const {
    std::vector<size_t> widths(headers_.size());
    for (size_t c = 0; c < headers_.size(); ++c)
        widths[c] = displayWidth(headers_[c]);
    for (const auto& row : rows_)
        for (size_t c = 0; c < row.size(); ++c)
            widths[c] = std::max(widths[c], displayWidth(row[c]));
    std::string out;
    auto line = [&](const std::vector<std::string>& cells) {
        std::string l;
        for (size_t c = 0; c < cells.size(); ++c) {
            l += cells[c];
            if (c + 1 < cells.size()) l.append(widths[c] - displayWidth(cells[c]) + 2, ' ');
        }
        while (!l.empty() && l.back() == ' ')
            l.pop_back();
        out += indent;
        out += l;
        out += '\n';
    };
    line(headers_);
    for (const auto& row : rows_)
        line(row);
    return out;
}

}  // namespace wharfy::app
