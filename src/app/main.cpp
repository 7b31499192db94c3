#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "app/agents_command.h"
#include "app/background.h"
#include "app/command_line.h"
#include "app/containers_command.h"
#include "app/export_command.h"
#include "app/history_command.h"
#include "app/live_parts.h"
#include "app/machine_report.h"
#include "app/model/live_machine_reader.h"
#include "app/ports_command.h"
#include "app/suite_json_command.h"
#include "app/suite_link.h"
#include "app/terminal_text.h"
#include "app/tui/run_interface.h"

namespace {

using namespace wharfy;
using namespace wharfy::app;

double secondsSince1970() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

int emit(const nlohmann::json& value) {
    std::fputs(emitText(value).c_str(), stdout);
    std::fflush(stdout);
    return 0;  // headless commands always succeed
}

/// Everything at once, as readable tables. The engines are read while the
/// CPU figures are taken, within one budget for them all.
int printAll(const UserContext& user) {
    LiveMachineReader reader(user.uid, user.home, xdgRuntimeDir(),
                             UnixSocketTransport::Clock::now() + kReportEngineBudget);
    const MachineReport report = readMachine(reader, true, &sleepSeconds);
    const auto width = outputWidth();
    std::string out = "Listening ports\n" + portsText(report.ports, width, user.uid == 0);
    out += "\n" + containersText(report.runtimes);
    out += "\n" + agentsText(report.agents, width);
    std::fputs(out.c_str(), stdout);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    const auto suiteFolders = liveSuiteFolders(args);  // a bad --suite-folder ends the run first
    if (!suiteFolders) {
        std::fprintf(stderr, "%s\n", suiteFolders.error().message().c_str());
        return 2;
    }
    if (auto problem = usageProblem(args)) {
        std::fprintf(stderr, "wharfy: %s\nTry 'wharfy --help' for more information.\n",
                     problem->c_str());
        return 2;
    }
    if (hasOption("--help", args) || hasOption("-h", args)) {
        std::fputs(usageText().c_str(), stdout);
        return 0;
    }
    if (hasOption("--version", args)) {
        std::fputs(versionText().c_str(), stdout);
        return 0;
    }
    const auto user = UserContext::current();
    auto reader = [&] { return LiveMachineReader(user.uid, user.home, xdgRuntimeDir()); };
    if (hasOption("--ports-json", args)) return emit(portsJson(reader().readProcesses().ports));
    if (hasOption("--containers-json", args)) {
        auto live = reader();
        return emit(containersJson(readRuntimes(live)));
    }
    if (hasOption("--agents-json", args)) {
        auto live = reader();
        return emit(agentsJson(readMachine(live, false, &sleepSeconds).agents.sessions));
    }
    if (hasOption("--history-json", args)) return emit(historyJson(user));
    if (hasOption("--suite-json", args))
        return emit(suiteJson(suiteFolders.value().folders, secondsSince1970()));
    if (hasOption("--export", args)) {
        auto live = reader();
        return exportCommand(live, valueAfter("--export", args).value_or("-"));
    }
    if (hasOption("--background", args))
        return runBackground(user, LaunchOptions(args), suiteFolders.value());
    if (auto mode = tui::startMode(args, tui::TerminalFacts::current());
        mode != tui::StartMode::report)
        return tui::runInterface(args, user, mode, suiteFolders.value());
    return printAll(user);
}
