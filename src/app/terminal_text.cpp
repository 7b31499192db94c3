#include "app/terminal_text.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>

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

std::string formatBytes(uint64_t bytes) {
    char buf[32];
    if (bytes < 1000) {
        std::snprintf(buf, sizeof buf, "%u B", static_cast<unsigned>(bytes));
        return buf;
    }
    static constexpr const char* kUnits[] = {"KB", "MB", "GB", "TB"};
    double value = static_cast<double>(bytes) / 1000.0;
    size_t unit = 0;
    // 999,960 bytes would print as "1000.0 KB": move up once the rounded
    // figure reaches 1000.
    while (value >= 999.95 && unit + 1 < std::size(kUnits)) {
        value /= 1000.0;
        ++unit;
    }
    std::snprintf(buf, sizeof buf, "%.1f %s", value, kUnits[unit]);
    return buf;
}

TextTable::TextTable(std::vector<std::string> headers)
    : headers_(std::move(headers)), minWidths_(headers_.size(), 0) {}

void TextTable::add(std::vector<std::string> row) {
    row.resize(headers_.size());
    rows_.push_back({std::move(row), {}});
}

void TextTable::addNote(std::string note) {
    if (!rows_.empty()) rows_.back().notes.push_back(std::move(note));
}

void TextTable::shrinkable(size_t column, size_t minWidth) {
    if (column < minWidths_.size()) minWidths_[column] = std::max<size_t>(minWidth, 1);
}

std::string TextTable::render(std::string_view indent, std::optional<size_t> width) const {
    std::vector<size_t> widths(headers_.size());
    for (size_t c = 0; c < headers_.size(); ++c)
        widths[c] = displayWidth(headers_[c]);
    for (const auto& row : rows_)
        for (size_t c = 0; c < row.cells.size(); ++c)
            widths[c] = std::max(widths[c], displayWidth(row.cells[c]));
    if (width) {
        size_t total = displayWidth(indent);
        for (size_t w : widths)
            total += w + 2;
        total -= widths.empty() ? 0 : 2;
        // Take one column at a time from the widest column that may shrink.
        while (total > *width) {
            size_t widest = widths.size();
            for (size_t c = 0; c < widths.size(); ++c)
                if (minWidths_[c] && widths[c] > minWidths_[c] &&
                    (widest == widths.size() || widths[c] > widths[widest]))
                    widest = c;
            if (widest == widths.size()) break;
            --widths[widest];
            --total;
        }
    }
    std::string out;
    auto line = [&](const std::vector<std::string>& cells) {
        std::string l;
        for (size_t c = 0; c < cells.size(); ++c) {
            const std::string cell = width ? fitWidth(cells[c], widths[c]) : cells[c];
            l += cell;
            if (c + 1 < cells.size()) l.append(widths[c] - displayWidth(cell) + 2, ' ');
        }
        while (!l.empty() && l.back() == ' ')
            l.pop_back();
        out += indent;
        out += l;
        out += '\n';
    };
    const std::string noteIndent(indent.size() + (widths.empty() ? 0 : widths[0] + 2), ' ');
    line(headers_);
    for (const auto& row : rows_) {
        line(row.cells);
        for (const auto& note : row.notes) {
            out += noteIndent;
            if (width && *width > noteIndent.size())
                out += fitWidth(note, *width - noteIndent.size());
            else
                out += note;
            out += '\n';
        }
    }
    return out;
}

std::string fitWidth(std::string_view text, size_t width) {
    if (displayWidth(text) <= width) return std::string(text);
    if (width == 0) return "";
    std::string out;
    size_t kept = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if ((c & 0xC0) != 0x80 && ++kept == width) break;
        out.push_back(text[i]);
    }
    return out + "\xE2\x80\xA6";
}

std::optional<size_t> outputWidth() {
    if (!::isatty(STDOUT_FILENO)) return std::nullopt;
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    if (const char* columns = std::getenv("COLUMNS")) {
        char* end = nullptr;
        const long n = std::strtol(columns, &end, 10);
        if (end != columns && *end == '\0' && n > 0 && n < 10000) return static_cast<size_t>(n);
    }
    return 80;
}

}  // namespace wharfy::app
