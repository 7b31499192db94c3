#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "core/ports/port_row.h"
#include "process/identity.h"

namespace wharfy {

/// Why a stop was refused; nothing is signalled on a refusal.
struct StopRefusal {
    /// Its role says how to stop it properly instead.
    struct NotAPlainProcess {
        ListenerRole role;
        bool operator==(const NotAPlainProcess&) const = default;
    };
    /// A shell, terminal, multiplexer, login process, init or Wharfy itself.
    struct ProtectedProgram {
        std::string name;
        bool operator==(const ProtectedProgram&) const = default;
    };
    struct NotYours {
        bool operator==(const NotYours&) const = default;
    };
    /// The pid now belongs to another process than the one shown.
    struct IdentityChanged {
        bool operator==(const IdentityChanged&) const = default;
    };
    struct Gone {
        bool operator==(const Gone&) const = default;
    };

    using Value = std::variant<NotAPlainProcess, ProtectedProgram, NotYours, IdentityChanged, Gone>;
    Value value;

    bool operator==(const StopRefusal&) const = default;

    template <typename T>
    bool is() const {
        return std::holds_alternative<T>(value);
    }

    /// The sentence shown to the user. Holds machine text (names): make it
    /// terminal-safe before printing.
    std::string message() const;
};

/// The message for a role that may not be stopped directly (empty for a plain process).
std::string refusalMessage(const ListenerRole& role);

/// Exactly which process a confirmed stop will signal, and why.
struct StopPlan {
    /// The process that receives SIGTERM.
    nemarro::process::ProcessRef target;
    /// The process the user picked; equals `target` unless the request moved to a parent.
    nemarro::process::ProcessRef shown;
    /// The target's ancestors, nearest first, for context.
    std::vector<nemarro::process::ProcessRef> chain;
    /// The port the user acted on.
    std::optional<uint16_t> port;
    std::optional<ProjectInfo> project;
    /// Why the request goes to a parent, when it does.
    std::optional<std::string> promotionReason;
    /// The service label, when one is involved.
    std::optional<std::string> label;

    bool operator==(const StopPlan&) const = default;

    /// The confirmation text. Holds machine text: make it terminal-safe before printing.
    std::string summary() const;
};

}  // namespace wharfy
