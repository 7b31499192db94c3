#include "app/machine_report.h"

#include <chrono>
#include <future>
#include <thread>

#include "core/containers/port_container_mapper.h"

namespace wharfy::app {

MachineReport readMachine(MachineReader& reader, bool withRuntimes,
                          const std::function<void(double seconds)>& sleep, double interval) {
    std::future<std::vector<RuntimeReport>> runtimes;
    if (withRuntimes)
        runtimes = std::async(std::launch::async, [&reader] { return readRuntimes(reader); });
    const auto first = reader.readProcesses();
    sleep(interval);
    auto second = reader.readProcesses();

    MachineReport report;
    report.agents = AgentsReport::from(first.sessions, std::move(second.sessions), interval);
    if (withRuntimes) report.runtimes = runtimes.get();
    report.ports =
        PortContainerMapper::attach(std::move(second.ports), allContainers(report.runtimes));
    return report;
}

void sleepSeconds(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

}  // namespace wharfy::app
