#include <cstdlib>
#include <fstream>
#include <string>

#include "app/diagnostics.h"

namespace wharfy::app {

std::optional<uint64_t> peakResidentBytes() {
    // VmHWM is the peak resident set, in kB.
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmHWM:")) return std::strtoull(line.c_str() + 6, nullptr, 10) * 1024;
    return std::nullopt;
}

}  // namespace wharfy::app
