#include <systemd/sd-bus.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <system_error>

#include "suite_ui/open_requests.h"
#include "system/linux/sd_bus_handles.h"

namespace nemarro::suite_ui {
namespace {

using std::chrono::steady_clock;

constexpr const char* kPath = "/com/nemarro/suite";
constexpr const char* kInterface = "com.nemarro.suite";
constexpr const char* kMember = "Open";
// Longest wait for the bus, from connecting to the answer that ends a step.
constexpr std::chrono::seconds kTimeout{2};

using wharfy::bus::Bus;
using wharfy::bus::Message;
using wharfy::bus::Slot;

std::string errorText(int negativeErrno) {
    return std::generic_category().message(-negativeErrno);
}

/// A connection on its way to the bus; the hand-shake happens while it is driven.
Bus connect(const std::string& address, std::string& problem) {
    sd_bus* raw = nullptr;
    int r = sd_bus_new(&raw);
    if (r < 0) {
        problem = errorText(r);
        return nullptr;
    }
    Bus bus(raw);
    r = sd_bus_set_address(raw, address.c_str());
    if (r >= 0) r = sd_bus_set_bus_client(raw, 1);
    if (r >= 0) r = sd_bus_start(raw);
    if (r < 0) {
        problem = errorText(r);
        return nullptr;
    }
    return bus;
}

/// Processes the connection until `done` is set, against one deadline (a
/// plain sd_bus_call could wait without bound for the hand-shake).
bool driveUntil(sd_bus* bus, const bool& done, std::string& problem) {
    const auto deadline = steady_clock::now() + kTimeout;
    while (!done) {
        const auto left =
            std::chrono::duration_cast<std::chrono::microseconds>(deadline - steady_clock::now());
        if (left.count() <= 0) {
            problem = "the bus did not answer in time";
            return false;
        }
        int r = sd_bus_process(bus, nullptr);
        if (r < 0) {
            problem = errorText(r);
            return false;
        }
        if (r > 0) continue;
        r = sd_bus_wait(bus, static_cast<uint64_t>(left.count()));
        if (r < 0 && r != -EINTR) {
            problem = errorText(r);
            return false;
        }
    }
    return true;
}

/// The answer to the one call a step waits for.
struct Answer {
    bool done = false;
    std::string error;
};

int onAnswer(sd_bus_message* message, void* userdata, sd_bus_error*) {
    auto* answer = static_cast<Answer*>(userdata);
    answer->done = true;
    if (const sd_bus_error* error = sd_bus_message_get_error(message))
        answer->error = error->message ? error->message : error->name;
    return 1;
}

/// What the listening connection shares with its callbacks. Requests are only
/// counted here; the loop acts on them after processing.
struct Listener {
    Answer installed;
    int requests = 0;
};

int onOpenSignal(sd_bus_message*, void* userdata, sd_bus_error*) {
    ++static_cast<Listener*>(userdata)->requests;
    return 0;
}

int onMatchInstalled(sd_bus_message* message, void* userdata, sd_bus_error* error) {
    return onAnswer(message, &static_cast<Listener*>(userdata)->installed, error);
}

/// A connection whose match for this app's requests is in place.
struct Listening {
    std::unique_ptr<Listener> listener;
    Bus bus;
    Slot match;
    std::string problem;
};

Listening listen(const std::string& address, const std::string& appId) {
    Listening result;
    result.listener = std::make_unique<Listener>();
    result.bus = connect(address, result.problem);
    if (!result.bus) return result;
    const std::string rule = std::string("type='signal',path='") + kPath + "',interface='" +
                             kInterface + "',member='" + kMember + "',arg0='" + appId + "'";
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_add_match_async(result.bus.get(), &slot, rule.c_str(), onOpenSignal,
                                   onMatchInstalled, result.listener.get());
    if (r < 0) {
        result.problem = errorText(r);
        result.bus.reset();
        return result;
    }
    result.match.reset(slot);
    const Answer& installed = result.listener->installed;
    if (!driveUntil(result.bus.get(), installed.done, result.problem) || !installed.error.empty()) {
        if (result.problem.empty()) result.problem = installed.error;
        result.match.reset();
        result.bus.reset();
    }
    return result;
}

/// Sends the request, then waits for the bus to answer a call sent after it:
/// the bus handles a connection's messages in order, so the signal is out.
std::optional<std::string> sendOpen(const std::string& address, const std::string& appId) {
    std::string problem;
    Bus bus = connect(address, problem);
    if (!bus) return problem;
    int r = sd_bus_emit_signal(bus.get(), kPath, kInterface, kMember, "s", appId.c_str());
    if (r < 0) return errorText(r);
    sd_bus_message* raw = nullptr;
    r = sd_bus_message_new_method_call(bus.get(), &raw, "org.freedesktop.DBus",
                                       "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId");
    if (r < 0) return errorText(r);
    Message call(raw);
    Answer answer;
    sd_bus_slot* rawSlot = nullptr;
    r = sd_bus_call_async(bus.get(), &rawSlot, call.get(), onAnswer, &answer,
                          std::chrono::microseconds(kTimeout).count());
    if (r < 0) return errorText(r);
    Slot slot(rawSlot);
    if (!driveUntil(bus.get(), answer.done, problem)) return problem;
    if (!answer.error.empty()) return answer.error;
    return std::nullopt;
}

class DBusOpenRequests final : public OpenRequests {
  public:
    DBusOpenRequests(wharfy::app::EventLoop& loop, std::optional<std::string> busAddress,
                     suite::SuiteApp app, std::function<void()> onOpen, Log log)
        : loop_(loop),
          address_(std::move(busAddress)),
          onOpen_(std::move(onOpen)),
          log_(std::move(log)) {
        if (!address_) {
            unavailable();
            return;
        }
        // Connecting waits on the bus, so it happens off the loop.
        wharfy::app::runInBackground(
            loop_, alive_,
            [address = *address_, id = std::string(suite::id(app))] {
                return std::make_shared<Listening>(listen(address, id));
            },
            [this](std::shared_ptr<Listening> listening) { attach(std::move(*listening)); });
    }
    ~DBusOpenRequests() override { detach(); }
    DBusOpenRequests(const DBusOpenRequests&) = delete;
    DBusOpenRequests& operator=(const DBusOpenRequests&) = delete;

