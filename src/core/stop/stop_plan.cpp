#include "core/stop/stop_plan.h"

#include <type_traits>

#include "core/ports/platform_words.h"

namespace wharfy {

using nemarro::process::ProcessRef;

namespace {

constexpr const char* kNotYours =
    "This process belongs to another user or to the system, so Wharfy does not stop it.";

std::string withPid(const ProcessRef& ref) {
    return ref.name + " (pid " + std::to_string(ref.identity.pid) + ")";
}

}  // namespace

std::string refusalMessage(const ListenerRole& role) {
    return std::visit(
        [](const auto& r) -> std::string {
            using T = std::decay_t<decltype(r)>;
            if constexpr (std::is_same_v<T, ListenerRole::AppleSystem>) {
                std::string m = platformWords().partOfOS;
                if (r.fix) m += " To turn it off: " + *r.fix + ".";
                return m;
            } else if constexpr (std::is_same_v<T, ListenerRole::ContainerForwarder>) {
                return "A container runtime holds this port. Stop the container instead.";
            } else if constexpr (std::is_same_v<T, ListenerRole::PartOfApp>) {
                return "Part of " + r.name + ". Quit " + r.name + " instead.";
            } else if constexpr (std::is_same_v<T, ListenerRole::BackgroundService>) {
                return "Restarts automatically. Stop it with its service tool: " + r.stopCommand;
            } else if constexpr (std::is_same_v<T, ListenerRole::PlainProcess>) {
                return "";
            } else {
                return kNotYours;
            }
        },
        role.value);
}

std::string StopRefusal::message() const {
    return std::visit(
        [](const auto& r) -> std::string {
            using T = std::decay_t<decltype(r)>;
            if constexpr (std::is_same_v<T, NotAPlainProcess>) {
                return refusalMessage(r.role);
            } else if constexpr (std::is_same_v<T, ProtectedProgram>) {
                return "Wharfy never stops " + r.name + ".";
            } else if constexpr (std::is_same_v<T, NotYours>) {
                return kNotYours;
            } else if constexpr (std::is_same_v<T, IdentityChanged>) {
                return "This is no longer the process that was shown. Refresh the list.";
            } else {
                return "This process has already exited.";
            }
        },
        value);
}

// After the fixed opening, each fact the user should weigh before confirming
// is its own sentence, in the order they matter: why the request moved to a
// parent (with the process that was picked), what started the target, and
// the project it serves.
std::string StopPlan::summary() const {
    std::string s = "Send the polite stop request (SIGTERM) to " + withPid(target) + ".";
    if (promotionReason) {
        s += " You picked " + withPid(shown) + "; " + *promotionReason;
    }
    if (!chain.empty()) {
        s += " Started by ";
        for (size_t i = 0; i < chain.size(); ++i) {
            if (i > 0) s += ", under ";
            s += withPid(chain[i]);
        }
        s += ".";
    }
    if (project) s += " Project: " + project->path + ".";
    return s;
}

}  // namespace wharfy
