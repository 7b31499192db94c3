#include "core/history/alert_engine.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include <nlohmann/json.hpp>

#include "core/agents/agent_catalog.h"
#include "core/ports/platform_words.h"

namespace wharfy {
namespace {

std::string gigabytes(uint64_t bytes) {
    char buf[48];
    std::snprintf(buf, sizeof buf, "%.1f GB", static_cast<double>(bytes) / 1e9);
    return buf;
}

// The monitor only ever hands over finite averages; anything else is a bug
// upstream that must not turn into a made-up number in a notification.
int64_t truncatedPercent(double average) {
    constexpr double kLimit = 9223372036854775808.0;  // 2^63
    if (!std::isfinite(average) || average >= kLimit || average < -kLimit) {
        std::fprintf(stderr, "wharfy: a CPU average of %f cannot be shown\n", average);
        std::abort();
    }
    return static_cast<int64_t>(std::trunc(average));
}

std::string toolName(const std::string& raw) {
    if (auto tool = agentToolFromRaw(raw)) return displayName(*tool);
    return raw;
}

std::string runawayBody(const RunawayInput& input) {
    std::string subject = toolName(input.tool);
    if (input.project) subject += " in " + *input.project;
    std::string detail;
    if (const auto* memory = input.reason.as<RunawayReason::Memory>())
        detail = "It is using " + gigabytes(memory->bytes) + " of memory.";
    else if (const auto* cpu = input.reason.as<RunawayReason::Cpu>())
        detail = "It has averaged " + std::to_string(truncatedPercent(cpu->averagePercent)) +
                 "% of one core for 10 minutes.";
    return subject + ". " + detail;
}

uint64_t atLeastZero(int64_t v) {
    return v < 0 ? 0 : static_cast<uint64_t>(v);
}

}  // namespace

const char* rawValue(AlertKind kind) {
    switch (kind) {
        case AlertKind::runawaySession:
            return "runawaySession";
        case AlertKind::containerStorage:
            return "containerStorage";
        case AlertKind::publicListener:
            return "publicListener";
    }
    return "runawaySession";
}

const char* title(AlertKind kind) {
    switch (kind) {
        case AlertKind::runawaySession:
            return "A session is using a lot";
        case AlertKind::containerStorage:
            return "Container storage is large";
        case AlertKind::publicListener:
            return "A new listener on all networks";
    }
    return "";
}

std::string AlertSettings::json() const {
    const nlohmann::json o = {{"runawaySession", runawaySession},
                              {"containerStorage", containerStorage},
                              {"publicListener", publicListener},
                              {"storageThresholdBytes", storageThresholdBytes}};
    return o.dump();
}

std::optional<AlertSettings> AlertSettings::fromJson(std::string_view text) {
    const auto o = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!o.is_object()) return std::nullopt;
    auto flag = [&](const char* key) -> std::optional<bool> {
        auto it = o.find(key);
        if (it == o.end() || !it->is_boolean()) return std::nullopt;
        return it->get<bool>();
    };
    const auto runaway = flag("runawaySession");
    const auto storage = flag("containerStorage");
    const auto listener = flag("publicListener");
    const auto threshold = o.find("storageThresholdBytes");
    if (!runaway || !storage || !listener || threshold == o.end() ||
        !threshold->is_number_unsigned())
        return std::nullopt;
    return AlertSettings{*runaway, *storage, *listener, threshold->get<uint64_t>()};
}

std::optional<uint64_t> occupiedBytes(const RuntimeInfo& runtime, const DiskUsage* usage,
                                      const std::vector<DiskFile>& diskFiles) {
    const bool native = std::holds_alternative<RuntimeKind::DockerEngine>(runtime.kind.value) ||
                        std::holds_alternative<RuntimeKind::Podman>(runtime.kind.value);
    if (native) {
        if (usage == nullptr) return std::nullopt;
        uint64_t total = atLeastZero(usage->imagesSize()) + atLeastZero(usage->volumesSize());
        for (const auto& c : usage->containers)
            total += atLeastZero(c.sizeRw);
        for (const auto& b : usage->buildCache)
            total += atLeastZero(b.size);
        return total;
    }
    if (diskFiles.empty()) return std::nullopt;
    uint64_t total = 0;
    for (const auto& f : diskFiles)
        total += f.allocatedBytes;
    return total;
}

bool AlertEngine::ready(AlertKind kind, const std::string& key, double now) {
    const std::string dedupe = std::string(rawValue(kind)) + "|" + key;
    if (auto it = lastFired_.find(dedupe); it != lastFired_.end() && now - it->second < cooldown_)
        return false;
    lastFired_[dedupe] = now;
    return true;
}

std::vector<Alert> AlertEngine::evaluate(double now, const std::vector<RunawayInput>& runaways,
                                         const std::vector<RuntimeDiskInput>& runtimes,
                                         const std::vector<PortRow>& ports) {
    std::vector<Alert> alerts;
    auto add = [&](AlertKind kind, std::string key, std::string body) {
        alerts.push_back({kind, std::move(key), title(kind), std::move(body)});
    };

    if (settings_.runawaySession) {
        for (const auto& r : runaways)
            if (ready(AlertKind::runawaySession, r.sessionID, now))
                add(AlertKind::runawaySession, r.sessionID, runawayBody(r));
    }

    if (settings_.containerStorage) {
        for (const auto& r : runtimes) {
            if (!r.macDiskBytes || *r.macDiskBytes <= settings_.storageThresholdBytes) continue;
            if (!ready(AlertKind::containerStorage, r.id, now)) continue;
            add(AlertKind::containerStorage, r.id,
                r.name + " occupies " + gigabytes(*r.macDiskBytes) + " " +
                    platformWords().onThisMac + ". Open Wharfy to see what can be cleaned up.");
        }
    }

    std::set<std::string> current;
    std::vector<const PortRow*> publicRows;
    for (const auto& row : ports)
        if (row.addressClass == AddressClass::allNetworks && current.insert(row.id()).second)
            publicRows.push_back(&row);
    if (settings_.publicListener && publicBaseline_) {
        for (const PortRow* row : publicRows) {
            const std::string id = row->id();
            if (publicBaseline_->count(id) || !ready(AlertKind::publicListener, id, now)) continue;
            add(AlertKind::publicListener, id,
                row->processName + " is now listening on port " + std::to_string(row->port) +
                    ", reachable from every network.");
        }
    }
    publicBaseline_ = std::move(current);
    return alerts;
}

}  // namespace wharfy
