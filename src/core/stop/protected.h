#pragma once

// Header-only on purpose: the port classifier needs the shell set and the
// command-wrapper rule too, and must not link the stop library for them.

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wharfy {

/// Programs Wharfy never stops: shells, terminals, multiplexers, login
/// processes, init, the desktop shell and Wharfy itself.
struct Protected {
    /// The shells, by normalised name.
    static constexpr std::array<std::string_view, 15> shells{
        "sh",    "bash", "zsh", "fish", "dash",  "ksh",  "mksh",  "yash",
        "rbash", "tcsh", "csh", "nu",   "xonsh", "pwsh", "elvish"};

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
    static std::string normalize(std::string_view name) {
        std::string out(name);
        std::transform(out.begin(), out.end(), out.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (!out.empty() && out.front() == '-') out.erase(0, 1);
        if (auto colon = out.find(':'); colon != std::string::npos) out.resize(colon);
        return out;
    }

    /// Whether the normalised `name` is one of the shells.
    static bool isShell(std::string_view name) { return contains(shells, normalize(name)); }

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
    template <size_t N>
    static bool contains(const std::array<std::string_view, N>& set, std::string_view name) {
        return std::find(set.begin(), set.end(), name) != set.end();
    }
    static bool isProtectedName(std::string_view n) {
        return contains(shells, n) || contains(others, n);
    }
};

/// Whether a shell runs a command for someone else ("sh -c ...", "bash script.sh")
/// rather than serving a person at a prompt. Needs at least two elements on
/// the command line; after the first, an option cluster holding "c" (-c, -lc,
/// -ec) or an argument that is not an option (a script) makes it a wrapper.
/// A shell with only options (-l, -i) is interactive. Only shells qualify.
inline bool isCommandWrapper(std::string_view name, const std::vector<std::string>& commandLine) {
    if (!Protected::isShell(name) || commandLine.size() < 2) return false;
    for (size_t i = 1; i < commandLine.size(); ++i) {
        std::string_view a = commandLine[i];
        if (a.empty() || a.front() != '-') return true;
        bool cluster = a.size() > 1 && std::all_of(a.begin() + 1, a.end(), [](unsigned char c) {
                           return std::isalpha(c) != 0;
                       });
        if (cluster && a.find('c', 1) != std::string_view::npos) return true;
    }
    return false;
}

}  // namespace wharfy
