#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace wharfy {

/// One desktop notification as the app model asks for it: built from an alert.
struct NotificationRequest {
    std::string title;
    std::string body;
    /// Unique per post, so that the desktop never merges two alerts; see
    /// `notificationIdentifier`.
    std::string identifier;

    bool operator==(const NotificationRequest&) const = default;
};

/// The identifier of a notification: the alert kind's name, "-", and the time
/// in seconds since 1970 as a decimal number ("runawaySession-1767225600.25").
std::string notificationIdentifier(std::string_view kindName, double secondsSince1970);

/// `text` with "&", "<" and ">" written as entities, for a server that reads
/// notification bodies as markup.
std::string escapeBodyMarkup(std::string_view text);

/// Shows desktop notifications. Calls block (each is bounded by a time-out);
/// `BackgroundNotifier` takes them off the caller's thread.
class Notifier {
  public:
    virtual ~Notifier() = default;
    /// Posts one notification; true when the desktop accepted it.
    virtual bool post(const NotificationRequest& request) = 0;
    /// Asks the desktop for permission to show notifications; true when it answered.
    virtual bool requestPermission() = 0;
};

/// The notifier of this desktop, set up from the process's environment.
std::unique_ptr<Notifier> makeDesktopNotifier();

/// A persisted yes/no setting, such as whether permission was already asked.
class FlagStore {
  public:
    virtual ~FlagStore() = default;
    virtual bool get() const = 0;
    virtual void set(bool value) = 0;
};

/// Asks for notification permission at most once per user: when `asked` is
/// already set, does nothing; otherwise sets it first and then calls `ask`, so
/// that a refused or dismissed request is never repeated. Returns whether it asked.
template <typename Ask>
bool askForNotificationPermissionOnce(FlagStore& asked, Ask&& ask) {
    if (asked.get()) return false;
    asked.set(true);
    ask();
    return true;
}

}  // namespace wharfy
