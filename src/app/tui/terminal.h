#pragma once

#include <vector>

#include "app/tui/keys.h"
#include "app/tui/screen.h"

namespace wharfy::app::tui {

/// The terminal the interface draws on: its size, the drawing of a screen
/// model, and the input events. Nothing else writes to the terminal while
/// one is open.
class Terminal {
  public:
    virtual ~Terminal() = default;

    virtual int cols() const = 0;
    virtual int rows() const = 0;
    /// Draws `screen`, touching only the cells that differ from the screen
    /// drawn before (everything after a resize).
    virtual void draw(const Screen& screen) = 0;
    /// The input events waiting now; never blocks.
    virtual std::vector<Key> read() = 0;
    /// Descriptors that become readable when `read` has something.
    virtual std::vector<int> descriptors() const = 0;
};

}  // namespace wharfy::app::tui
