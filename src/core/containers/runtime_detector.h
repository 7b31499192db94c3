#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "common/result.h"
#include "core/containers/engine_records.h"
#include "core/containers/http.h"

namespace wharfy {

/// Which container runtime a detected engine belongs to.
struct RuntimeKind {
    struct Colima {
        std::string profile;
        bool operator==(const Colima&) const = default;
    };
    /// A Docker context from the Docker client's context store.
    struct Context {
        std::string name;
        bool operator==(const Context&) const = default;
    };
    struct DockerDesktop {
        bool operator==(const DockerDesktop&) const = default;
    };
    struct OrbStack {
        bool operator==(const OrbStack&) const = default;
    };
    /// The Docker daemon of a Linux machine, rootful or rootless.
    struct DockerEngine {
        bool operator==(const DockerEngine&) const = default;
    };
    struct Podman {
        bool operator==(const Podman&) const = default;
    };

    using Value = std::variant<Colima, Context, DockerDesktop, OrbStack, DockerEngine, Podman>;
    Value value;

    bool operator==(const RuntimeKind&) const = default;
    /// colima(profile: "P"), context(name: "N"), dockerDesktop, orbstack,
    /// dockerEngine or podman.
    std::string text() const;
};

/// What became of a local runtime's socket when it was pinged.
enum class RuntimeStatus {
    /// An engine answered.
    running,
    /// No socket, or nothing accepts connections on it.
    notRunning,
    /// The socket accepts connections but no answer came before the deadline.
    notAnswering,
    /// The socket refuses this user (EACCES or EPERM on connect).
    permissionDenied,
};

/// One detected container runtime.
struct RuntimeInfo {
    RuntimeKind kind;
    std::string displayName;
    /// The socket as probed: set when the engine answered, and when its socket
    /// exists but would not serve (not answering, permission denied).
    std::optional<std::string> socketPath;
    /// Set only for a context that points somewhere other than a unix socket.
    std::optional<std::string> remoteEndpoint;
    RuntimeStatus status = RuntimeStatus::notRunning;
    /// Files on this computer that hold the runtime's data (VM disk images).
    std::vector<std::string> diskImagePaths;

    bool operator==(const RuntimeInfo&) const = default;

    /// Unique among one detection's results.
    std::string id() const { return kind.text(); }
    bool isRunning() const { return status == RuntimeStatus::running; }
    /// Only a measurable runtime is asked for containers or disk use.
    bool isMeasurable() const { return isRunning() && socketPath.has_value(); }
    /// What the user is told about the runtime's state when it is not
    /// running; absent for a running one.
    std::optional<std::string> stateText() const;
    /// The state as the JSON output names it: "running", "notRunning",
    /// "notAnswering", "permissionDenied" or "remote".
    const char* stateName() const;
};

/// Shown when detection found nothing.
inline constexpr const char* kNoRuntimeFoundText = "No container runtime found";

/// What a socket did with a ping (GET "/_ping").
enum class SocketAnswer { answered, refused, notAnswering, permissionDenied };

/// How a ping's outcome reads: any whole response, whatever its status, is
/// an answer, and so is one too large to take; a connection that fails for
/// want of permission is permissionDenied; a deadline passed or a connection
/// dropped after connect is notAnswering; every other failure is refused.
SocketAnswer pingAnswer(const Result<std::string, TransportError>& outcome);

/// The file-system and socket probes the detector needs.
class DetectorFileSystem {
  public:
    virtual ~DetectorFileSystem() = default;
    /// Canonical absolute path with every link resolved; absent when it does not resolve.
    virtual std::optional<std::string> resolve(const std::string& path) const = 0;
    /// The path, following links, is a socket.
    virtual bool isSocket(const std::string& path) const = 0;
    /// Pings every socket at once under one shared deadline of
    /// kProbeTimeoutSeconds: one answer per socket, in order.
    virtual std::vector<SocketAnswer> ping(const std::vector<std::string>& sockets) const = 0;
    virtual bool exists(const std::string& path) const = 0;
    /// Names of the folders (following links) directly inside `path`, sorted.
    virtual std::vector<std::string> subdirectories(const std::string& path) const = 0;
    /// The file's bytes; absent when it cannot be read or holds more than
    /// kMaxContextFileBytes.
    virtual std::optional<std::string> contents(const std::string& path) const = 0;

