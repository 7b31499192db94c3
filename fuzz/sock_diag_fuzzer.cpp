// Replies of the kernel's socket diagnostics (netlink inet_diag_msg records),
// as a broken or hostile source could shape them.

#include <sys/socket.h>

#include <span>

#include "fuzz_check.h"
#include "process/linux/proc_parse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    bool done = false;
    const auto listeners = nemarro::process::linux::parseSockDiag(
        std::span<const std::byte>(reinterpret_cast<const std::byte*>(data), size), done);
    for (const auto& l : listeners) {
        FUZZ_CHECK(l.family == AF_INET || l.family == AF_INET6);
        FUZZ_CHECK(!l.address.empty());
    }
    return 0;
}
