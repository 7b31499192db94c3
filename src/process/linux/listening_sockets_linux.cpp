#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "process/linux/proc_parse.h"
#include "process/linux/procfs.h"
#include "process/listening_sockets.h"

namespace nemarro::process {
namespace {

using namespace nemarro::process::linux;

constexpr int kTcpListen = 10;

/// One socket-diagnostics dump of the listening TCP sockets of one family.
/// Absent when netlink is refused, so the caller can fall back to /proc/net.
std::optional<std::vector<KernelListener>> dumpFamily(int family) {
    int fd = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (fd < 0) return std::nullopt;

    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } message{};
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message.request.sdiag_family = static_cast<uint8_t>(family);
    message.request.sdiag_protocol = IPPROTO_TCP;
    message.request.idiag_states = 1U << kTcpListen;

    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(fd, &message, sizeof message, 0, reinterpret_cast<sockaddr*>(&kernel),
                 sizeof kernel) < 0) {
        ::close(fd);
        return std::nullopt;
    }

    std::vector<KernelListener> out;
    alignas(nlmsghdr) std::byte buffer[32768];
    bool done = false;
    bool failed = false;
    while (!done) {
        ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            failed = true;
            break;
        }
        // An error reply means the kernel refused the dump.
        nlmsghdr first;
        std::memcpy(&first, buffer, sizeof first);
        if (first.nlmsg_type == NLMSG_ERROR) {
            failed = true;
            break;
        }
        auto part = parseSockDiag(std::span<const std::byte>(buffer, static_cast<size_t>(n)), done);
        out.insert(out.end(), std::make_move_iterator(part.begin()),
                   std::make_move_iterator(part.end()));
    }
    ::close(fd);
    if (failed) return std::nullopt;
    return out;
}

std::vector<KernelListener> procNetTable() {
    std::vector<KernelListener> out;
    std::string text;
    if (readAll("net/tcp", text)) out = parseProcNetTcp(text, AF_INET);
    if (readAll("net/tcp6", text)) {
        auto v6 = parseProcNetTcp(text, AF_INET6);
        out.insert(out.end(), v6.begin(), v6.end());
    }
    return out;
}

}  // namespace

std::vector<KernelListener> ListeningSockets::table() {
    auto v4 = dumpFamily(AF_INET);
    if (!v4) return procNetTable();
    auto v6 = dumpFamily(AF_INET6);
    if (!v6) return procNetTable();
    v4->insert(v4->end(), std::make_move_iterator(v6->begin()), std::make_move_iterator(v6->end()));
    return std::move(*v4);
}

}  // namespace nemarro::process
