#pragma once

#include <memory>
#include <string>

#include "core/ports/classifier.h"
#include "core/ports/port_environment.h"
#include "core/stop/command_runner.h"

namespace wharfy {

/// The machine as the port rules see it on this platform. Keep one for the
/// life of the program: it remembers which processes hold which sockets so
/// that a refresh reads only what changed.
std::unique_ptr<PortEnvironment> makeLivePortEnvironment(std::shared_ptr<CommandRunner> runner);

/// This platform's service-manager labels.
std::shared_ptr<const ServiceLabels> platformServiceLabels();

/// A classifier for this machine: its service labels, its system-program
/// check behind a shared cache, and keeps-alive answers through `runner`.
ListenerClassifier makeLiveClassifier(uint32_t uid, const std::string& home,
                                      std::shared_ptr<CommandRunner> runner);

}  // namespace wharfy
