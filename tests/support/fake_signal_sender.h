#pragma once

#include <functional>
#include <vector>

#include "core/stop/stop_environment.h"

namespace wharfy::testing {

/// Records every SIGTERM asked for. Answers `result`, or passes the request
/// on to `forward` (a live sender in real-process tests); `onSend` lets a
/// test play what the machine does next (the target exits, a supervisor
/// restarts it).
class RecordingSignalSender final : public SignalSender {
  public:
    std::vector<nemarro::process::ProcessIdentity> sent;
    int result = 0;
    SignalSender* forward = nullptr;
    std::function<void(const nemarro::process::ProcessIdentity&)> onSend;

    int terminate(const nemarro::process::ProcessIdentity& target) override {
        sent.push_back(target);
        int r = forward ? forward->terminate(target) : result;
        if (onSend) onSend(target);
        return r;
    }
};

}  // namespace wharfy::testing
