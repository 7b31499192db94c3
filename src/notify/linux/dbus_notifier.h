#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "notify/notifier.h"

namespace wharfy {

/// Notifier over the desktop notification service (org.freedesktop.Notifications)
/// on a D-Bus session bus. Each call opens its own connection, so nothing is
/// kept between posts and a restarted bus or server is simply found again.
class DBusNotifier final : public Notifier {
  public:
    /// Longest wait for any one call on the bus, the connection's set-up included.
    static constexpr std::chrono::seconds kCallTimeout{2};

    /// `busAddress`: the session bus, in D-Bus address form; absent when there is none.
    explicit DBusNotifier(std::optional<std::string> busAddress)
        : busAddress_(std::move(busAddress)) {}

    /// False at once without a bus; false unless a server answers
    /// GetServerInformation, GetCapabilities and then Notify.
    bool post(const NotificationRequest& request) override;
    /// On this desktop asking is a GetCapabilities call: true when a server answers it.
    bool requestPermission() override;

  private:
    std::optional<std::string> busAddress_;
};

}  // namespace wharfy
