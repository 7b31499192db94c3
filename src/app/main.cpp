#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "app/agents_command.h"
#include "app/command_line.h"
#include "app/containers_command.h"
#include "app/export_command.h"
#include "app/history_command.h"
#include "app/ports_command.h"
#include "app/suite_json_command.h"
#include "app/suite_link.h"
#include "app/terminal_text.h"
#include "core/containers/port_container_mapper.h"
#include "process/process_sampler.h"

namespace {

using namespace wharfy;
using namespace wharfy::app;

std::optional<std::string> xdgRuntimeDir() {
    if (const char* dir = std::getenv("XDG_RUNTIME_DIR"); dir && *dir) return std::string(dir);
    return std::nullopt;
}

/// CPU of every process over one second: two samples of the whole table.
CpuByProcess sampleCpu() {
    using namespace nemarro::process;
    ProcessSampler sampler(std::make_unique<LiveProcessSource>(), TickClock::current(),
                           &ProcessSampler::monotonicNow);
    sampler.sample();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    CpuByProcess cpu;
    for (const auto& p : sampler.sample().processes)
        if (p.cpuPercent) cpu[p.identity] = *p.cpuPercent;
    return cpu;
}

double secondsSince1970() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

int emit(const nlohmann::json& value) {
    std::fputs(emitText(value).c_str(), stdout);
    std::fflush(stdout);
    return 0;  // headless commands always succeed
}

/// Everything at once, as readable tables. The engines and the agent
/// sampling are slow, so they run while the CPU sample is taken.
int printAll(const UserContext& user) {
    auto runtimes = std::async(std::launch::async, [&] {
        return readRuntimes(user.home, xdgRuntimeDir(), kReportEngineBudget);
    });
    auto agents = std::async(std::launch::async, [&] { return readAgents(user.home, user.uid); });
    const auto cpu = sampleCpu();
    const auto reports = runtimes.get();
    const auto rows = PortContainerMapper::attach(scanPorts(user, cpu), allContainers(reports));

    const auto width = outputWidth();
    std::string out = "Listening ports\n" + portsText(rows, width, user.uid == 0);
    out += "\n" + containersText(reports);
    out += "\n" + agentsText(agents.get(), width);
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
    if (hasOption("--ports-json", args)) return emit(portsJson(scanPorts(user)));
    if (hasOption("--containers-json", args))
        return emit(containersJson(readRuntimes(user.home, xdgRuntimeDir())));
    if (hasOption("--agents-json", args))
        return emit(agentsJson(readAgents(user.home, user.uid).sessions));
    if (hasOption("--history-json", args)) return emit(historyJson(user));
    if (hasOption("--suite-json", args))
        return emit(suiteJson(suiteFolders.value().folders, secondsSince1970()));
    if (hasOption("--export", args))
        return exportCommand(user, valueAfter("--export", args).value_or(""), xdgRuntimeDir());
    return printAll(user);
}
