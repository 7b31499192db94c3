#pragma once

#include <unistd.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/ports/live_environment.h"
#include "core/ports/port_scanner.h"

namespace wharfy::testing {

/// The port scanner over the live machine, as the app keeps it: one
/// environment for every scan, so its memory of the machine is exercised.
struct LiveScanner {
    std::string home;
    uint32_t uid = ::geteuid();
    std::shared_ptr<CommandRunner> runner = std::make_shared<SystemCommandRunner>(10);
    std::unique_ptr<PortEnvironment> environment = makeLivePortEnvironment(runner);
    ListenerClassifier classifier = makeLiveClassifier(uid, home, runner);

    explicit LiveScanner(std::string h) : home(std::move(h)) {
        classifier = makeLiveClassifier(uid, home, runner);
    }
    PortScanner scanner() {
        return PortScanner(*environment, classifier,
                           ProjectResolver(home, true, &ProjectResolver::pathExists), uid);
    }
    std::vector<PortRow> scan(const CpuByProcess& cpu = {}) { return scanner().scan(cpu); }
    /// What `pid` is by the port rules, read afresh.
    ListenerRole role(int32_t pid) {
        environment->listeningSockets();  // starts a refresh
        return scanner().role(pid, 0, environment->launchdJobs());
    }
};

/// The rows on `port`.
inline std::vector<PortRow> on(uint16_t port, const std::vector<PortRow>& rows) {
    return PortScanner::rows(port, rows);
}

}  // namespace wharfy::testing
