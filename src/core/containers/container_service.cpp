#include "core/containers/container_service.h"

#include <sys/stat.h>

#include <chrono>
#include <cstdint>

namespace wharfy {

std::unique_ptr<ContainerService> ContainerService::forSocket(
    const std::string& socketPath, std::optional<UnixSocketTransport::Clock::time_point> notAfter) {
    auto client = [&](int seconds) {
        return EngineClient(std::make_shared<UnixSocketTransport>(socketPath, seconds, notAfter));
    };
    return std::make_unique<ContainerService>(
        client(kEngineTimeoutSeconds), client(kSizesTimeoutSeconds), [] {
            using namespace std::chrono;
            return duration<double>(system_clock::now().time_since_epoch()).count();
        });
}

template <typename T>
Result<T, EngineError> ContainerService::settle(Result<T, EngineError> r) {
    // An engine that was upgraded or replaced behind the same socket answers
    // the old version's paths wrongly; any failure asks again next time.
    if (!r) apiVersion_.reset();
    return r;
}

Result<std::string, EngineError> ContainerService::apiVersion() {
    if (apiVersion_) return *apiVersion_;
    auto version = engine_.version();
    if (!version) return version.error();
    apiVersion_ = version.value().apiVersion;
    return *apiVersion_;
}

Result<CachedSizes, EngineError> ContainerService::sizes(bool afterChange) {
    std::lock_guard lock(mutex_);
    const double now = now_();
    if (!afterChange && cached_ && now - cached_->readAt < sizeMaxAge) return *cached_;
    auto api = apiVersion();
    if (!api) return api.error();
    auto usage = settle(sizesEngine_.diskUsage(api.value()));
    if (!usage) return usage.error();
    auto dangling = settle(engine_.danglingImageIDs(api.value()));
    if (!dangling) return dangling.error();
    cached_ = CachedSizes{std::move(usage).value(), std::move(dangling).value(), now};
    return *cached_;
}

Result<std::vector<ContainerInfo>, EngineError> ContainerService::containers() {
    std::lock_guard lock(mutex_);
    auto api = apiVersion();
    if (!api) return api.error();
    return settle(engine_.containers(api.value()));
}

std::vector<DiskFile> VMDiskMeter::measure(const std::vector<std::string>& paths) {
    std::vector<DiskFile> files;
    for (const auto& path : paths) {
        struct stat st {};
        if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        files.push_back(
            {path, static_cast<uint64_t>(st.st_blocks) * 512, static_cast<uint64_t>(st.st_size)});
    }
    return files;
}

std::optional<uint64_t> VMDiskMeter::allocatedBytes(const RuntimeInfo& runtime) {
    auto files = measure(runtime.diskImagePaths);
    if (files.empty()) return std::nullopt;
    uint64_t total = 0;
    for (const auto& f : files)
        total = f.allocatedBytes > UINT64_MAX - total ? UINT64_MAX : total + f.allocatedBytes;
    return total;
}

}  // namespace wharfy
