#include "core/ports/platform_words.h"

namespace wharfy {

const PlatformWords& platformWords() {
    static constexpr PlatformWords kLinux{"This computer only", "One network", "All networks",
                                          "Part of the operating system.", "on this computer"};
    return kLinux;
}

}  // namespace wharfy
