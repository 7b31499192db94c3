#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "app/model/machine_reader.h"
#include "core/ports/classifier.h"
#include "core/ports/port_environment.h"
#include "process/process_sampler.h"

namespace wharfy::app {

/// The machine as this process sees it. It keeps what is worth keeping
/// between refreshes: one process sampler (its CPU figures serve both the
/// port rows and the sessions), the port environment with its caches, the
/// runtime detector, and one engine service per runtime id (the API version
/// and the disk-usage cache live there).
class LiveMachineReader final : public MachineReader {
  public:
    /// With `notAfter`, no engine request lasts past it (the one-shot
    /// report's budget); a long-lived reader has none.
    LiveMachineReader(
        uint32_t uid, std::string home, std::optional<std::string> xdgRuntimeDir,
        std::optional<UnixSocketTransport::Clock::time_point> notAfter = std::nullopt);
    ~LiveMachineReader() override;

    ProcessReading readProcesses() override;
    std::vector<RuntimeCandidate> findRuntimes() override;
    RuntimeReading readRuntime(const RuntimeCandidate& candidate) override;
    Result<CachedSizes, std::string> readSizes(const RuntimeInfo& runtime,
                                               bool afterChange) override;

  private:
    std::shared_ptr<ContainerService> service(const RuntimeInfo& runtime);

    uint32_t uid_;
    std::string home_;
    std::optional<std::string> xdgRuntimeDir_;
    std::optional<UnixSocketTransport::Clock::time_point> notAfter_;
    nemarro::process::ProcessSampler sampler_;
    std::unique_ptr<PortEnvironment> environment_;
    ListenerClassifier classifier_;
    std::shared_ptr<LiveDetectorFileSystem> files_;
    RuntimeDetector detector_;
    SessionBuilder sessions_;
    std::vector<char> argumentBuffer_;
    /// One engine service per runtime, with the socket it was made for.
    struct Service {
        std::string socketPath;
        std::shared_ptr<ContainerService> service;
    };
    std::mutex servicesMutex_;
    std::map<std::string, Service> services_;
};

}  // namespace wharfy::app
