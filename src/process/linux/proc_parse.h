#pragma once

// Pure parsers of the Linux process file system and socket-diagnostics
// replies. They never touch the machine, so they are tested on literal text.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "process/listening_sockets.h"

namespace nemarro::process::linux {

/// The fields of /proc/PID/stat this project uses.
struct StatFields {
    std::string comm;
    char state = '?';
    int32_t ppid = 0;
    uint64_t utime = 0;
    uint64_t stime = 0;
    /// Clock ticks after boot.
    uint64_t startTicks = 0;

    bool operator==(const StatFields&) const = default;
};

/// /proc/PID/stat. The command name may hold blanks and parentheses, so it is
/// taken between the first "(" and the last ")" and the numbered fields are
/// read only after that last ")".
std::optional<StatFields> parseStat(std::string_view text);

/// The effective uid: second field of the "Uid:" line of /proc/PID/status.
std::optional<uint32_t> parseStatusEffectiveUid(std::string_view text);

/// /proc/PID/statm: (resident pages, shared pages).
struct StatmFields {
    uint64_t resident = 0;
    uint64_t shared = 0;
    bool operator==(const StatmFields&) const = default;
};
std::optional<StatmFields> parseStatm(std::string_view text);

/// /proc/PID/io: storage bytes read and written.
struct IoFields {
    uint64_t readBytes = 0;
    uint64_t writeBytes = 0;
    bool operator==(const IoFields&) const = default;
};
std::optional<IoFields> parseIo(std::string_view text);

/// "btime" of /proc/stat: boot time in seconds since the epoch.
std::optional<uint64_t> parseBootTime(std::string_view text);

/// /proc/PID/cmdline split at NUL bytes, UTF-8 repaired; a trailing NUL ends the list.
std::vector<std::string> parseCmdline(std::string_view bytes);

/// The inode of a descriptor link text "socket:[12345]".
std::optional<uint64_t> parseSocketLink(std::string_view link);

/// Start time in microseconds since the epoch.
uint64_t startTimeMicros(uint64_t bootTimeSeconds, uint64_t startTicks, uint64_t ticksPerSecond);

/// The process name: the kernel's command name, or, when the kernel cut it at
/// 15 bytes, the basename of the executable or of argv[0] that begins with it.
std::string fullName(const std::string& comm, const std::optional<std::string>& executable,
                     const std::optional<std::string>& argv0);

/// Rows of /proc/net/tcp or /proc/net/tcp6 in the LISTEN state. Addresses are
/// kernel words printed in host byte order, so this reads them on the host that wrote them.
std::vector<KernelListener> parseProcNetTcp(std::string_view text, int32_t family);

/// Listeners in a NETLINK_SOCK_DIAG reply (inet_diag_msg records). Sets `done`
/// when the reply carries NLMSG_DONE or an error.
std::vector<KernelListener> parseSockDiag(std::span<const std::byte> reply, bool& done);

}  // namespace nemarro::process::linux
