#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#include "common/text.h"
#include "process/linux/proc_parse.h"
#include "process/linux/procfs.h"
#include "process/process_reader.h"
#include "process/process_sampler.h"
#include "process/tick_clock.h"

namespace nemarro::process {
namespace {

using namespace nemarro::process::linux;

constexpr size_t kSmallFile = 1024;

struct PidPath {
    char text[64];
    PidPath(int32_t pid, const char* leaf) { std::snprintf(text, sizeof text, "%d/%s", pid, leaf); }
    PidPath(int32_t pid, const char* leaf, int32_t fd) {
        std::snprintf(text, sizeof text, "%d/%s/%d", pid, leaf, fd);
    }
};

std::optional<StatFields> readStat(int32_t pid) {
    char buf[kSmallFile];
    auto text = readSmall(PidPath(pid, "stat").text, buf, sizeof buf);
    if (!text) return std::nullopt;
    return parseStat(*text);
}

// The owner of /proc/PID is the task's effective uid: the kernel keeps it so
// for the per-process directory even for non-dumpable tasks, and a stat is
// much cheaper than formatting /proc/PID/status.
std::optional<uint32_t> effectiveUid(int32_t pid) {
    char name[16];
    std::snprintf(name, sizeof name, "%d", pid);
    struct stat st {};
    if (::fstatat(procDir(), name, &st, 0) != 0) return std::nullopt;
    return st.st_uid;
}

uint32_t statusOf(char state) {
    switch (state) {
        case 'R':
            return 2;
        case 'T':
        case 't':
            return 4;
        case 'Z':
        case 'X':
            return BSDInfo::kZombie;
        default:
            return 3;
    }
}

std::optional<int32_t> numericName(const char* s) {
    if (*s == '\0') return std::nullopt;
    int64_t v = 0;
    for (; *s; ++s) {
        if (*s < '0' || *s > '9') return std::nullopt;
        v = v * 10 + (*s - '0');
        if (v > INT32_MAX) return std::nullopt;
    }
    return static_cast<int32_t>(v);
}

struct Dirent64 {
    uint64_t ino;
    int64_t off;
    unsigned short reclen;
    unsigned char type;
    char name[1];
};

// Calls fn(name, inode) for every entry of the open directory; getdents64
// directly, because readdir allocates and this runs for every process on
// every refresh.
template <typename Fn>
bool forEachEntry(int dirfd, Fn&& fn) {
    alignas(8) char buf[16384];
    for (;;) {
        long n = ::syscall(SYS_getdents64, dirfd, buf, sizeof buf);
        if (n < 0) return false;
        if (n == 0) return true;
        for (long off = 0; off < n;) {
            auto* d = reinterpret_cast<Dirent64*>(buf + off);
            fn(static_cast<const char*>(d->name), d->ino);
            off += d->reclen;
        }
    }
}

std::string stripDeleted(std::string path) {
    constexpr std::string_view suffix = " (deleted)";
    if (path.ends_with(suffix)) path.resize(path.size() - suffix.size());
    return path;
}

}  // namespace

TickClock TickClock::current() {
    static const TickClock clock{1'000'000'000ULL / ticksPerSecond(), 1};
    return clock;
}

std::vector<int32_t> ProcessReader::allPIDs() {
    std::vector<int32_t> pids;
    for (const auto& entry : pidEntries())
        pids.push_back(entry.pid);
    return pids;
}

// The serial is the inode number of /proc/PID. The kernel makes a new inode
// for the directory of every new process, and the number comes from a
// counter, so a reused pid never shows its predecessor's number. The same
// process keeps its number while the entry stays cached, and gets a new one
// only when memory pressure drops it: a false "changed", which costs a read.
std::vector<PidEntry> ProcessReader::pidEntries() {
    std::vector<PidEntry> entries;
    int fd = ::openat(procDir(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return entries;
    entries.reserve(512);
    forEachEntry(fd, [&](const char* name, uint64_t inode) {
        if (auto pid = numericName(name); pid && *pid >= 1) entries.push_back({*pid, inode});
    });
    ::close(fd);
    return entries;
}

namespace {

std::optional<BSDInfo> infoFrom(int32_t pid, StatFields&& stat) {
    auto uid = effectiveUid(pid);
    if (!uid) return std::nullopt;
    BSDInfo info;
    info.ppid = stat.ppid;
    info.uid = *uid;
    info.startTime = startTimeMicros(bootTime(), stat.startTicks, ticksPerSecond());
    info.status = statusOf(stat.state);
    if (stat.comm.size() == 15) {
        std::optional<std::string> argv0;
        auto exe = ProcessReader::executablePath(pid);
        if (!exe || fullName(stat.comm, exe, std::nullopt) == stat.comm) {
            auto args = ProcessReader::arguments(pid);
            if (args && !args->empty()) argv0 = (*args)[0];
        }
        info.name = fullName(stat.comm, exe, argv0);
    } else {
        info.name = std::move(stat.comm);
    }
    return info;
}

std::optional<uint64_t> footprintOf(int32_t pid) {
    char buf[kSmallFile];
    auto statmText = readSmall(PidPath(pid, "statm").text, buf, sizeof buf);
    if (!statmText) return std::nullopt;
    auto statm = parseStatm(*statmText);
    if (!statm) return std::nullopt;
    static const uint64_t pageSize = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
    return (statm->resident > statm->shared ? statm->resident - statm->shared : 0) * pageSize;
}

std::optional<Usage> usageFrom(int32_t pid, const StatFields& stat) {
    auto footprint = footprintOf(pid);
    if (!footprint) return std::nullopt;
    Usage u;
    u.footprint = *footprint;
    u.cpuTicks = stat.utime + stat.stime;
    char buf[kSmallFile];
    if (auto ioText = readSmall(PidPath(pid, "io").text, buf, sizeof buf)) {
        if (auto io = parseIo(*ioText)) {
            u.diskRead = io->readBytes;
            u.diskWritten = io->writeBytes;
        }
    }
    return u;
}

}  // namespace

std::optional<BSDInfo> ProcessReader::bsdInfo(int32_t pid) {
    if (pid < 1) return std::nullopt;
    auto stat = readStat(pid);
    if (!stat) return std::nullopt;
    return infoFrom(pid, std::move(*stat));
}

std::optional<uint64_t> ProcessReader::startTime(int32_t pid) {
    if (pid < 1) return std::nullopt;
    auto stat = readStat(pid);
    if (!stat) return std::nullopt;
    return startTimeMicros(bootTime(), stat->startTicks, ticksPerSecond());
}

std::optional<ProcessFacts> ProcessReader::facts(int32_t pid) {
    if (pid < 1) return std::nullopt;
    auto stat = readStat(pid);
    if (!stat) return std::nullopt;
    auto usage = usageFrom(pid, *stat);
    if (!usage) return std::nullopt;
    auto info = infoFrom(pid, std::move(*stat));
    if (!info) return std::nullopt;
    return ProcessFacts{std::move(*info), *usage};
}

std::optional<std::string> ProcessReader::executablePath(int32_t pid) {
    auto link = readLink(PidPath(pid, "exe").text);
    if (!link) return std::nullopt;
    return wharfy::repairUtf8(stripDeleted(std::move(*link)));
}

std::optional<std::string> ProcessReader::currentDirectory(int32_t pid) {
    auto link = readLink(PidPath(pid, "cwd").text);
    if (!link || link->empty()) return std::nullopt;
    return wharfy::repairUtf8(stripDeleted(std::move(*link)));
}

std::optional<std::string> ProcessReader::controlGroups(int32_t pid) {
    if (pid < 1) return std::nullopt;
    // One line per hierarchy, each path at most a few hundred bytes in
    // practice; a file that fills the buffer may be cut, so it is refused.
    char buf[16384];
    auto text = readSmall(PidPath(pid, "cgroup").text, buf, sizeof buf);
    if (!text || text->size() == sizeof buf) return std::nullopt;
    return std::string(*text);
}

size_t ProcessReader::argumentsBufferSize() {
    static const size_t size = [] {
        long max = ::sysconf(_SC_ARG_MAX);
        return max > 0 ? static_cast<size_t>(max) : size_t{0x100000};
    }();
    return size;
}

std::optional<std::vector<std::string>> ProcessReader::arguments(int32_t pid) {
    std::string bytes;
    if (!readAll(PidPath(pid, "cmdline").text, bytes)) return std::nullopt;
    return parseCmdline(bytes);
}

std::optional<std::vector<std::string>> ProcessReader::arguments(int32_t pid,
                                                                 std::vector<char>& buffer) {
    // /proc/PID/cmdline is at most the argument area, so one buffer of the
    // system's argument limit always holds it.
    if (buffer.size() < argumentsBufferSize()) buffer.resize(argumentsBufferSize());
    auto text = readSmall(PidPath(pid, "cmdline").text, buffer.data(), buffer.size());
    if (!text) return std::nullopt;
    return parseCmdline(*text);
}

std::optional<uint64_t> ProcessReader::footprint(int32_t pid) {
    if (pid < 1) return std::nullopt;
    return footprintOf(pid);
}

std::optional<Usage> ProcessReader::usage(int32_t pid) {
    auto stat = readStat(pid);
    if (!stat) return std::nullopt;
    return usageFrom(pid, *stat);
}

std::optional<std::vector<FileDescriptor>> ProcessReader::fileDescriptors(int32_t pid) {
    int dirfd = ::openat(procDir(), PidPath(pid, "fd").text, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirfd < 0) return std::nullopt;
    std::vector<FileDescriptor> out;
    char link[64];
    bool ok = forEachEntry(dirfd, [&](const char* name, uint64_t) {
        auto fd = numericName(name);
        if (!fd) return;
        FileDescriptor d{*fd, FileDescriptor::kOther, 0};
        // Only the short "socket:[N]" form matters; longer targets are cut and ignored.
        ssize_t n = ::readlinkat(dirfd, name, link, sizeof link);
        if (n > 0) {
            if (auto inode = parseSocketLink(std::string_view(link, static_cast<size_t>(n)))) {
                d.type = FileDescriptor::kSocket;
                d.socketInode = *inode;
            }
        }
        out.push_back(d);
    });
    ::close(dirfd);
    if (!ok) return std::nullopt;
    std::sort(out.begin(), out.end(),
              [](const FileDescriptor& a, const FileDescriptor& b) { return a.fd < b.fd; });
    return out;
}

std::optional<uint64_t> ProcessReader::socketInode(int32_t pid, int32_t fd) {
    char link[64];
    ssize_t n = ::readlinkat(procDir(), PidPath(pid, "fd", fd).text, link, sizeof link);
    if (n <= 0) return std::nullopt;
    return parseSocketLink(std::string_view(link, static_cast<size_t>(n)));
}

std::vector<int32_t> LiveProcessSource::allPIDs() {
    return ProcessReader::allPIDs();
}

std::optional<ProcessIdentity> LiveProcessSource::identity(int32_t pid) {
    lastPid_ = pid;
    last_ = ProcessReader::facts(pid);
    if (!last_) return std::nullopt;
    return ProcessIdentity{pid, last_->info.startTime};
}

std::optional<RawUsage> LiveProcessSource::usage(int32_t pid) {
    std::optional<ProcessFacts> facts;
    if (lastPid_ == pid && last_)
        facts = std::move(last_);
    else
        facts = ProcessReader::facts(pid);
    last_.reset();
    if (!facts) return std::nullopt;
    return RawUsage{facts->info.ppid, facts->info.uid, std::move(facts->info.name),
                    ProcessReader::executablePath(pid), facts->usage};
}

std::vector<int32_t> LiveTableSource::allPIDs() {
    // A new sample begins: what the last one did not see is gone.
    known_ = std::move(seen_);
    seen_.clear();
    return ProcessReader::allPIDs();
}

std::optional<ProcessIdentity> LiveTableSource::identity(int32_t pid) {
    last_.reset();
    auto stat = readStat(pid);
    if (!stat) return std::nullopt;
    const ProcessIdentity id{pid, startTimeMicros(bootTime(), stat->startTicks, ticksPerSecond())};
    last_ = Stat{pid, std::move(stat->comm), stat->ppid, stat->utime + stat->stime, id};
    return id;
}

std::optional<RawUsage> LiveTableSource::usage(int32_t pid) {
    if (!last_ || last_->pid != pid) {
        if (!identity(pid)) return std::nullopt;
    }
    Stat stat = std::move(*last_);
    last_.reset();
    auto uid = effectiveUid(pid);
    if (!uid) return std::nullopt;
    auto known = known_.find(stat.identity);
    Known entry;
    if (known != known_.end() && known->second.comm == stat.comm) {
        entry = std::move(known->second);
    } else {
        entry.comm = stat.comm;
        entry.path = ProcessReader::executablePath(pid);
        entry.name = stat.comm;
        if (stat.comm.size() == 15) {
            if (auto info = ProcessReader::bsdInfo(pid)) entry.name = info->name;
        }
    }
    RawUsage raw{stat.ppid, *uid, entry.name, entry.path, Usage{0, stat.cpuTicks, {}, {}}};
    seen_.insert_or_assign(stat.identity, std::move(entry));
    return raw;
}

}  // namespace nemarro::process