    static constexpr int kProbeTimeoutSeconds = 3;
    static constexpr size_t kMaxContextFileBytes = 1u << 20;
};

/// DetectorFileSystem over the real file system and sockets.
class LiveDetectorFileSystem final : public DetectorFileSystem {
  public:
    /// With `notAfter`, no ping lasts past it.
    explicit LiveDetectorFileSystem(
        std::optional<UnixSocketTransport::Clock::time_point> notAfter = std::nullopt)
        : notAfter_(notAfter) {}

    std::optional<std::string> resolve(const std::string& path) const override;
    bool isSocket(const std::string& path) const override;
    std::vector<SocketAnswer> ping(const std::vector<std::string>& sockets) const override;
    bool exists(const std::string& path) const override;
    std::vector<std::string> subdirectories(const std::string& path) const override;
    std::optional<std::string> contents(const std::string& path) const override;

  private:
    std::optional<UnixSocketTransport::Clock::time_point> notAfter_;
};

/// A runtime found on disk whose socket, if it has one, has yet to be pinged.
struct RuntimeCandidate {
    /// Not running until the ping says otherwise.
    RuntimeInfo runtime;
    /// The socket to ping.
    std::optional<std::string> probe;

    bool operator==(const RuntimeCandidate&) const = default;
};

/// Which platform's runtimes and places to look for.
enum class DetectorPlatform { macOS, linuxOS };

/// The platform this build runs on.
DetectorPlatform currentDetectorPlatform();

/// The note shown beside the disk-image figures of a runtime that has them.
const char* diskImageNote();

/// Finds the container runtimes without starting, stopping or changing any.
class RuntimeDetector {
  public:
    RuntimeDetector(std::string home, std::optional<std::string> xdgRuntimeDir,
                    std::shared_ptr<const DetectorFileSystem> fileSystem,
                    DetectorPlatform platform = currentDetectorPlatform())
        : home_(std::move(home)),
          xdgRuntimeDir_(std::move(xdgRuntimeDir)),
          fileSystem_(std::move(fileSystem)),
          platform_(platform) {}

    /// Colima, then (macOS) OrbStack and Docker Desktop, or (Linux) Docker
    /// Desktop, Docker Engine and Podman, then the contexts. Every socket is
    /// pinged at once, so detection lasts at most about one probe time-out.
    /// Never fails.
    std::vector<RuntimeInfo> detect() const;
    /// The runtimes of detect(), in its order, before any socket is
    /// contacted: only the file system is read.
    std::vector<RuntimeCandidate> candidates() const;
    /// The candidate's runtime once its socket gave `answer`.
    static RuntimeInfo settled(const RuntimeCandidate& candidate, SocketAnswer answer);
    /// Folders of ~/.colima not beginning with "_", sorted.
    std::vector<std::string> colimaProfiles() const;
    std::vector<std::string> colimaDisks(const std::string& profile) const;
    /// The Docker contexts whose sockets are not in `claimed`; adds the ones it lists.
    std::vector<RuntimeCandidate> contexts(std::set<std::string>& claimed) const;

  private:
    /// A candidate that pings `socket` if it is a socket that resolves, whose
    /// resolved path it then claims.
    RuntimeCandidate probed(RuntimeInfo runtime, const std::string& socket,
                            std::set<std::string>& claimed) const;
    /// The first candidate that is a socket and resolves to an unclaimed path.
    std::optional<std::string> choose(const std::vector<std::string>& candidates,
                                      const std::set<std::string>& claimed) const;
    void appendChosen(std::vector<RuntimeCandidate>& out, std::set<std::string>& claimed,
                      RuntimeKind kind, const std::string& name,
                      const std::vector<std::string>& candidates,
                      const std::vector<std::string>& disks,
                      const std::vector<std::string>& installedMarkers) const;

    std::string home_;
    std::optional<std::string> xdgRuntimeDir_;
    std::shared_ptr<const DetectorFileSystem> fileSystem_;
    DetectorPlatform platform_;
};

/// Finds the `docker` command-line tool.
struct DockerBinary {
    /// Where to look, in order, on `platform`.
    static std::vector<std::string> candidates(
        const std::string& home, DetectorPlatform platform = currentDetectorPlatform());
    /// The first candidate that `isExecutable` accepts.
    static std::optional<std::string> find(
        const std::string& home, const std::function<bool(const std::string&)>& isExecutable,
        DetectorPlatform platform = currentDetectorPlatform());
    /// Shown when no candidate is executable.
    static constexpr const char* kNotFoundText = "(the docker command-line tool was not found)";
};

}  // namespace wharfy
