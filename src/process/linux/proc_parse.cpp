#include "process/linux/proc_parse.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <charconv>
#include <cstring>

#include "common/text.h"
#include "process/process_reader.h"

namespace nemarro::process::linux {
namespace {

template <typename T>
std::optional<T> number(std::string_view s, int base = 10) {
    T value{};
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value, base);
    if (ec != std::errc() || end != s.data() + s.size() || s.empty()) return std::nullopt;
    return value;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n';
}

/// Splits at runs of blanks.
std::vector<std::string_view> fields(std::string_view s) {
    std::vector<std::string_view> out;
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && isBlank(s[i]))
            ++i;
        size_t start = i;
        while (i < s.size() && !isBlank(s[i]))
            ++i;
        if (i > start) out.push_back(s.substr(start, i - start));
    }
    return out;
}

std::string_view lineStartingWith(std::string_view text, std::string_view key) {
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(pos, end - pos);
        if (line.starts_with(key)) return line.substr(key.size());
        pos = end + 1;
    }
    return {};
}

std::string basename(const std::string& path) {
    auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

constexpr int kTcpListen = 10;

}  // namespace

std::optional<StatFields> parseStat(std::string_view text) {
    size_t open = text.find('(');
    size_t close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open)
        return std::nullopt;
    StatFields f;
    f.comm = wharfy::repairUtf8(text.substr(open + 1, close - open - 1));
    // Numbered fields after the name: index 0 is field 3 (state).
    auto rest = fields(text.substr(close + 1));
    constexpr size_t kState = 0, kPpid = 1, kUtime = 11, kStime = 12, kStart = 19;
    if (rest.size() <= kStart || rest[kState].size() != 1) return std::nullopt;
    f.state = rest[kState][0];
    auto ppid = number<int32_t>(rest[kPpid]);
    auto utime = number<uint64_t>(rest[kUtime]);
    auto stime = number<uint64_t>(rest[kStime]);
    auto start = number<uint64_t>(rest[kStart]);
    if (!ppid || !utime || !stime || !start) return std::nullopt;
    f.ppid = *ppid;
    f.utime = *utime;
    f.stime = *stime;
    f.startTicks = *start;
    return f;
}

std::optional<uint32_t> parseStatusEffectiveUid(std::string_view text) {
    auto line = lineStartingWith(text, "Uid:");
    auto f = fields(line);
    if (f.size() < 2) return std::nullopt;
    return number<uint32_t>(f[1]);
}

std::optional<StatmFields> parseStatm(std::string_view text) {
    auto f = fields(text);
    if (f.size() < 3) return std::nullopt;
    auto resident = number<uint64_t>(f[1]);
    auto shared = number<uint64_t>(f[2]);
    if (!resident || !shared) return std::nullopt;
    return StatmFields{*resident, *shared};
}

std::optional<IoFields> parseIo(std::string_view text) {
    auto r = fields(lineStartingWith(text, "read_bytes:"));
    auto w = fields(lineStartingWith(text, "write_bytes:"));
    if (r.empty() || w.empty()) return std::nullopt;
    auto rb = number<uint64_t>(r[0]);
    auto wb = number<uint64_t>(w[0]);
    if (!rb || !wb) return std::nullopt;
    return IoFields{*rb, *wb};
}

std::optional<uint64_t> parseBootTime(std::string_view text) {
    auto f = fields(lineStartingWith(text, "btime "));
    if (f.empty()) return std::nullopt;
    return number<uint64_t>(f[0]);
}

std::vector<std::string> parseCmdline(std::string_view bytes) {
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < bytes.size()) {
        size_t nul = bytes.find('\0', pos);
        if (nul == std::string_view::npos) nul = bytes.size();
        out.push_back(wharfy::repairUtf8(bytes.substr(pos, nul - pos)));
        pos = nul + 1;
    }
    return out;
}

std::optional<uint64_t> parseSocketLink(std::string_view link) {
    constexpr std::string_view prefix = "socket:[";
    if (!link.starts_with(prefix) || !link.ends_with(']')) return std::nullopt;
    return number<uint64_t>(link.substr(prefix.size(), link.size() - prefix.size() - 1));
}

