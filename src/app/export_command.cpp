#include "app/export_command.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <system_error>

#include "app/machine_report.h"
#include "app/terminal_text.h"
#include "core/containers/port_container_mapper.h"
#include "core/history/alert_engine.h"

namespace wharfy::app {
namespace {}  // namespace

ExportFormat exportFormat(std::string_view path) {
    constexpr std::string_view kSuffix = ".json";
    if (path.size() < kSuffix.size()) return ExportFormat::markdown;
    const auto tail = path.substr(path.size() - kSuffix.size());
    const bool json = std::equal(tail.begin(), tail.end(), kSuffix.begin(), [](char a, char b) {
        return (a >= 'A' && a <= 'Z' ? a - 'A' + 'a' : a) == b;
    });
    return json ? ExportFormat::json : ExportFormat::markdown;
}

ExportSnapshot exportSnapshot(double now, const std::vector<PortRow>& rows,
                              const std::vector<RuntimeReport>& runtimes,
                              const AgentsReport& agents) {
    ExportSnapshot snapshot;
    snapshot.generatedAt = now;
    for (const auto& row : rows)
        snapshot.ports.push_back(portEntry(row, kindPhrase(row)));
    for (const auto& r : runtimes) {
        if (!r.runtime.isMeasurable()) continue;
        const DiskUsage* usage = r.sizes ? &r.sizes->usage : nullptr;
        snapshot.runtimes.push_back(runtimeEntry(r.runtime.displayName, r.containers,
                                                 occupiedBytes(r.runtime, usage, r.diskFiles)));
    }
    for (const auto& session : agents.sessions)
        snapshot.agents.push_back(agentEntry(session, agents.status(session)));
    return snapshot;
}

std::string exportFailure(const FileError& error) {
    return "Could not write the export to " + terminalSafe(error.path) + " (" + error.reason() +
           ").";
}

int exportCommand(MachineReader& reader, const std::string& path) {
    const MachineReport report = readMachine(reader, true, &sleepSeconds);
    const double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    const ExportSnapshot snapshot =
        exportSnapshot(now, report.ports, report.runtimes, report.agents);

    const ExportRenderer renderer(&localeDateText);
    if (path == "-") {
        const std::string text = renderer.markdown(snapshot) + "\n";
        if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() ||
            std::fflush(stdout) != 0) {
            std::fputs("wharfy: Could not write the export to standard output.\n", stderr);
            return 1;
        }
        return 0;
    }
    const std::string bytes = exportFormat(path) == ExportFormat::json
                                  ? renderer.json(snapshot)
                                  : renderer.markdown(snapshot) + "\n";
    if (auto written = writePrivateFile(path, bytes, FolderPolicy::mustExist); !written) {
        std::fprintf(stderr, "wharfy: %s\n", exportFailure(written.error()).c_str());
        return 1;
    }
    return 0;
}

}  // namespace wharfy::app
