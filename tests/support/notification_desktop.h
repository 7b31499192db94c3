#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <systemd/sd-bus.h>
#include <nlohmann/json.hpp>

#include "spawned_process.h"
#include "test_process.h"

namespace wharfy::testing {

/// A session bus of the test's own (dbus-daemon), with no service that it
/// could start on demand, so that only what the test starts answers on it.
class PrivateBus {
  public:
    /// On failure `whyNot` says why, for GTEST_SKIP.
    static std::unique_ptr<PrivateBus> start(std::string& whyNot);

    const std::string& address() const { return address_; }
    const std::string& folder() const { return dir_.path(); }
    /// The environment for a program on this bus (HOME and XDG folders in the test's folder).
    std::map<std::string, std::string> environment() const;

  private:
    PrivateBus() = default;
    TempDir dir_;
    std::unique_ptr<SpawnedProcess> daemon_;
    std::string address_;
};

/// A real notification server: dunst on a virtual X display (Xvfb), on `bus`.
class DunstDesktop {
  public:
    static std::unique_ptr<DunstDesktop> start(const PrivateBus& bus, std::string& whyNot);

    /// The notifications dunst received, oldest first, from `dunstctl history`
    /// after `dunstctl close-all`; absent when dunstctl fails.
    std::optional<std::vector<nlohmann::json>> received();

  private:
    explicit DunstDesktop(const PrivateBus& bus) : bus_(bus) {}
    std::optional<std::string> dunstctl(const std::string& command);

    const PrivateBus& bus_;
    std::unique_ptr<SpawnedProcess> xvfb_;
    std::unique_ptr<SpawnedProcess> dunst_;
};

/// A stand-in notification server on a private bus. `silent` takes the
/// service's name and never answers; `plain` answers like a server without
/// markup and records each Notify call it gets.
class FakeNotificationServer {
  public:
    enum class Mode { silent, plain };

    /// What one Notify call carried.
    struct Received {
        std::string appName;
        std::uint32_t replacesId = 0;
        std::string summary;
        std::string body;
        std::map<std::string, std::string> hints;

        bool operator==(const Received&) const = default;
    };

    static std::unique_ptr<FakeNotificationServer> start(const std::string& busAddress, Mode mode,
                                                         std::string& whyNot);
    ~FakeNotificationServer();
    FakeNotificationServer(const FakeNotificationServer&) = delete;
    FakeNotificationServer& operator=(const FakeNotificationServer&) = delete;

    std::vector<Received> received() const;

  private:
    FakeNotificationServer() = default;
    static int onMessage(sd_bus_message* message, void* userdata, sd_bus_error*);
    void serve();

    sd_bus* bus_ = nullptr;
    sd_bus_slot* filter_ = nullptr;
    int stopEvent_ = -1;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<Received> received_;
};

/// Whether `path` is an executable file.
bool isExecutable(const std::string& path);

}  // namespace wharfy::testing
