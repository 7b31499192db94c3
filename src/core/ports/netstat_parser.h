#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/ports/port_row.h"
#include "process/listening_sockets.h"

namespace wharfy {

/// One TCP listener of the machine-wide table, whoever owns it.
struct NetstatListener {
    int32_t pid = 0;
    /// As the table prints it; may contain blanks.
    std::string processName;
    /// Local address without the port: "*", "127.0.0.1", "::1", "fe80::1%lo0".
    std::string address;
    uint16_t port = 0;

    bool operator==(const NetstatListener&) const = default;
};

/// Reads the listening lines of `netstat -anv -p tcp` (macOS layout).
struct NetstatParser {
    /// Every listener of the text, in line order; other lines are skipped.
    static std::vector<NetstatListener> listeners(std::string_view text);
    static std::optional<NetstatListener> parse(std::string_view line);
    /// "127.0.0.1.5432" → ("127.0.0.1", 5432); "*.*" → absent.
    static std::optional<std::pair<std::string, uint16_t>> splitAddress(std::string_view text);
};

/// Class of an address as the listener table prints it.
AddressClass addressClass(std::string_view netstatAddress);
/// Class of a per-process socket's address.
AddressClass addressClass(nemarro::process::ListeningSocket::AddressClass socketClass);

}  // namespace wharfy
