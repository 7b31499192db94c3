#pragma once

#include <string>
#include <string_view>

namespace wharfy {

/// Bytes that are not valid UTF-8 replaced by U+FFFD, one per offending
/// byte, so that machine text always becomes valid UTF-8 and nothing is dropped.
std::string repairUtf8(std::string_view bytes);

}  // namespace wharfy
