#include "app/app_paths.h"

#include <cstdlib>

namespace wharfy::app {

AppPaths AppPaths::resolve(const Lookup& variable, const std::string& home) {
    auto base = [&](const char* name, const char* fallback) -> std::optional<std::string> {
        if (auto value = variable(name); value && value->starts_with('/')) return *value;
        if (!fallback) return std::nullopt;
        return home + fallback;
    };
    AppPaths paths;
    paths.settingsFile = *base("XDG_CONFIG_HOME", "/.config") + "/wharfy/settings.json";
    paths.stateFolder = *base("XDG_STATE_HOME", "/.local/state") + "/wharfy";
    if (auto runtime = base("XDG_RUNTIME_DIR", nullptr))
        paths.primaryLock = *runtime + "/wharfy/primary.lock";
    else
        paths.primaryLock = paths.stateFolder + "/primary.lock";
    paths.logFile = paths.stateFolder + "/wharfy.log";
    return paths;
}

AppPaths AppPaths::live(const std::string& home) {
    return resolve(
        [](const char* name) -> std::optional<std::string> {
            if (const char* value = std::getenv(name)) return std::string(value);
            return std::nullopt;
        },
        home);
}

}  // namespace wharfy::app
