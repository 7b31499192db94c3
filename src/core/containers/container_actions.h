#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "common/result.h"
#include "core/containers/engine_client.h"
#include "system/command_runner.h"

namespace wharfy {

/// One of the five changes Wharfy ever makes to a runtime, each confirmed by the user.
struct ContainerAction {
    /// Sends SIGTERM to the container's main process; nothing harder.
    struct StopContainer {
        std::string id;
        bool operator==(const StopContainer&) const = default;
    };
    struct RemoveStoppedContainers {
        std::vector<std::string> ids;
        bool operator==(const RemoveStoppedContainers&) const = default;
    };
    struct RemoveDanglingImages {
        std::vector<std::string> ids;
        bool operator==(const RemoveDanglingImages&) const = default;
    };
    struct RemoveVolume {
        std::string name;
        bool operator==(const RemoveVolume&) const = default;
    };
    struct ClearBuildCache {
        bool operator==(const ClearBuildCache&) const = default;
    };

    using Value = std::variant<StopContainer, RemoveStoppedContainers, RemoveDanglingImages,
                               RemoveVolume, ClearBuildCache>;
    Value value;

    bool operator==(const ContainerAction&) const = default;
};

/// The exact docker command line an action runs.
struct DockerCommand {
    std::string executable;
    std::vector<std::string> arguments;

    bool operator==(const DockerCommand&) const = default;
    /// The command line shown for confirmation, arguments quoted where a
    /// shell reader would need it.
    std::string display() const;
};

/// Why an action was refused before anything ran.
struct ActionError {
    enum class Kind { invalidID, invalidVolumeName, noTargets, invalidSocket };
    Kind kind = Kind::noTargets;
    /// The offending id or name, for invalidID and invalidVolumeName.
    std::string text;

    bool operator==(const ActionError&) const = default;
    std::string description() const;
};

/// What a stop achieved, judged from the engine's view of the container.
enum class StopOutcome { stopped, stillRunning, unknown };

/// "stopped", "stillRunning" or "unknown".
const char* rawValue(StopOutcome outcome);

/// What happened when an action ran.
struct ActionReport {
    DockerCommand command;
    /// The tool exited with status 0.
    bool succeeded = false;
    std::string output;
    std::string error;
    /// Only for a stop.
    std::optional<StopOutcome> stopOutcome;
    /// Bytes of the runtime's disk images on this computer, around the action.
    std::optional<uint64_t> macDiskBefore;
    std::optional<uint64_t> macDiskAfter;
    std::optional<std::string> note;

    bool operator==(const ActionReport&) const = default;
};

/// Whole-string identifier checks applied before anything reaches the command line.
struct DockerIdentifiers {
    /// 12 to 64 lower-case hex digits.
    static bool isContainerID(std::string_view id);
    /// A container id, optionally prefixed with "sha256:".
    static bool isImageID(std::string_view id);
    /// A letter or digit, then up to 254 letters, digits, "_", "." or "-".
    static bool isVolumeName(std::string_view name);
};

/// Turns a confirmed action into one docker command against the runtime's
/// own socket, runs it, and reports. Clean-up goes through the tool, never
/// the engine API; the API only watches the result.
struct ContainerActions {
    std::string dockerPath;
    std::string socketPath;
    std::shared_ptr<ActionProcessRunner> runner;
    /// On the same socket, with the action time-out; absent means a stop's
    /// outcome stays unknown.
    std::optional<EngineClient> engine;
    /// Bytes of the runtime's disk images now; empty or absent for a runtime without images.
    std::function<std::optional<uint64_t>()> macDisk;
    /// Waits the given seconds.
    std::function<void(double)> sleep;
    /// The tool's whole environment.
    std::map<std::string, std::string> environment;

    static constexpr int kEngineTimeoutSeconds = 20;
    static constexpr double kPollInterval = 0.5;
    static constexpr int kMaxPolls = 20;

    Result<DockerCommand, ActionError> command(const ContainerAction& action) const;
    /// Refused with ActionError before anything runs; a tool that fails is a
    /// report with succeeded false, not an error.
    Result<ActionReport, ActionError> perform(const ContainerAction& action) const;

    /// A minimal environment for the tool: HOME and a fixed PATH.
    static std::map<std::string, std::string> toolEnvironment(const std::string& home);
};

/// Container counts of one runtime.
struct ContainerCounts {
    std::vector<ContainerInfo> containers;

    int running() const;
    int stopped() const;
};

}  // namespace wharfy
