#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/ports/port_row.h"
#include "core/ports/port_scanner.h"

namespace wharfy::app {

/// Who is asking: the user's uid and home folder, read once at start-up.
struct UserContext {
    uint32_t uid = 0;
    std::string home;
    /// From the process's own uid and $HOME (the password database when unset).
    static UserContext current();
};

/// One scan of the listening ports of this machine.
std::vector<PortRow> scanPorts(const UserContext& user, const CpuByProcess& cpu = {});

/// {"ports": [...]} with the keys port, pid, name, owned, addresses,
/// addressClass and role for each row.
nlohmann::json portsJson(const std::vector<PortRow>& rows);

/// The role as the JSON shows it: a plain process of another user is "otherUser".
std::string jsonRole(const PortRow& row);

/// A readable table of the rows: port, process, reachable from, kind,
/// project, memory and CPU. Machine text is escaped.
std::string portsText(const std::vector<PortRow>& rows);

/// The role as a short phrase, with a service's stop command or an app's name.
std::string kindPhrase(const PortRow& row);

/// Serialises pretty-printed with sorted keys and a line feed ("{}" if that fails).
std::string emitText(const nlohmann::json& value);

}  // namespace wharfy::app
