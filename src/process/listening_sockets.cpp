#include "process/listening_sockets.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>

#include "process/process_reader.h"

namespace nemarro::process {

ListeningSocket::AddressClass classifyAddress(int32_t family, const uint8_t* b) {
    using C = ListeningSocket::AddressClass;
    if (family == AF_INET) {
        if (b[0] == 0 && b[1] == 0 && b[2] == 0 && b[3] == 0) return C::any;
        return b[0] == 127 ? C::loopback : C::specific;
    }
    const bool first15Zero = std::all_of(b, b + 15, [](uint8_t x) { return x == 0; });
    if (first15Zero && b[15] == 0) return C::any;
    if (first15Zero && b[15] == 1) return C::loopback;
    if (std::any_of(b, b + 10, [](uint8_t x) { return x != 0; })) return C::specific;
    if (b[10] != 0xFF || b[11] != 0xFF) return C::specific;
    if (b[12] == 127) return C::loopback;
    if (b[12] == 0 && b[13] == 0 && b[14] == 0 && b[15] == 0) return C::any;
    return C::specific;
}

std::string addressText(int32_t family, const uint8_t* bytes) {
    char buf[INET6_ADDRSTRLEN] = {};
    const int af = family == AF_INET ? AF_INET : AF_INET6;
    if (::inet_ntop(af, bytes, buf, sizeof buf) == nullptr) return {};
    return buf;
}

ListenerTable ListeningSockets::index(const std::vector<KernelListener>& table) {
    ListenerTable out;
    out.reserve(table.size());
    for (const auto& l : table)
        out.emplace(l.socketID, l);
    return out;
}

std::vector<ListeningSocket> ListeningSockets::read(int32_t pid) {
    return read(pid, index(table()));
}

std::vector<ListeningSocket> ListeningSockets::read() {
    const auto idx = index(table());
    std::vector<ListeningSocket> out;
    if (idx.empty()) return out;
    for (int32_t pid : ProcessReader::allPIDs()) {
        auto sockets = read(pid, idx);
        out.insert(out.end(), std::make_move_iterator(sockets.begin()),
                   std::make_move_iterator(sockets.end()));
    }
    return out;
}

std::vector<ListeningSocket> ListeningSockets::read(int32_t pid, const ListenerTable& table) {
    std::vector<ListeningSocket> out;
    if (table.empty()) return out;
    auto fds = ProcessReader::fileDescriptors(pid);
    if (!fds) return out;
    for (const auto& fd : *fds) {
        if (fd.type != FileDescriptor::kSocket) continue;
        auto it = table.find(fd.socketInode);
        if (it == table.end()) continue;
        const auto& l = it->second;
        out.push_back(
            ListeningSocket{pid, fd.fd, l.socketID, l.port, l.family, l.addressClass, l.address});
    }
    return out;
}

}  // namespace nemarro::process
