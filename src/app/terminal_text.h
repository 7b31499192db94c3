#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace wharfy::app {

/// Text from the machine made safe for a terminal: control characters,
/// escape sequences and invalid UTF-8 are shown as visible escapes (\e, \n,
/// \x7f, \u{9b}), never sent raw.
std::string terminalSafe(std::string_view text);

/// Columns of a plain-text table, widths fitted to the content. Cells must be
/// terminal-safe already; widths count UTF-8 code points.
class TextTable {
public:
    explicit TextTable(std::vector<std::string> headers);
    void add(std::vector<std::string> row);
    /// The table with a header line, columns separated by two blanks.
    std::string render() const;
    bool empty() const { return rows_.empty(); }

private:
    std::vector<std::string> headers_;
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace wharfy::app
