#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/containers/engine_client.h"
#include "core/containers/runtime_detector.h"

namespace wharfy {

/// One disk-usage reading of a runtime.
struct CachedSizes {
    DiskUsage usage;
    std::vector<std::string> danglingImageIDs;
    /// Seconds since 1970 on the service's clock.
    double readAt = 0;

    bool operator==(const CachedSizes&) const = default;
};

/// One runtime's engine access, kept per runtime id across refreshes. It
/// keeps the engine's API version, asked once and again only after a request
/// failed, and the last disk-usage reading for a while because that request
/// is slow. Calls are serialised.
class ContainerService {
  public:
    /// `engine` has the short time-out, `sizesEngine` the long one for disk use.
    ContainerService(EngineClient engine, EngineClient sizesEngine, std::function<double()> now)
        : engine_(std::move(engine)), sizesEngine_(std::move(sizesEngine)), now_(std::move(now)) {}

    /// Clients on `socketPath` with the 5 s and 30 s time-outs, on the system
    /// clock. With `notAfter`, no request of this service lasts past it.
    static std::unique_ptr<ContainerService> forSocket(
        const std::string& socketPath,
        std::optional<UnixSocketTransport::Clock::time_point> notAfter = std::nullopt);

    static constexpr double sizeMaxAge = 300.0;
    static constexpr int kEngineTimeoutSeconds = 5;
    static constexpr int kSizesTimeoutSeconds = 30;

    /// The cached reading while younger than sizeMaxAge, unless `afterChange`;
    /// otherwise a fresh one. A failure leaves the previous cache in place.
    Result<CachedSizes, EngineError> sizes(bool afterChange);
    Result<std::vector<ContainerInfo>, EngineError> containers();
    const EngineClient& engine() const { return engine_; }

  private:
    /// The kept API version, asking the engine when there is none.
    Result<std::string, EngineError> apiVersion();
    /// Passes `r` on; a failure makes the next request ask the version again.
    template <typename T>
    Result<T, EngineError> settle(Result<T, EngineError> r);

    std::mutex mutex_;
    EngineClient engine_;
    EngineClient sizesEngine_;
    std::function<double()> now_;
    std::optional<std::string> apiVersion_;
    std::optional<CachedSizes> cached_;
};

/// One disk-image file of a runtime.
struct DiskFile {
    std::string path;
    /// Bytes the file really occupies (disk images are sparse).
    uint64_t allocatedBytes = 0;
    /// The file's length.
    uint64_t nominalBytes = 0;

    bool operator==(const DiskFile&) const = default;
};

/// Measures a runtime's disk-image files on this computer.
struct VMDiskMeter {
    /// The regular files among `paths` that exist, in order.
    static std::vector<DiskFile> measure(const std::vector<std::string>& paths);
    /// Allocated bytes of the runtime's images, summed; absent when none exists.
    static std::optional<uint64_t> allocatedBytes(const RuntimeInfo& runtime);
};

}  // namespace wharfy
