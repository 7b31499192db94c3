#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace nemarro::process {

/// The basic facts of one process.
struct BSDInfo {
    int32_t ppid = 0;
    /// Effective user id.
    uint32_t uid = 0;
    /// Microseconds since the epoch; with the pid it forms the ProcessIdentity.
    uint64_t startTime = 0;
    std::string name;
    /// Kernel process status; 5 is a zombie on every platform we support.
    uint32_t status = 0;

    static constexpr uint32_t kZombie = 5;
    bool isZombie() const { return status == kZombie; }

    bool operator==(const BSDInfo&) const = default;
};

/// Cumulative resource counters of one process, read at one moment.
struct Usage {
    /// Private resident memory in bytes.
    uint64_t footprint = 0;
    /// User plus system CPU time in TickClock ticks.
    uint64_t cpuTicks = 0;
    /// Bytes read from and written to storage; absent when the platform will not tell.
    std::optional<uint64_t> diskRead;
    std::optional<uint64_t> diskWritten;

    bool operator==(const Usage&) const = default;
};

/// One open descriptor of a process.
struct FileDescriptor {
    int32_t fd = 0;
    uint32_t type = 0;
    /// Kernel socket inode when `type` is kSocket, else 0.
    uint64_t socketInode = 0;

    static constexpr uint32_t kOther = 0;
    static constexpr uint32_t kSocket = 2;

    bool operator==(const FileDescriptor&) const = default;
};

/// The basic facts and the counters of one process, read together.
struct ProcessFacts {
    BSDInfo info;
    Usage usage;
    bool operator==(const ProcessFacts&) const = default;
};

/// One entry of the process table.
struct PidEntry {
    int32_t pid = 0;
    /// A mark of the entry: a pid given to a new process always shows a new
    /// serial. The same process may also show a new one now and then, so an
    /// unchanged serial means "seen before", a changed one only "read again".
    uint64_t serial = 0;

    bool operator==(const PidEntry&) const = default;
};

/// Stateless reads of the kernel's per-process information. Every read that
/// fails (process gone, another user's, no rights) is an absent value.
struct ProcessReader {
    /// Every pid >= 1, in kernel order.
    static std::vector<int32_t> allPIDs();
    /// allPIDs() with each entry's serial, in the same order and at the same
    /// cost, so a scan can skip processes it has already seen.
    static std::vector<PidEntry> pidEntries();
    static std::optional<BSDInfo> bsdInfo(int32_t pid);
    /// Only the start time (microseconds since the epoch): the cheapest read
    /// that tells a process from an earlier one with the same pid.
    static std::optional<uint64_t> startTime(int32_t pid);
    static std::optional<std::string> executablePath(int32_t pid);
    static std::optional<std::string> currentDirectory(int32_t pid);
    /// argv, argv[0] first, UTF-8 repaired.
    static std::optional<std::vector<std::string>> arguments(int32_t pid);
    /// The same read into a caller-owned buffer, so a scan allocates it once.
    static std::optional<std::vector<std::string>> arguments(int32_t pid,
                                                             std::vector<char>& buffer);
    static std::optional<Usage> usage(int32_t pid);
    /// usage(pid).footprint alone, without reading the other counters.
    static std::optional<uint64_t> footprint(int32_t pid);
    /// bsdInfo and usage in one read, for scans of the whole table.
    static std::optional<ProcessFacts> facts(int32_t pid);
    /// The descriptor table, in descriptor order.
    static std::optional<std::vector<FileDescriptor>> fileDescriptors(int32_t pid);
    /// The socket inode that descriptor `fd` of `pid` names now, if it is a socket.
    static std::optional<uint64_t> socketInode(int32_t pid, int32_t fd);
    /// The control groups the process belongs to, as the kernel lists them
    /// ("ID:CONTROLLERS:PATH" lines); absent where the platform has none.
    static std::optional<std::string> controlGroups(int32_t pid);
    /// The bytes a full argument read may need.
    static size_t argumentsBufferSize();
};

/// Decodes a macOS KERN_PROCARGS2 buffer (argc, executable path, padding,
/// argv strings, environment): absent below 4 bytes, empty for argc < 1 or a
/// buffer that ends before the first argument. The environment is never read.
std::optional<std::vector<std::string>> parseProcArgs(std::span<const std::byte> buffer);

}  // namespace nemarro::process
