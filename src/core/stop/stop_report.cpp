#include "core/stop/stop_report.h"

#include <system_error>
#include <type_traits>

namespace wharfy {

using nemarro::process::ProcessRef;

namespace {

// The port sentences share their tails with the portless ones; `head` is
// what comes before the tail ("Stopped, but the port" or "Stopped, but port 3000").
std::string reopened(const std::string& head, const std::optional<ProcessRef>& by) {
    return head + " is open again" + (by ? " \u2014 " + by->name + " started it again." : ".");
}

std::string stillUsed(const std::string& head, const std::optional<ProcessRef>& by) {
    return head + " is still used by" + (by ? " " + by->name + "." : " another process.");
}

}  // namespace

std::string ProcessStopOutcome::message() const {
    return std::visit(
        [](const auto& o) -> std::string {
            using T = std::decay_t<decltype(o)>;
            if constexpr (std::is_same_v<T, StoppedPortReopened>) {
                return reopened("Stopped, but the port", o.by);
            } else if constexpr (std::is_same_v<T, StoppedPortStillUsed>) {
                return stillUsed("Stopped. The port", o.by);
            } else if constexpr (std::is_same_v<T, SignalFailed>) {
                return "The stop request could not be delivered (" +
                       std::generic_category().message(o.errnum) + ").";
            } else if constexpr (std::is_same_v<T, StoppedPortFree>) {
                return "Stopped. The port is free.";
            } else if constexpr (std::is_same_v<T, Stopped>) {
                return "Stopped.";
            } else {
                // Fixed at 10 s whatever the configured wait: it is the figure the user knows.
                return "Still running after 10 s \u2014 it may be saving its work; check its "
                       "terminal.";
            }
        },
        value);
}

bool ProcessStopOutcome::exited() const {
    return !is<SignalFailed>() && !is<StillRunning>();
}

std::string StopReport::message() const {
    if (!plan.port) return outcome.message();
    std::string port = std::to_string(*plan.port);
    if (auto o = outcome.as<ProcessStopOutcome::StoppedPortReopened>())
        return reopened("Stopped, but port " + port, o->by);
    if (auto o = outcome.as<ProcessStopOutcome::StoppedPortStillUsed>())
        return stillUsed("Stopped. Port " + port, o->by);
    if (outcome.is<ProcessStopOutcome::StoppedPortFree>())
        return "Stopped. Port " + port + " is free.";
    return outcome.message();
}

}  // namespace wharfy
