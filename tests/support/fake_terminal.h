#pragma once

#include <optional>
#include <vector>

#include "app/tui/terminal.h"

namespace wharfy::testing {

/// A terminal of a fixed size that records what is drawn; input is given
/// to the interface directly.
class FakeTerminal final : public app::tui::Terminal {
  public:
    FakeTerminal(int cols, int rows) : cols_(cols), rows_(rows) {}

    int cols() const override { return cols_; }
    int rows() const override { return rows_; }
    void draw(const app::tui::Screen& screen) override {
        ++draws;
        last = screen;
    }
    std::vector<app::tui::Key> read() override { return {}; }
    std::vector<int> descriptors() const override { return {}; }

    /// The last screen as text; empty before the first draw.
    std::string text() const { return last ? last->text() : std::string(); }

    int draws = 0;
    std::optional<app::tui::Screen> last;

  private:
    int cols_;
    int rows_;
};

}  // namespace wharfy::testing
