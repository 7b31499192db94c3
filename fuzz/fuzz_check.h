#pragma once

// Shared by the fuzz targets: an invariant check that holds in every build
// type (assert() is gone under NDEBUG), and ways to cut the input into pieces.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

/// Stops the run, which libFuzzer reports as a crash with the input saved.
#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "%s:%d: invariant broken: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                          \
        }                                                                                          \
    } while (0)

namespace wharfy::fuzz {

/// The input bytes as text.
inline std::string_view asText(const uint8_t* data, size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// The input cut at every `separator`; empty pieces are kept.
inline std::vector<std::string> split(std::string_view text, char separator) {
    std::vector<std::string> out;
    size_t start = 0;
    for (;;) {
        size_t end = text.find(separator, start);
        out.emplace_back(text.substr(start, end == std::string_view::npos ? end : end - start));
        if (end == std::string_view::npos) return out;
        start = end + 1;
    }
}

}  // namespace wharfy::fuzz
