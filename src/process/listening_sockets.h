#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace nemarro::process {

/// One listening TCP socket held by one process.
struct ListeningSocket {
    /// How far a bound local address reaches.
    enum class AddressClass { any, loopback, specific };

    int32_t pid = 0;
    int32_t fd = 0;
    /// Kernel handle of the socket; processes sharing one inherited socket see the same value.
    uint64_t socketID = 0;
    uint16_t port = 0;
    /// AF_INET or AF_INET6 of this platform.
    int32_t family = 0;
    AddressClass addressClass = AddressClass::specific;
    /// Local address as inet_ntop prints it; empty when that fails.
    std::string address;

    bool operator==(const ListeningSocket&) const = default;
};

/// One row of the kernel's machine-wide listening table, whoever holds it.
struct KernelListener {
    /// Socket inode (Linux) or socket handle; equals ListeningSocket::socketID.
    uint64_t socketID = 0;
    uint32_t uid = 0;
    int32_t family = 0;
    std::string address;
    uint16_t port = 0;
    ListeningSocket::AddressClass addressClass = ListeningSocket::AddressClass::specific;

    bool operator==(const KernelListener&) const = default;
};

/// Class of a raw address: 4 bytes for IPv4, 16 for IPv6 (v4-mapped addresses
/// take the class of their IPv4 part).
ListeningSocket::AddressClass classifyAddress(int32_t family, const uint8_t* bytes);

/// Text of a raw address by inet_ntop; empty when that fails.
std::string addressText(int32_t family, const uint8_t* bytes);

/// The machine-wide listening table indexed by socket id.
using ListenerTable = std::unordered_map<uint64_t, KernelListener>;

/// Reads of listening TCP sockets: machine-wide, and per process.
struct ListeningSockets {
    /// The listening sockets `pid` holds, in descriptor order; empty on any failure.
    static std::vector<ListeningSocket> read(int32_t pid);
    /// read(pid) over every pid in allPIDs order; a shared socket appears once per holder.
    static std::vector<ListeningSocket> read();
    /// The kernel's listening table, including sockets of processes we cannot inspect.
    static std::vector<KernelListener> table();
    /// The listening sockets `pid` holds, matched against an already read table.
    static std::vector<ListeningSocket> read(int32_t pid, const ListenerTable& table);
    static ListenerTable index(const std::vector<KernelListener>& table);
};

}  // namespace nemarro::process
