#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace wharfy {

/// How far a listener can be reached; a larger value reaches further.
enum class AddressClass { thisMacOnly = 0, oneNetwork = 1, allNetworks = 2 };

/// "thisMacOnly", "oneNetwork", "allNetworks": stored and printed in JSON.
const char* rawValue(AddressClass c);

/// What a listener is, with what the user needs to know about stopping it.
struct ListenerRole {
    /// Part of the operating system; `fix` says where its feature is switched off.
    struct AppleSystem {
        std::optional<std::string> fix;
        bool operator==(const AppleSystem&) const = default;
    };
    /// A container runtime's port forwarder ("Docker Desktop", "Podman", ...).
    struct ContainerForwarder {
        std::string runtime;
        bool operator==(const ContainerForwarder&) const = default;
    };
    /// Belongs to a desktop app of that name.
    struct PartOfApp {
        std::string name;
        bool operator==(const PartOfApp&) const = default;
    };
    /// A service manager's job; `stopCommand` stops it for good.
    struct BackgroundService {
        std::string label;
        std::string stopCommand;
        std::optional<bool> keepsAlive;
        bool operator==(const BackgroundService&) const = default;
    };
    struct PlainProcess {
        bool operator==(const PlainProcess&) const = default;
    };
    /// Another user's process, or one that cannot be read.
    struct OtherUser {
        bool operator==(const OtherUser&) const = default;
    };

    using Value = std::variant<AppleSystem, ContainerForwarder, PartOfApp, BackgroundService,
                               PlainProcess, OtherUser>;
    Value value = PlainProcess{};

    bool operator==(const ListenerRole&) const = default;

    template <typename T>
    bool is() const {
        return std::holds_alternative<T>(value);
    }
    template <typename T>
    const T* as() const {
        return std::get_if<T>(&value);
    }

    /// "appleSystem", "containerForwarder", "partOfApp", "backgroundService",
    /// "plainProcess" or "otherUser".
    const char* rawValue() const;
};

/// A project folder for display ("~" for home) and whether it holds .git.
struct ProjectInfo {
    std::string path;
    bool isGitProject = false;

    bool operator==(const ProjectInfo&) const = default;
    /// Last path component of `path`.
    std::string name() const;
};

/// The container that published a row's port.
struct ContainerRef {
    std::string id;
    std::string name;
    std::string image;
    std::string runtime;

    bool operator==(const ContainerRef&) const = default;
};

/// One listening (process, port) pair as the user sees it.
struct PortRow {
    uint16_t port = 0;
    /// Distinct local addresses, sorted ascending as text.
    std::vector<std::string> addresses;
    AddressClass addressClass = AddressClass::thisMacOnly;
    int32_t pid = 0;
    /// Absent for rows known only from the machine-wide table.
    std::optional<uint64_t> startTime;
    std::string processName;
    std::optional<std::string> executablePath;
    std::optional<std::vector<std::string>> commandLine;
    std::optional<ProjectInfo> project;
    std::optional<uint64_t> footprint;
    std::optional<double> cpuPercent;
    ListenerRole role;
    bool isOwnedByUser = false;
    std::optional<ContainerRef> container;

    bool operator==(const PortRow&) const = default;

    /// pid "@" start time (0 when absent) ":" port, e.g. 812@1700000000000000:5432.
    std::string id() const;
};

}  // namespace wharfy
