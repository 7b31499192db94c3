#include "app/live_parts.h"

#include <nlohmann/json.hpp>

#include <cstdlib>

#include "app/model/live_machine_actions.h"
#include "app/model/live_machine_reader.h"
#include "app/settings_file.h"

namespace wharfy::app {

std::optional<std::string> xdgRuntimeDir() {
    if (const char* dir = std::getenv("XDG_RUNTIME_DIR"); dir && *dir) return std::string(dir);
    return std::nullopt;
}

AppModelParts liveModelParts(const UserContext& user, const AppPaths& paths,
                             const LaunchOptions& options,
                             std::function<void(const std::string&)> log) {
    AppModelParts parts;
    parts.reader = std::make_shared<LiveMachineReader>(user.uid, user.home, xdgRuntimeDir());
    parts.actions = std::make_shared<LiveMachineActions>(user.uid, user.home);
    parts.notifier = makeDesktopNotifier();
    parts.history = std::make_shared<StoreHistoryAccess>(liveHistoryStore(user.home));
    parts.settings = std::make_shared<SettingsFile>(paths.settingsFile);
    parts.options = options;
    parts.log = std::move(log);
    return parts;
}

}  // namespace wharfy::app
