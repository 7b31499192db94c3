#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wharfy::app {

/// Text from the machine made safe for a terminal: control characters (C0,
/// DEL, C1), escape sequences and the Unicode bidirectional controls are shown
/// as visible escapes (\e, \n, \x7f, \u{9b}, \u{202e}), never sent raw.
/// Invalid UTF-8 becomes U+FFFD, so the result is always valid UTF-8.
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
    /// A line printed under the last row added, indented past the first column.
    void addNote(std::string note);
    /// Lets `column` be cut (with "…") down to `minWidth` when the table must fit.
    void shrinkable(size_t column, size_t minWidth);
    /// The table with a header line, columns separated by two blanks, each
    /// line starting with `indent`. With a `width`, shrinkable columns and
    /// notes are cut so that no line is longer; without one nothing is cut.
    std::string render(std::string_view indent = "",
                       std::optional<size_t> width = std::nullopt) const;
    bool empty() const { return rows_.empty(); }

  private:
    struct Row {
        std::vector<std::string> cells;
        std::vector<std::string> notes;
    };
    std::vector<std::string> headers_;
    std::vector<size_t> minWidths_;
    std::vector<Row> rows_;
};

/// `text` cut to at most `width` code points, ending in "…" when it was cut.
std::string fitWidth(std::string_view text, size_t width);

/// The width the one-shot report may use: the terminal's columns (its window
/// size, else $COLUMNS, else 80) when standard output is a terminal; absent
/// when it is not, so that nothing is cut for pipes and files.
std::optional<size_t> outputWidth();

}  // namespace wharfy::app
