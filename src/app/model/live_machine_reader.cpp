#include "app/model/live_machine_reader.h"

#include <set>

#include "core/containers/runtime_detector.h"
#include "core/ports/live_environment.h"
#include "core/ports/port_scanner.h"
#include "process/process_reader.h"
#include "process/tick_clock.h"
#include "system/command_runner.h"

namespace wharfy::app {

using nemarro::process::LiveTableSource;
using nemarro::process::ProcessReader;
using nemarro::process::ProcessSampler;
using nemarro::process::TickClock;

namespace {

std::shared_ptr<CommandRunner> toolRunner() {
    static auto runner = std::make_shared<SystemCommandRunner>(10.0);
    return runner;
}

}  // namespace

LiveMachineReader::LiveMachineReader(uint32_t uid, std::string home,
                                     std::optional<std::string> xdgRuntimeDir,
                                     std::optional<UnixSocketTransport::Clock::time_point> notAfter)
    : uid_(uid),
      home_(std::move(home)),
      xdgRuntimeDir_(std::move(xdgRuntimeDir)),
      notAfter_(notAfter),
      sampler_(std::make_unique<LiveTableSource>(), TickClock::current(),
               &ProcessSampler::monotonicNow),
      environment_(makeLivePortEnvironment(toolRunner())),
      classifier_(makeLiveClassifier(uid_, home_, toolRunner())),
      files_(std::make_shared<LiveDetectorFileSystem>(notAfter_)),
      detector_(home_, xdgRuntimeDir_, files_),
      // Linux never asks before a folder is read, so projects may be looked up anywhere.
      sessions_(AgentCatalog(home_), ProjectResolver(home_, true, &ProjectResolver::pathExists),
                uid_) {}

LiveMachineReader::~LiveMachineReader() = default;

ProcessReading LiveMachineReader::readProcesses() {
    ProcessReading reading;
    const auto sample = sampler_.sample();
    CpuByProcess cpu;
    cpu.reserve(sample.processes.size());
    for (const auto& p : sample.processes)
        if (p.cpuPercent) cpu[p.identity] = *p.cpuPercent;
    PortScanner scanner(*environment_, classifier_,
                        ProjectResolver(home_, true, &ProjectResolver::pathExists), uid_);
    reading.ports = scanner.scan(cpu);
    reading.sessions = sessions_.build(
        sample.processes,
        [this](int32_t pid) { return ProcessReader::arguments(pid, argumentBuffer_); },
        [](int32_t pid) { return ProcessReader::currentDirectory(pid); });
    // The table is read without memory figures; only the few processes of a
    // session need theirs.
    for (auto& session : reading.sessions) {
        session.footprint = ProcessReader::footprint(session.root.identity.pid).value_or(0);
        for (auto& child : session.children) {
            child.footprint = ProcessReader::footprint(child.identity.pid).value_or(0);
            session.footprint += child.footprint;
        }
    }
    return reading;
}

std::vector<RuntimeCandidate> LiveMachineReader::findRuntimes() {
    auto runtimes = detector_.candidates();
    // Services of runtimes that are gone are let go, so that none is kept
    // for a context the user deleted long ago.
    std::set<std::string> present;
    for (const auto& r : runtimes)
        present.insert(r.runtime.id());
    std::lock_guard lock(servicesMutex_);
    std::erase_if(services_, [&](const auto& entry) { return !present.contains(entry.first); });
    return runtimes;
}

std::shared_ptr<ContainerService> LiveMachineReader::service(const RuntimeInfo& runtime) {
    std::lock_guard lock(servicesMutex_);
    auto& slot = services_[runtime.id()];
    // A runtime whose socket moved gets a new service: the old one's API
    // version and sizes belong to another engine.
    if (!slot.service || slot.socketPath != *runtime.socketPath)
        slot = {*runtime.socketPath, ContainerService::forSocket(*runtime.socketPath, notAfter_)};
    return slot.service;
}

RuntimeReading LiveMachineReader::readRuntime(const RuntimeCandidate& candidate) {
    RuntimeReading reading;
    const auto answer =
        candidate.probe ? files_->ping({*candidate.probe}).front() : SocketAnswer::refused;
    reading.runtime = RuntimeDetector::settled(candidate, answer);
    const RuntimeInfo& runtime = reading.runtime;
    reading.diskFiles = VMDiskMeter::measure(runtime.diskImagePaths);
    if (!runtime.isMeasurable()) return reading;
    auto containers = service(runtime)->containers();
    if (containers)
        reading.containers = std::move(containers).value();
    else
        reading.error = containers.error().description();
    return reading;
}

Result<CachedSizes, std::string> LiveMachineReader::readSizes(const RuntimeInfo& runtime,
                                                              bool afterChange) {
    if (!runtime.isMeasurable()) return std::string("the runtime is not running");
    auto sizes = service(runtime)->sizes(afterChange);
    if (!sizes) return sizes.error().description();
    return std::move(sizes).value();
}

}  // namespace wharfy::app
