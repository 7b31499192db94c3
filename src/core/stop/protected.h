#pragma once

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/ports/shell_names.h"

namespace wharfy {

/// Programs Wharfy never stops: shells, terminals, multiplexers, login
/// processes, init, the desktop shell and Wharfy itself. The shells are the
/// ones the port rules know (shellNames()).
struct Protected {
    /// Terminals, multiplexers, login and session programs, and this executable.
    static constexpr std::array<std::string_view, 32> others{
        "tmux",           "screen", "byobu",        "zellij",      "mosh-server",
        "mosh",           "sshd",   "sshd-session", "login",       "launchd",
        "terminal",       "iterm2", "iterm",        "warp",        "ghostty",
        "alacritty",      "kitty",  "wezterm",      "hyper",       "nemarrowharfy",
        "systemd",        "init",   "gnome-shell",  "plasmashell", "gnome-terminal-server",
        "konsole",        "xterm",  "foot",         "tilix",       "terminator",
        "xfce4-terminal", "wharfy"};

    /// Lower-cased, one leading "-" removed (login shells), cut at the first ":".
    static std::string normalize(std::string_view name) { return normalizedProgramName(name); }

    /// Whether the normalised `name` is one of the shells.
    static bool isShell(std::string_view name) { return isShellName(normalize(name)); }

    /// Whether the normalised name, or the normalised last component of the
    /// executable path, is a shell or one of the other protected programs.
    static bool matches(std::string_view name, const std::optional<std::string>& path) {
        if (isProtectedName(normalize(name))) return true;
        if (!path) return false;
        std::string_view p = *path;
        auto slash = p.rfind('/');
        std::string_view last = slash == std::string_view::npos ? p : p.substr(slash + 1);
        return !last.empty() && isProtectedName(normalize(last));
    }

  private:
    static bool isProtectedName(std::string_view n) {
        return isShellName(n) || std::find(others.begin(), others.end(), n) != others.end();
    }
};

/// Whether a shell runs a command for someone else ("sh -c ...", "bash
/// script.sh") rather than serving a person at a prompt. Only shells qualify.
inline bool isCommandWrapper(std::string_view name, const std::vector<std::string>& commandLine) {
    return Protected::isShell(name) && isCommandWrapper(commandLine);
}

}  // namespace wharfy
