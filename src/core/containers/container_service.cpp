#include "core/containers/container_service.h"

#include <sys/stat.h>

#include <chrono>

namespace wharfy {

ContainerService ContainerService::forSocket(const std::string& socketPath) {
    return ContainerService(
        EngineClient(socketPath, kEngineTimeoutSeconds),
        EngineClient(socketPath, kSizesTimeoutSeconds), [] {
            using namespace std::chrono;
            return duration<double>(system_clock::now().time_since_epoch()).count();
        });
}

Result<CachedSizes, EngineError> ContainerService::sizes(bool afterChange) {
    std::lock_guard lock(mutex_);
    const double now = now_();
    if (!afterChange && cached_ && now - cached_->readAt < sizeMaxAge) return *cached_;
    auto usage = sizesEngine_.diskUsage();
    if (!usage) return usage.error();
    auto dangling = engine_.danglingImageIDs();
    if (!dangling) return dangling.error();
    cached_ = CachedSizes{std::move(usage).value(), std::move(dangling).value(), now};
    return *cached_;
}

Result<std::vector<ContainerInfo>, EngineError> ContainerService::containers() {
    std::lock_guard lock(mutex_);
    return engine_.containers();
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
        total += f.allocatedBytes;
    return total;
}

}  // namespace wharfy
