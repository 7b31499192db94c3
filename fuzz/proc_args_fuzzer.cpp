// KERN_PROCARGS2 buffers: argc, executable path, padding, argv, environment.

#include <cstring>
#include <span>

#include "common/text.h"
#include "fuzz_check.h"
#include "process/process_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto args = nemarro::process::parseProcArgs(
        std::span<const std::byte>(reinterpret_cast<const std::byte*>(data), size));
    if (size < 4) {
        FUZZ_CHECK(!args);
        return 0;
    }
    FUZZ_CHECK(args.has_value());
    int32_t argc = 0;
    std::memcpy(&argc, data, 4);
    FUZZ_CHECK(args->size() <= static_cast<size_t>(argc < 0 ? 0 : argc));
    for (const auto& a : *args) {
        FUZZ_CHECK(a.find('\0') == std::string::npos);
        FUZZ_CHECK(wharfy::repairUtf8(a) == a);
    }
    return 0;
}
