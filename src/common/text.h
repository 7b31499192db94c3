#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace wharfy {

/// Bytes that are not valid UTF-8 replaced by U+FFFD, one per offending
/// byte, so that machine text always becomes valid UTF-8 and nothing is dropped.
std::string repairUtf8(std::string_view bytes);

/// One step through UTF-8 text: the scalar at a position and how many bytes it took.
struct Utf8Step {
    char32_t scalar = 0;
    size_t length = 1;
    /// False for a byte that does not start a well-formed sequence (overlong
    /// forms, surrogates and values past U+10FFFF included); `length` is then 1
    /// and `scalar` is U+FFFD.
    bool valid = true;
};

/// The scalar starting at `pos` (which must be inside `text`).
Utf8Step utf8Step(std::string_view text, size_t pos);

/// Appends `scalar` encoded as UTF-8.
void appendUtf8(std::string& out, char32_t scalar);

/// Decodes one JSON string escape, `text` starting just after its backslash:
/// appends what it stands for (a "\u" escape as UTF-8, a surrogate pair
/// joined) and returns how many bytes it took. Absent for a malformed escape
/// or a lone surrogate.
std::optional<size_t> decodeJsonEscape(std::string_view text, std::string& out);

}  // namespace wharfy