uint64_t startTimeMicros(uint64_t bootTimeSeconds, uint64_t startTicks, uint64_t ticksPerSecond) {
    if (ticksPerSecond == 0) ticksPerSecond = 100;
    uint64_t whole = startTicks / ticksPerSecond;
    uint64_t part = startTicks % ticksPerSecond;
    return (bootTimeSeconds + whole) * 1'000'000 + part * 1'000'000 / ticksPerSecond;
}

std::string fullName(const std::string& comm, const std::optional<std::string>& executable,
                     const std::optional<std::string>& argv0) {
    constexpr size_t kKernelCommLimit = 15;
    if (comm.size() != kKernelCommLimit) return comm;
    for (const auto* candidate : {&executable, &argv0}) {
        if (!*candidate || (*candidate)->empty()) continue;
        std::string base = basename(**candidate);
        if (base.size() > comm.size() && base.starts_with(comm)) return base;
    }
    return comm;
}

std::vector<KernelListener> parseProcNetTcp(std::string_view text, int32_t family) {
    std::vector<KernelListener> out;
    const size_t words = family == AF_INET6 ? 4 : 1;
    size_t pos = text.find('\n');  // skip the header
    while (pos != std::string_view::npos && pos < text.size()) {
        size_t end = text.find('\n', pos + 1);
        std::string_view line = text.substr(
            pos + 1, end == std::string_view::npos ? std::string_view::npos : end - pos - 1);
        pos = end;
        auto f = fields(line);
        // sl local rem st tx:rx tr:when retrnsmt uid timeout inode
        if (f.size() < 10) continue;
        auto st = number<int>(f[3], 16);
        if (!st || *st != kTcpListen) continue;
        std::string_view local = f[1];
        size_t colon = local.find(':');
        if (colon != words * 8) continue;
        uint8_t bytes[16] = {};
        bool ok = true;
        for (size_t w = 0; w < words && ok; ++w) {
            auto word = number<uint32_t>(local.substr(w * 8, 8), 16);
            if (!word)
                ok = false;
            else
                std::memcpy(bytes + w * 4, &*word, 4);
        }
        auto port = number<uint16_t>(local.substr(colon + 1), 16);
        auto uid = number<uint32_t>(f[7]);
        auto inode = number<uint64_t>(f[9]);
        if (!ok || !port || !uid || !inode) continue;
        out.push_back(KernelListener{*inode, *uid, family, addressText(family, bytes), *port,
                                     classifyAddress(family, bytes)});
    }
    return out;
}

std::vector<KernelListener> parseSockDiag(std::span<const std::byte> reply, bool& done) {
    std::vector<KernelListener> out;
    size_t offset = 0;
    while (offset + sizeof(nlmsghdr) <= reply.size()) {
        nlmsghdr header;
        std::memcpy(&header, reply.data() + offset, sizeof header);
        if (header.nlmsg_len < sizeof(nlmsghdr) || offset + header.nlmsg_len > reply.size()) {
            done = true;  // malformed: stop reading rather than loop
            break;
        }
        if (header.nlmsg_type == NLMSG_DONE || header.nlmsg_type == NLMSG_ERROR) {
            done = true;
            break;
        }
        if (header.nlmsg_type == SOCK_DIAG_BY_FAMILY &&
            header.nlmsg_len >= NLMSG_LENGTH(sizeof(inet_diag_msg))) {
            inet_diag_msg msg;
            std::memcpy(&msg, reply.data() + offset + NLMSG_HDRLEN, sizeof msg);
            if (msg.idiag_state == kTcpListen &&
                (msg.idiag_family == AF_INET || msg.idiag_family == AF_INET6)) {
                uint8_t bytes[16];
                std::memcpy(bytes, msg.id.idiag_src, sizeof bytes);
                int32_t family = msg.idiag_family;
                out.push_back(KernelListener{msg.idiag_inode, msg.idiag_uid, family,
                                             addressText(family, bytes), ntohs(msg.id.idiag_sport),
                                             classifyAddress(family, bytes)});
            }
        }
        offset += NLMSG_ALIGN(header.nlmsg_len);
    }
    return out;
}

}  // namespace nemarro::process::linux
