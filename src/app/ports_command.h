#pragma once

#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

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

/// {"ports": [...]} with the keys port, pid, name, owned, addresses,
/// addressClass and role for each row.
nlohmann::json portsJson(const std::vector<PortRow>& rows);

/// The role as the JSON shows it: a plain process of another user is "otherUser".
std::string jsonRole(const PortRow& row);

/// A readable table of the rows: port, process, reachable from, kind,
/// project, memory and CPU, with a service's stop command on a line of its
/// own. Machine text is escaped. With a `width`, rows are cut to fit it.
/// When some owners are hidden and `seesOtherUsers` is false, a last line
/// says how to see them.
std::string portsText(const std::vector<PortRow>& rows, std::optional<size_t> width = std::nullopt,
                      bool seesOtherUsers = true);

/// The role as a short phrase: an app's name, a container's name and image.
std::string kindPhrase(const PortRow& row);

/// A project as its table cell: a git project by its name and "(git)", any
/// other folder by its shortened path.
std::string projectCell(const ProjectInfo& project);

/// Serialises pretty-printed with sorted keys and a line feed ("{}" if that fails).
std::string emitText(const nlohmann::json& value);

}  // namespace wharfy::app
