#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/agents_command.h"
#include "app/containers_command.h"
#include "app/ports_command.h"
#include "common/result.h"
#include "core/history/export_snapshot.h"
#include "system/private_files.h"

namespace wharfy::app {

enum class ExportFormat { markdown, json };

/// JSON when the path ends in ".json" (in any case), Markdown otherwise,
/// "-" (standard output) included.
ExportFormat exportFormat(std::string_view path);

/// What one reading found, as exported at `now`: every port row (with the
/// kind the ports list shows), the running runtimes with their containers
/// and the bytes they occupy, and the agent sessions with their status.
ExportSnapshot exportSnapshot(double now, const std::vector<PortRow>& rows,
                              const std::vector<RuntimeReport>& runtimes,
                              const AgentsReport& agents);

/// One sentence for the user saying where an export could not be written
/// and why, with the path made safe for a terminal.
std::string exportFailure(const FileError& error);

/// `wharfy --export PATH`: reads what is running and writes the report to
/// PATH ("-" for standard output). 0 when written; otherwise one line on
/// standard error and 1.
int exportCommand(MachineReader& reader, const std::string& path);

}  // namespace wharfy::app