    void requestOpen(suite::SuiteApp app) override {
        if (!address_) {
            unavailable();
            return;
        }
        wharfy::app::runInBackground(
            loop_, alive_,
            [address = *address_, id = std::string(suite::id(app))] {
                return sendOpen(address, id);
            },
            [this](const std::optional<std::string>& problem) {
                if (problem && log_) log_("suite open request not sent: " + *problem);
            });
    }

  private:
    void unavailable() {
        if (loggedUnavailable_) return;
        loggedUnavailable_ = true;
        if (log_) log_("suite open requests unavailable: no session bus");
    }

    void attach(Listening listening) {
        if (!listening.bus) {
            if (log_) log_("suite open requests unavailable: " + listening.problem);
            return;
        }
        listening_ = std::move(listening);
        fd_ = sd_bus_get_fd(listening_.bus.get());
        if (fd_ < 0) {
            fail(errorText(fd_));
            return;
        }
        loop_.watch(fd_, [this] { pump(); });
        pump();
    }

    void pump() {
        for (;;) {
            const int r = sd_bus_process(listening_.bus.get(), nullptr);
            if (r < 0) {
                fail(errorText(r));
                return;
            }
            if (r == 0) break;
        }
        if (listening_.listener->requests == 0) return;
        listening_.listener->requests = 0;
        // On its own turn: opening may well end this listener.
        loop_.post([alive = std::weak_ptr<int>(alive_), onOpen = onOpen_] {
            if (alive.lock() && onOpen) onOpen();
        });
    }

    void fail(const std::string& problem) {
        detach();
        if (log_) log_("suite open requests stopped: " + problem);
    }

    void detach() {
        if (fd_ >= 0) loop_.unwatch(fd_);
        fd_ = -1;
        listening_.match.reset();
        listening_.bus.reset();
    }

    wharfy::app::EventLoop& loop_;
    std::optional<std::string> address_;
    std::function<void()> onOpen_;
    Log log_;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
    Listening listening_;
    int fd_ = -1;
    bool loggedUnavailable_ = false;
};

}  // namespace

std::unique_ptr<OpenRequests> openRequestsOverDBus(wharfy::app::EventLoop& loop,
                                                   std::optional<std::string> busAddress,
                                                   suite::SuiteApp app,
                                                   std::function<void()> onOpen, Log log) {
    return std::make_unique<DBusOpenRequests>(loop, std::move(busAddress), app, std::move(onOpen),
                                              std::move(log));
}

}  // namespace nemarro::suite_ui
