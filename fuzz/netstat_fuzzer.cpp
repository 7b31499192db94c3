// The listener table as netstat prints it: any text, any line.

#include "core/ports/netstat_parser.h"
#include "fuzz_check.h"

using wharfy::NetstatParser;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto text = wharfy::fuzz::asText(data, size);

    for (const auto& l : NetstatParser::listeners(text)) {
        FUZZ_CHECK(!l.processName.empty());
        FUZZ_CHECK(l.processName.find('\n') == std::string::npos);
        FUZZ_CHECK(l.address.find(' ') == std::string::npos);
        (void)wharfy::addressClass(l.address);
    }

    // The address is everything before the last dot; the port what follows it.
    for (const auto& line : wharfy::fuzz::split(text, '\n')) {
        if (auto split = NetstatParser::splitAddress(line)) {
            const auto& [address, port] = *split;
            FUZZ_CHECK(line.size() > address.size() && line[address.size()] == '.');
            FUZZ_CHECK(line.compare(0, address.size(), address) == 0);
            FUZZ_CHECK(line.find('.', address.size() + 1) == std::string::npos);
        }
    }
    return 0;
}
