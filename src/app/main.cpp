#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "app/agents_command.h"
#include "app/containers_command.h"
#include "app/ports_command.h"
#include "core/containers/port_container_mapper.h"
#include "process/process_sampler.h"

namespace {

using namespace wharfy;
using namespace wharfy::app;

bool has(const std::vector<std::string>& args, const char* option) {
    return std::find(args.begin(), args.end(), option) != args.end();
}

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

    std::string out = "Listening ports\n" + portsText(rows);
    out += "\n" + containersText(reports);
    out += "\n" + agentsText(agents.get());
    std::fputs(out.c_str(), stdout);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    const auto user = UserContext::current();
    if (has(args, "--ports-json")) return emit(portsJson(scanPorts(user)));
    if (has(args, "--containers-json"))
        return emit(containersJson(readRuntimes(user.home, xdgRuntimeDir())));
    if (has(args, "--agents-json"))
        return emit(agentsJson(readAgents(user.home, user.uid).sessions));
    return printAll(user);
}
