#include "app/tui/screen.h"

#include <algorithm>

#include "app/tui/text_width.h"

namespace wharfy::app::tui {

Screen::Screen(int cols, int rows)
    : cols_(std::max(cols, 1)),
      rows_(std::max(rows, 1)),
      cells_(static_cast<size_t>(cols_) * static_cast<size_t>(rows_)) {}

void Screen::clearHalf(int x, int y) {
    if (x < 0 || x >= cols_) return;
    Cell& cell = cells_[index(x, y)];
    if (cell.isContinuation()) {
        cell.text = " ";
        if (x > 0) cells_[index(x - 1, y)].text = " ";
    } else if (x + 1 < cols_ && cells_[index(x + 1, y)].isContinuation()) {
        cells_[index(x + 1, y)].text = " ";
    }
}

int Screen::put(int x, int y, std::string_view text, Style style, int width) {
    if (y < 0 || y >= rows_ || x >= cols_) return 0;
    const int limit = std::min(width < 0 ? cols_ - x : width, cols_ - x);
    int used = 0;
    Cell* last = nullptr;
    for (size_t pos = 0; pos < text.size();) {
        const size_t start = pos;
        const char32_t c = nextCodepoint(text, pos);
        if (isLayoutControl(c)) continue;
        int w = codepointWidth(c);
        std::string glyph(text.substr(start, pos - start));
        if (w < 0 || (c == 0xFFFD && pos - start == 1)) {
            w = 1;
            glyph = "\xEF\xBF\xBD";
        }
        if (w == 0) {
            if (last) last->text += glyph;
            continue;
        }
        if (used + w > limit) {
            if (used < limit && x + used >= 0) {
                clearHalf(x + used, y);
                cells_[index(x + used, y)] = Cell{" ", style};
                ++used;
            }
            break;
        }
        const int cx = x + used;
        if (cx >= 0) {
            clearHalf(cx, y);
            if (w == 2) clearHalf(cx + 1, y);
            last = &cells_[index(cx, y)];
            *last = Cell{std::move(glyph), style};
            if (w == 2) cells_[index(cx + 1, y)] = Cell{"", style};
        }
        used += w;
    }
    return std::min(used, limit);
}

void Screen::fill(int x, int y, int width, Style style) {
    if (y < 0 || y >= rows_) return;
    const int end = std::min(cols_, x + width);
    for (int cx = std::max(0, x); cx < end; ++cx) {
        clearHalf(cx, y);
        cells_[index(cx, y)] = Cell{" ", style};
    }
}

void Screen::restyle(int x, int y, int width, Style style) {
    if (y < 0 || y >= rows_) return;
    const int end = std::min(cols_, x + width);
    for (int cx = std::max(0, x); cx < end; ++cx)
        cells_[index(cx, y)].style = style;
}

std::string Screen::line(int y) const {
    std::string out;
    for (int x = 0; x < cols_; ++x)
        out += cells_[index(x, y)].text;
    const auto end = out.find_last_not_of(' ');
    return end == std::string::npos ? std::string() : out.substr(0, end + 1);
}

std::string Screen::text() const {
    std::string out;
    for (int y = 0; y < rows_; ++y)
        out += line(y) + "\n";
    return out;
}

std::vector<std::pair<int, int>> changedCells(const Screen* before, const Screen& after) {
    const bool all = !before || before->cols() != after.cols() || before->rows() != after.rows();
    std::vector<std::pair<int, int>> cells;
    for (int y = 0; y < after.rows(); ++y)
        for (int x = 0; x < after.cols(); ++x) {
            const Cell& cell = after.at(x, y);
            if (cell.isContinuation() || (!all && cell == before->at(x, y))) continue;
            cells.emplace_back(x, y);
        }
    return cells;
}

}  // namespace wharfy::app::tui
