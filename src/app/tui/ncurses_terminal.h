#pragma once

#include <memory>
#include <optional>
#include <string>

#include "app/tui/terminal.h"

namespace wharfy::app::tui {

/// The real terminal through ncursesw: the alternate screen, keys, the
/// mouse, focus reports and resizes. Opening it arms the restoring of the
/// terminal on every way out (a crash included); closing it restores.
class NcursesTerminal final : public Terminal {
  public:
    /// Opens the terminal on standard input and output; absent (with the
    /// reason in `error`) when it cannot be opened. `color` false keeps to
    /// text attributes.
    static std::unique_ptr<NcursesTerminal> open(bool color, std::string& error);
    ~NcursesTerminal() override;
    NcursesTerminal(const NcursesTerminal&) = delete;
    NcursesTerminal& operator=(const NcursesTerminal&) = delete;

    int cols() const override;
    int rows() const override;
    void draw(const Screen& screen) override;
    std::vector<Key> read() override;
    std::vector<int> descriptors() const override;

  private:
    NcursesTerminal() = default;
    void applySize();

    /// ncurses' SCREEN, kept opaque so that its macros stay out of this header.
    void* screen_ = nullptr;
    bool color_ = false;
    int resizeRead_ = -1;
    std::optional<Screen> drawn_;
};

}  // namespace wharfy::app::tui
