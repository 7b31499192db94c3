// Text of the Linux process file system: /proc/PID/stat, status, statm, io,
// cmdline, descriptor links, /proc/stat and /proc/net/tcp{,6}. Every parser
// reads the same input, since the fuzzer cannot know which file it imitates.

#include <sys/socket.h>

#include <algorithm>

#include "common/text.h"
#include "fuzz_check.h"
#include "process/linux/proc_parse.h"

using namespace nemarro::process::linux;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto text = wharfy::fuzz::asText(data, size);

    const auto boot = parseBootTime(text);
    if (auto stat = parseStat(text)) {
        FUZZ_CHECK(wharfy::repairUtf8(stat->comm) == stat->comm);
        (void)startTimeMicros(boot.value_or(0), stat->startTicks, 100);
    }
    (void)parseStatusEffectiveUid(text);
    (void)parseStatm(text);
    (void)parseIo(text);
    if (parseSocketLink(text)) FUZZ_CHECK(text.starts_with("socket:[") && text.ends_with("]"));

    // One argument per NUL-terminated piece; a last piece without its NUL counts too.
    const auto cmdline = parseCmdline(text);
    const auto nuls = static_cast<size_t>(std::count(text.begin(), text.end(), '\0'));
    FUZZ_CHECK(cmdline.size() == nuls + (!text.empty() && text.back() != '\0' ? 1 : 0));
    if (!cmdline.empty()) {
        const std::string& comm = cmdline[0];
        auto piece = [&](size_t i) {
            return i < cmdline.size() ? std::optional<std::string>(cmdline[i]) : std::nullopt;
        };
        FUZZ_CHECK(fullName(comm, piece(1), piece(2)).starts_with(comm));
    }

    for (int family : {AF_INET, AF_INET6}) {
        for (const auto& l : parseProcNetTcp(text, family)) {
            FUZZ_CHECK(l.family == family);
            FUZZ_CHECK(!l.address.empty());
        }
    }
    return 0;
}
