#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "core/ports/port_environment.h"
#include "core/ports/port_row.h"
#include "core/ports/service_labels.h"

namespace wharfy {

/// What the classifier knows of one listening process.
struct ListenerFacts {
    int32_t pid = 0;
    uint16_t port = 0;
    std::string name;
    std::optional<std::string> executablePath;
    /// Empty when unreadable.
    std::vector<std::string> arguments;
    std::optional<std::string> launchdLabel;

    bool operator==(const ListenerFacts&) const = default;
};

/// Remembers, per (path, size, modification time), whether a program is the
/// operating system's own, so the costly check runs again only when the file
/// changes. Shared by every copy of the classifier; the lock is held only
/// around the map, never around the check. Holds at most `capacity`
/// verdicts, forgetting the oldest first: a program that was replaced leaves
/// its old entry behind, and a process that runs for days must not collect them.
class SignatureCache {
  public:
    struct Stamp {
        uint64_t size = 0;
        int64_t modified = 0;
        bool operator==(const Stamp&) const = default;
    };
    SignatureCache(std::function<bool(const std::string&)> check,
                   std::function<std::optional<Stamp>(const std::string&)> stamp,
                   size_t capacity = 1024);
    /// The cached or freshly computed verdict; false when the file cannot be read.
    bool verdict(const std::string& path);
    /// How many verdicts are held.
    size_t size() const;

  private:
    using Key = std::tuple<std::string, uint64_t, int64_t>;
    std::function<bool(const std::string&)> check_;
    std::function<std::optional<Stamp>(const std::string&)> stamp_;
    size_t capacity_;
    mutable std::mutex mutex_;
    std::map<Key, bool> verdicts_;
    std::deque<Key> order_;
};

/// Decides what kind of thing a listening process is.
class ListenerClassifier {
  public:
    /// `isSystemSigned`: whether a program carries the operating system
    /// vendor's signature (empty where programs carry none).
    /// `keepsAlive`: whether the service manager restarts a labelled job.
    ListenerClassifier(uint32_t uid, std::string home, std::shared_ptr<const ServiceLabels> labels,
                       std::function<bool(const std::string&)> isSystemSigned,
                       std::function<std::optional<bool>(const std::string&)> keepsAlive);

    /// A copy for one refresh: it asks the service manager whether a job
    /// is kept alive at most once per label, however many rows name it.
    ListenerClassifier forOneRefresh() const;

    ListenerRole classify(const ListenerFacts& facts) const;

    /// "Docker Desktop", "OrbStack", "Colima", "Docker Engine" or "Podman".
    std::optional<std::string> containerRuntime(const ListenerFacts& facts) const;
    /// Whether the program at `path`, run under `label`, is the operating system's.
    bool isAppleProgram(const std::string& path, const std::optional<std::string>& label) const;
    std::optional<std::string> appName(const ListenerFacts& facts) const;

    /// A label that makes its job the operating system's, whatever its program.
    bool isSystemJob(const std::string& label) const;
    /// A label of a job that is neither the system's nor a desktop app's.
    bool isServiceJob(const std::string& label) const;
    /// The background-service role of a label, with its stop command.
    ListenerRole serviceRole(const std::string& label) const;

    const ServiceLabels& labels() const { return *labels_; }
    uint32_t uid() const { return uid_; }

  private:
    uint32_t uid_;
    std::string home_;
    std::shared_ptr<const ServiceLabels> labels_;
    std::function<bool(const std::string&)> isSystemSigned_;
    std::function<std::optional<bool>(const std::string&)> keepsAlive_;
};

/// Adjusts roles with what the process's ancestors say about it.
class RoleResolver {
  public:
    RoleResolver(PortEnvironment& environment, const ListenerClassifier& classifier)
        : environment_(environment), classifier_(classifier) {}

    /// Whether a process inside an app's folder was started by that app.
    bool isRunByItsApp(int32_t pid, const std::optional<std::string>& path,
                       const LaunchdJobs& jobs) const;
    /// Walks up to 8 ancestors for a job that owns the process: a service
    /// that would restart it, or a base-system unit. Stops at an interactive
    /// shell (the process was started by hand) and where the service manager
    /// put the process in a unit of its own. Otherwise keeps `ownRole`.
    ListenerRole resolvePlain(int32_t pid, uint16_t port, const LaunchdJobs& jobs,
                              ListenerRole ownRole) const;

    /// The folder an app ships its programs in: "/Applications/Foo.app/" or "/snap/foo/".
    static std::optional<std::string> bundlePrefix(const std::string& path);

  private:
    PortEnvironment& environment_;
    const ListenerClassifier& classifier_;
};

}  // namespace wharfy
