// The agent catalog on any executable path and argument list. The input is
// the path and the arguments separated by NUL bytes; an empty path stands
// for a path that could not be read.

#include "core/agents/agent_catalog.h"
#include "fuzz_check.h"

using wharfy::AgentCatalog;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto pieces = wharfy::fuzz::split(wharfy::fuzz::asText(data, size), '\0');
    std::optional<std::string> path;
    if (!pieces.front().empty()) path = pieces.front();
    const std::vector<std::string> arguments(pieces.begin() + 1, pieces.end());

    const AgentCatalog catalog("/home/dev");
    const auto match = catalog.match(path, arguments);

    // Reading the arguments on demand decides alike, reads them at most once,
    // and never where the catalog said they cannot matter.
    int reads = 0;
    const auto lazy = catalog.matchReading(path, [&] {
        ++reads;
        return arguments;
    });
    FUZZ_CHECK(lazy == match);
    FUZZ_CHECK(reads <= 1);
    if (!catalog.mayNeedArguments(path)) FUZZ_CHECK(reads == 0);

    if (match) {
        FUZZ_CHECK(path.has_value());
        // A version is one folder or file name of the install path.
        FUZZ_CHECK(!match->version || match->version->find('/') == std::string::npos);
    }
    return 0;
}
