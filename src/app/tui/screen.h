#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace wharfy::app::tui {

/// Colours the interface uses. Colour is always a second signal: every
/// coloured text also has an attribute or a word that says the same.
enum class Color : uint8_t { none, red, yellow, green, cyan };

/// How a cell is drawn.
struct Style {
    Color color = Color::none;
    bool bold = false;
    bool dim = false;
    bool reverse = false;
    bool underline = false;

    bool operator==(const Style&) const = default;
};

/// One column of the terminal: one character with its combining marks, or
/// nothing when it is the right half of a wide character.
struct Cell {
    std::string text = " ";
    Style style;

    bool operator==(const Cell&) const = default;
    bool isContinuation() const { return text.empty(); }
};

/// A grid of cells: what the terminal should show. Views draw into it; the
/// terminal backend draws it, and a snapshot writes it as text. Nothing that
/// reaches a cell is a control character.
class Screen {
  public:
    Screen(int cols, int rows);

    int cols() const { return cols_; }
    int rows() const { return rows_; }
    const Cell& at(int x, int y) const { return cells_[index(x, y)]; }

    /// Writes `text` from column `x` of row `y`, at most `width` columns (to
    /// the right edge when negative), clipped to the screen. A wide
    /// character that does not fit whole becomes a blank. Control characters
    /// show as U+FFFD; direction controls are dropped. Returns the columns used.
    int put(int x, int y, std::string_view text, Style style = {}, int width = -1);
    /// Blanks `width` columns from (x, y) in `style`.
    void fill(int x, int y, int width, Style style = {});
    /// Applies `style` to the cells of (x, y, width) and keeps their text.
    void restyle(int x, int y, int width, Style style);

    /// Row `y` as UTF-8 text, trailing blanks removed.
    std::string line(int y) const;
    /// Every row, each followed by a line feed.
    std::string text() const;

    bool operator==(const Screen&) const = default;

  private:
    size_t index(int x, int y) const {
        return static_cast<size_t>(y) * static_cast<size_t>(cols_) + static_cast<size_t>(x);
    }
    /// Repairs a wide character cut in half by a write next to it.
    void clearHalf(int x, int y);

    int cols_;
    int rows_;
    std::vector<Cell> cells_;
};

/// The cells of `after` to draw when the terminal shows `before` (every
/// cell when there is none or its size differs), row by row. The right
/// halves of wide characters are left out: drawing the left half draws them.
std::vector<std::pair<int, int>> changedCells(const Screen* before, const Screen& after);

}  // namespace wharfy::app::tui
