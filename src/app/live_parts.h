#pragma once

#include <functional>
#include <string>

#include "app/app_paths.h"
#include "app/launch_options.h"
#include "app/model/app_model.h"
#include "app/ports_command.h"

namespace wharfy::app {

/// The model's parts over this machine and this user's files: the live
/// machine reader and actions, the desktop notifier, the history folder and
/// the settings file. `log` takes what the model reports on its own.
AppModelParts liveModelParts(const UserContext& user, const AppPaths& paths,
                             const LaunchOptions& options,
                             std::function<void(const std::string&)> log);

/// $XDG_RUNTIME_DIR when set.
std::optional<std::string> xdgRuntimeDir();

}  // namespace wharfy::app
