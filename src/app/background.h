#pragma once

#include "app/launch_options.h"
#include "app/ports_command.h"
#include "app/suite_link.h"

namespace wharfy::app {

/// `wharfy --background`: the model with no view, refreshing every 60 s and
/// loading the disk sizes each time, so that storage alerts can fire. Only
/// the instance holding the primary lock reads and records anything; a second
/// one waits, says so once, and takes over when the first ends. SIGTERM,
/// SIGINT and SIGHUP end it at once, the lock released; SIGUSR1 refreshes at
/// once. The primary instance takes part in the suite in `suite`'s folders
/// (it has no surface, so it never hosts the shared readout). Messages go to
/// standard error, which the service manager keeps in its journal.
int runBackground(const UserContext& user, const LaunchOptions& options,
                  const SuiteFolderChoice& suite);

}  // namespace wharfy::app
