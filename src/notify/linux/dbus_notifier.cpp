#include "notify/linux/dbus_notifier.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "common/text.h"
#include "system/linux/sd_bus_handles.h"

namespace wharfy {
namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kObject = "/org/freedesktop/Notifications";
constexpr const char* kInterface = "org.freedesktop.Notifications";
constexpr const char* kAppName = "Wharfy";
constexpr const char* kDesktopEntry = "wharfy";
constexpr std::int32_t kServerDefaultExpiry = -1;

using bus::Bus;
using bus::Message;
using bus::Slot;

Bus connect(const std::string& address) {
    sd_bus* raw = nullptr;
    if (sd_bus_new(&raw) < 0) return nullptr;
    Bus bus(raw);
    if (sd_bus_set_address(raw, address.c_str()) < 0 || sd_bus_set_bus_client(raw, 1) < 0 ||
        sd_bus_start(raw) < 0)
        return nullptr;
    return bus;
}

Message newCall(sd_bus* bus, const char* member) {
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_call(bus, &raw, kService, kObject, kInterface, member) < 0)
        return nullptr;
    return Message(raw);
}

struct PendingReply {
    bool done = false;
    Message reply;
};

int onReply(sd_bus_message* message, void* userdata, sd_bus_error*) {
    auto* pending = static_cast<PendingReply*>(userdata);
    pending->done = true;
    if (!sd_bus_message_is_method_error(message, nullptr))
        pending->reply.reset(sd_bus_message_ref(message));
    return 1;
}

// The successful reply to `call`, or absent for an error, a lost connection or
// the time-out. sd_bus_call would wait without bound for the connection's
// hand-shake with the bus, so the wait is driven here against one deadline.
Message callWithin(sd_bus* bus, sd_bus_message* call) {
    using std::chrono::steady_clock;
    const auto timeout = std::chrono::microseconds(DBusNotifier::kCallTimeout);
    PendingReply pending;
    sd_bus_slot* rawSlot = nullptr;
    if (sd_bus_call_async(bus, &rawSlot, call, onReply, &pending,
                          static_cast<std::uint64_t>(timeout.count())) < 0)
        return nullptr;
    Slot slot(rawSlot);
    const auto deadline = steady_clock::now() + timeout;
    while (!pending.done) {
        int r = sd_bus_process(bus, nullptr);
        if (r < 0) return nullptr;
        if (r > 0) continue;
        auto left =
            std::chrono::duration_cast<std::chrono::microseconds>(deadline - steady_clock::now());
        if (left.count() <= 0) return nullptr;
        r = sd_bus_wait(bus, static_cast<std::uint64_t>(left.count()));
        if (r < 0 && r != -EINTR) return nullptr;
    }
    return std::move(pending.reply);
}

bool serverAnswers(sd_bus* bus) {
    Message call = newCall(bus, "GetServerInformation");
    return call && callWithin(bus, call.get()) != nullptr;
}

std::optional<std::vector<std::string>> capabilities(sd_bus* bus) {
    Message call = newCall(bus, "GetCapabilities");
    Message reply = call ? callWithin(bus, call.get()) : nullptr;
    if (!reply) return std::nullopt;
    char** names = nullptr;
    if (sd_bus_message_read_strv(reply.get(), &names) < 0) return std::nullopt;
    std::vector<std::string> result;
    for (char** name = names; name != nullptr && *name != nullptr; ++name) {
        result.emplace_back(*name);
        std::free(*name);
    }
    std::free(static_cast<void*>(names));
    return result;
}

Message notifyCall(sd_bus* bus, const NotificationRequest& request, bool bodyIsMarkup) {
    // The bus refuses strings that are not UTF-8, and machine text need not be.
    const std::string summary = repairUtf8(request.title);
    const std::string plainBody = repairUtf8(request.body);
    const std::string body = bodyIsMarkup ? escapeBodyMarkup(plainBody) : plainBody;
    const std::string identifier = repairUtf8(request.identifier);
    Message call = newCall(bus, "Notify");
    if (!call) return nullptr;
    const std::uint32_t replacesNothing = 0;
    int r = sd_bus_message_append(call.get(), "susss", kAppName, replacesNothing, "",
                                  summary.c_str(), body.c_str());
    if (r >= 0) r = sd_bus_message_append(call.get(), "as", 0);
    if (r >= 0)
        r = sd_bus_message_append(call.get(), "a{sv}", 2, "desktop-entry", "s", kDesktopEntry,
                                  "x-wharfy-id", "s", identifier.c_str());
    if (r >= 0) r = sd_bus_message_append(call.get(), "i", kServerDefaultExpiry);
    return r >= 0 ? std::move(call) : nullptr;
}

}  // namespace

bool DBusNotifier::post(const NotificationRequest& request) {
    if (!busAddress_) return false;
    Bus bus = connect(*busAddress_);
    if (!bus || !serverAnswers(bus.get())) return false;
    auto names = capabilities(bus.get());
    if (!names) return false;
    bool markup = std::find(names->begin(), names->end(), "body-markup") != names->end();
    Message call = notifyCall(bus.get(), request, markup);
    return call && callWithin(bus.get(), call.get()) != nullptr;
}

bool DBusNotifier::requestPermission() {
    if (!busAddress_) return false;
    Bus bus = connect(*busAddress_);
    return bus && capabilities(bus.get()).has_value();
}

std::unique_ptr<Notifier> makeDesktopNotifier() {
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    std::optional<std::string> bus;
    if (address != nullptr && *address != '\0') bus = address;
    return std::make_unique<DBusNotifier>(std::move(bus));
}

}  // namespace wharfy
