#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "core/ports/classifier.h"
#include "core/ports/port_environment.h"
#include "system/command_runner.h"

namespace wharfy {

/// The machine as the port rules see it on this platform. Keep one for the
/// life of the program: it remembers which processes hold which sockets so
/// that a refresh reads only what changed.
std::unique_ptr<PortEnvironment> makeLivePortEnvironment(std::shared_ptr<CommandRunner> runner);

/// This platform's service-manager labels.
std::shared_ptr<const ServiceLabels> platformServiceLabels();

/// A classifier for this machine: its service labels and its table of system
/// programs, with keeps-alive answers through `runner`.
ListenerClassifier makeLiveClassifier(uint32_t uid, const std::string& home,
                                      std::shared_ptr<CommandRunner> runner);

/// The port role rules over this machine, for planning a stop: what the
/// process `pid` is when it listens on `port` (0 for a stop without a port).
/// Every call reads the machine afresh.
std::function<ListenerRole(int32_t pid, std::optional<uint16_t> port)> makeLiveRoleRules(
    uint32_t uid, const std::string& home, std::shared_ptr<CommandRunner> runner);

}  // namespace wharfy
