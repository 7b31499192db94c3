#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace wharfy::app::tui {

/// Columns a code point takes on a terminal, as wcwidth counts them: 2 for
/// East Asian wide characters and emoji, 0 for combining marks and format
/// characters, -1 for control characters, 1 otherwise.
int codepointWidth(char32_t c);

/// Direction and layout controls (bidi embeddings, overrides, isolates and
/// marks) that could reorder a terminal line; never drawn.
bool isLayoutControl(char32_t c);

/// The next code point of `text` from `pos`, which moves past it. Invalid
/// bytes read as U+FFFD, one byte each.
char32_t nextCodepoint(std::string_view text, size_t& pos);

/// Display columns of UTF-8 text; control characters count as one (they are
/// drawn as a replacement mark).
int displayWidth(std::string_view text);

/// `text` cut to at most `width` columns, ending in "…" when it was cut. A
/// wide character that would straddle the edge is dropped whole.
std::string fitText(std::string_view text, int width);

/// `text` fitted to exactly `width` columns: cut as fitText, then padded
/// with blanks (on the left when `right`).
std::string padText(std::string_view text, int width, bool right = false);

}  // namespace wharfy::app::tui
