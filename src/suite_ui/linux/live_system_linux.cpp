#include <cstdlib>

#include "suite_ui/suite_participant.h"

namespace nemarro::suite_ui {

ParticipantSystem ParticipantSystem::live(wharfy::app::EventLoop& loop, Log log) {
    ParticipantSystem system;
    system.lockFiles = suite::liveLockFiles();
    system.watchFolders = [&loop, log](const std::vector<std::string>& folders,
                                       std::function<void()> changed) {
        return watchWithInotify(loop, folders, std::move(changed), log);
    };
    std::optional<std::string> bus;
    if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address)
        bus = address;
    system.openRequests = [&loop, bus, log](suite::SuiteApp app, std::function<void()> onOpen) {
        return openRequestsOverDBus(loop, bus, app, std::move(onOpen), log);
    };
    system.clocks = readSystemClocks;
    return system;
}

}  // namespace nemarro::suite_ui
