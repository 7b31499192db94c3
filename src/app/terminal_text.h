#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace wharfy::app {

/// Text from the machine made safe for a terminal: control characters,
/// escape sequences and invalid UTF-8 are shown as visible escapes (\e, \n,
/// \x7f, \u{9b}), never sent raw.
std::string terminalSafe(std::string_view text);

/// Bytes as the user reads them, in the decimal unit that fits: "512 B",
/// "2.0 MB", "4.1 GB", "1.2 TB".
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
