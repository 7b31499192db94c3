#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "core/stop/stop_plan.h"

namespace wharfy {

/// What happened to a process after its one SIGTERM.
struct ProcessStopOutcome {
    /// It exited and a new process listens on the port (a supervisor restarted it).
    struct StoppedPortReopened {
        std::optional<nemarro::process::ProcessRef> by;
        bool operator==(const StoppedPortReopened&) const = default;
    };
    /// It exited, but a process that listened on the port before still does.
    struct StoppedPortStillUsed {
        std::optional<nemarro::process::ProcessRef> by;
        bool operator==(const StoppedPortStillUsed&) const = default;
    };
    /// The request was not delivered; `errnum` is the system's error number.
    struct SignalFailed {
        int32_t errnum = 0;
        bool operator==(const SignalFailed&) const = default;
    };
    struct StoppedPortFree {
        bool operator==(const StoppedPortFree&) const = default;
    };
    struct Stopped {
        bool operator==(const Stopped&) const = default;
    };
    /// Still alive when the wait ran out; no second signal is ever sent.
    struct StillRunning {
        bool operator==(const StillRunning&) const = default;
    };

    using Value = std::variant<StoppedPortReopened, StoppedPortStillUsed, SignalFailed,
                               StoppedPortFree, Stopped, StillRunning>;
    Value value = Stopped{};

    bool operator==(const ProcessStopOutcome&) const = default;

    template <typename T>
    bool is() const {
        return std::holds_alternative<T>(value);
    }
    template <typename T>
    const T* as() const {
        return std::get_if<T>(&value);
    }

    /// The sentence without the port number.
    std::string message() const;
    /// Whether the target is known to have exited.
    bool exited() const;
};

/// The result of carrying out a plan.
struct StopReport {
    StopPlan plan;
    ProcessStopOutcome outcome;
    /// Descendants of the target alive before the stop and still alive after it.
    std::vector<nemarro::process::ProcessRef> survivors;

    bool operator==(const StopReport&) const = default;

    /// The outcome's sentence, naming the plan's port when it has one. Holds
    /// machine text: make it terminal-safe before printing.
    std::string message() const;
};

}  // namespace wharfy
