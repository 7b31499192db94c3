#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace wharfy::app {

/// Text from the machine made safe for a terminal: control characters (C0,
/// DEL, C1), escape sequences and the Unicode bidirectional controls are shown
/// as visible escapes (\e, \n, \x7f, \u{9b}, \u{202e}), never sent raw.
/// Invalid UTF-8 becomes U+FFFD, so the result is always valid UTF-8.
std::string terminalSafe(std::string_view text);

/// Bytes as the user reads them: decimal gigabytes, "%.1f GB".
std::string gigabytes(uint64_t bytes);

/// Small sizes in decimal megabytes, large ones in gigabytes ("12.3 MB", "4.1 GB").
std::string formatBytes(uint64_t bytes);

/// Columns of a plain-text table, widths fitted to the content. Cells must be
/// terminal-safe already; widths count UTF-8 code points.
class TextTable {
  public:
    explicit TextTable(std::vector<std::string> headers);
    void add(std::vector<std::string> row);
    /// The table with a header line, columns separated by two blanks, each
    /// line starting with `indent`.
    std::string render(std::string_view indent = "") const;
    bool empty() const { return rows_.empty(); }

  private:
    std::vector<std::string> headers_;
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace wharfy::app
