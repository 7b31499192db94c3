#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "core/agents/agent_monitor.h"
#include "core/containers/container_service.h"
#include "core/containers/runtime_detector.h"
#include "core/ports/port_row.h"

namespace wharfy {

/// What an alert is about. The raw values are stored and name the settings.
enum class AlertKind { runawaySession, containerStorage, publicListener };

inline constexpr std::array<AlertKind, 3> kAllAlertKinds{
    AlertKind::runawaySession, AlertKind::containerStorage, AlertKind::publicListener};

/// "runawaySession", "containerStorage", "publicListener".
const char* rawValue(AlertKind kind);
/// The notification title, e.g. "A session is using a lot".
const char* title(AlertKind kind);

/// One notification to post.
struct Alert {
    AlertKind kind = AlertKind::runawaySession;
    /// The subject: a session id, a runtime id or a port row id.
    std::string key;
    std::string title;
    std::string body;

    bool operator==(const Alert&) const = default;
};

/// The user's alert choices, stored as JSON with keys equal to the field names.
struct AlertSettings {
    bool runawaySession = true;
    bool containerStorage = true;
    bool publicListener = true;
    /// Storage above this many bytes alerts (20 GB, decimal).
    uint64_t storageThresholdBytes = 20'000'000'000ULL;

    bool operator==(const AlertSettings&) const = default;

    /// Compact JSON with sorted keys.
    std::string json() const;
    /// Absent unless every key is there with a value of its type.
    static std::optional<AlertSettings> fromJson(std::string_view text);
};

/// The storage figure of one runtime, for the storage alert.
struct RuntimeDiskInput {
    /// The runtime's id.
    std::string id;
    /// Its display name.
    std::string name;
    /// Bytes it occupies on this computer; absent when not known.
    std::optional<uint64_t> macDiskBytes;

    bool operator==(const RuntimeDiskInput&) const = default;
};

/// The bytes a runtime occupies on this computer. A runtime in a virtual
/// machine occupies its disk images (`diskFiles`, measured); a native engine
/// (Docker Engine, Podman) what it stores itself: images, containers'
/// writable layers, volumes and build cache, from its disk-usage reading,
/// absent while that is not loaded.
std::optional<uint64_t> occupiedBytes(const RuntimeInfo& runtime, const DiskUsage* usage,
                                      const std::vector<DiskFile>& diskFiles);

/// Decides, once per refresh, which alerts are due: runaway sessions, large
/// container storage and listeners newly reachable from every network. Each
/// subject alerts at most once per `cooldown`. Listeners already public at
/// the first evaluation never alert.
class AlertEngine {
  public:
    explicit AlertEngine(AlertSettings settings = {}, double cooldown = 1800.0)
        : settings_(settings), cooldown_(cooldown) {}

    /// The alerts to post now: runaways in input order, then storage in
    /// runtime order, then public listeners in row order. `now` is in seconds.
    std::vector<Alert> evaluate(double now, const std::vector<RunawayInput>& runaways,
                                const std::vector<RuntimeDiskInput>& runtimes,
                                const std::vector<PortRow>& ports);

    const AlertSettings& settings() const { return settings_; }
    /// Replaces the settings; what already fired is remembered.
    void setSettings(const AlertSettings& settings) { settings_ = settings; }
    double cooldown() const { return cooldown_; }
    /// Last firing time by "kind|key".
    const std::map<std::string, double>& lastFired() const { return lastFired_; }
    /// Ids of the rows public at the last evaluation; absent before the first.
    const std::optional<std::set<std::string>>& publicBaseline() const { return publicBaseline_; }

  private:
    /// The cooldown gate: true, and `now` recorded, unless the subject fired
    /// less than `cooldown` ago.
    bool ready(AlertKind kind, const std::string& key, double now);

    AlertSettings settings_;
    double cooldown_;
    std::map<std::string, double> lastFired_;
    std::optional<std::set<std::string>> publicBaseline_;
};

}  // namespace wharfy
