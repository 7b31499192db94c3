#pragma once

#include <functional>
#include <optional>
#include <string>

namespace wharfy::app {

/// Where the app keeps its files, from the XDG base-directory variables.
/// A variable counts only when it holds an absolute path.
struct AppPaths {
    /// "$XDG_CONFIG_HOME/wharfy/settings.json" (~/.config by default).
    std::string settingsFile;
    /// "$XDG_STATE_HOME/wharfy" (~/.local/state by default).
    std::string stateFolder;
    /// "$XDG_RUNTIME_DIR/wharfy/primary.lock", else in the state folder.
    std::string primaryLock;
    /// The log of a process whose terminal shows the interface.
    std::string logFile;

    bool operator==(const AppPaths&) const = default;

    /// `variable` answers an environment variable's value, absent when unset.
    using Lookup = std::function<std::optional<std::string>(const char* variable)>;
    static AppPaths resolve(const Lookup& variable, const std::string& home);
    /// From this process's environment.
    static AppPaths live(const std::string& home);
};

}  // namespace wharfy::app
