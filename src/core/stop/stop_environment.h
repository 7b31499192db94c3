#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/ports/port_row.h"
#include "process/identity.h"
#include "process/process_reader.h"

namespace wharfy {

/// Who listens on one TCP port.
struct PortHolders {
    /// Readable processes holding a listening socket on the port.
    std::set<int32_t> pids;
    /// Some listening socket on the port belongs to no process we can read
    /// (another user's, or the system's).
    bool hidden = false;

    bool operator==(const PortHolders&) const = default;
    bool empty() const { return pids.empty() && !hidden; }
};

/// What the stopper reads from the machine. Every failed read is absent.
class StopEnvironment {
  public:
    virtual ~StopEnvironment() = default;
    virtual std::vector<int32_t> allPIDs() = 0;
    virtual std::optional<nemarro::process::BSDInfo> process(int32_t pid) = 0;
    virtual std::optional<std::string> executablePath(int32_t pid) = 0;
    virtual std::optional<std::vector<std::string>> arguments(int32_t pid) = 0;
    /// Who holds a listening TCP socket on `port` now.
    virtual PortHolders holders(uint16_t port) = 0;
    /// What the process is, by the port rules (classification and service
    /// adjustments); `port` is absent for a stop without a port.
    virtual ListenerRole role(int32_t pid, std::optional<uint16_t> port) = 0;
};

/// Delivers the one signal Wharfy sends: SIGTERM, to one exact process.
class SignalSender {
  public:
    virtual ~SignalSender() = default;
    /// Sends SIGTERM to `target` only if the process with its pid still has
    /// its start time. 0 when delivered, else the system's error number
    /// (ESRCH when the process is gone or is no longer that process).
    virtual int terminate(const nemarro::process::ProcessIdentity& target) = 0;
};

/// The role rules as a function, so the stop code does not own them.
using RoleFunction = std::function<ListenerRole(int32_t pid, std::optional<uint16_t> port)>;

/// StopEnvironment over the live process and socket readers; roles come
/// from the injected port rules.
class LiveStopEnvironment final : public StopEnvironment {
  public:
    explicit LiveStopEnvironment(RoleFunction role) : role_(std::move(role)) {}
    std::vector<int32_t> allPIDs() override;
    std::optional<nemarro::process::BSDInfo> process(int32_t pid) override;
    std::optional<std::string> executablePath(int32_t pid) override;
    std::optional<std::vector<std::string>> arguments(int32_t pid) override;
    PortHolders holders(uint16_t port) override;
    ListenerRole role(int32_t pid, std::optional<uint16_t> port) override;

  private:
    RoleFunction role_;
};

/// The live sender. On Linux it holds a pidfd while it checks the start time
/// and signals through that handle, so a reused pid can never be hit.
class LiveSignalSender final : public SignalSender {
  public:
    int terminate(const nemarro::process::ProcessIdentity& target) override;
};

}  // namespace wharfy
