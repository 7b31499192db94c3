#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/ports/system_programs.h"
#include "system/command_runner.h"

namespace wharfy {

/// What a platform's service-manager labels mean and how a job is stopped
/// for good. The listener rules ask this instead of testing label prefixes.
class ServiceLabels {
  public:
    /// How a label shows that its job is the operating system's own.
    enum class SystemJob {
        /// Never the system's.
        no,
        /// The system's by the label alone (a base-system unit on Linux).
        yes,
        /// The system's only when its program carries the system's signature
        /// ("com.apple." jobs on macOS).
        ifSystemSigned,
    };

    virtual ~ServiceLabels() = default;
    /// The operating system's own program folders and services.
    virtual const SystemPrograms& systemPrograms() const = 0;
    /// Whether the job of `label` is the operating system's own.
    virtual SystemJob systemJob(std::string_view label) const = 0;
    /// A job that a desktop app started for itself.
    virtual bool isAppJob(std::string_view label) const = 0;
    /// The app named by an app job's label, or `processName` when it names none.
    virtual std::string appName(std::string_view label, const std::string& processName) const = 0;
    /// The command the user `uid` runs to stop the job so that it stays stopped.
    virtual std::string stopCommand(std::string_view label, uint32_t uid) const = 0;
    /// Whether the manager restarts the job; absent when unknown.
    virtual std::optional<bool> keepsAlive(std::string_view label, uint32_t uid,
                                           CommandRunner& runner) const = 0;
};

/// launchd on macOS: "com.apple." jobs, "application." app jobs, Homebrew services.
class LaunchdLabels final : public ServiceLabels {
  public:
    const SystemPrograms& systemPrograms() const override { return SystemPrograms::forMacOS(); }
    SystemJob systemJob(std::string_view label) const override;
    bool isAppJob(std::string_view label) const override;
    std::string appName(std::string_view label, const std::string& processName) const override;
    std::string stopCommand(std::string_view label, uint32_t uid) const override;
    std::optional<bool> keepsAlive(std::string_view label, uint32_t uid,
                                   CommandRunner& runner) const override;
    /// Whether `launchctl print` output says the job is kept alive.
    static bool printSaysKeepAlive(std::string_view output);
};

/// Where the service manager runs a process.
struct UnitPlacement {
    /// The unit's control-group path (the whole path when it is in no unit):
    /// two processes run in the same unit exactly when these are equal.
    std::string unit;
    /// The unit's label, for units that are jobs.
    std::optional<std::string> label;

    bool operator==(const UnitPlacement&) const = default;
};

/// systemd on Linux. Labels are "system/UNIT" for system units and
/// "user/UID/UNIT" for units of the user manager of UID.
class SystemdLabels final : public ServiceLabels {
  public:
    /// The name of a user, for naming another user's manager; absent when unknown.
    using UserName = std::function<std::optional<std::string>(uint32_t uid)>;

    explicit SystemdLabels(UserName userName = {}) : userName_(std::move(userName)) {}

    const SystemPrograms& systemPrograms() const override { return SystemPrograms::forLinux(); }
    /// `yes` for the system units of the base-system services, else `no`.
    SystemJob systemJob(std::string_view label) const override;
    bool isAppJob(std::string_view label) const override;
    std::string appName(std::string_view label, const std::string& processName) const override;
    /// "sudo systemctl stop UNIT" for a system unit; "systemctl --user stop
    /// UNIT" for a unit of `uid` itself, and "systemctl --user -M USER@ stop
    /// UNIT" for another user's, because `--user` alone names the manager
    /// of whoever runs the command.
    std::string stopCommand(std::string_view label, uint32_t uid) const override;
    /// `systemctl show --property=Restart` of the unit, through the manager
    /// that runs it; absent for a unit name that is not safe to pass.
    std::optional<bool> keepsAlive(std::string_view label, uint32_t uid,
                                   CommandRunner& runner) const override;

    /// Where a process runs, from /proc/PID/cgroup text (the name=systemd
    /// line on hybrid systems, else the cgroup v2 line). Only services and
    /// the desktop's app scopes are jobs with a label; login sessions,
    /// terminal scopes, containers and the managers themselves give none.
    static std::optional<UnitPlacement> placementFromCgroup(std::string_view cgroupText);
    /// The unit name of a label ("user/1000/redis.service" → "redis.service").
    static std::string_view unit(std::string_view label);
    /// The uid whose manager runs a user unit's label; absent for system units.
    static std::optional<uint32_t> owner(std::string_view label);
    /// Whether a unit name holds only the characters systemd allows and
    /// cannot be read as an option.
    static bool isSafeUnitName(std::string_view unit);

  private:
    /// "USER@", naming the manager of `owner` for systemctl's -M.
    std::string managerOf(uint32_t owner) const;
    UserName userName_;
};

/// The service-manager label of each process, read once per scan.
class LaunchdJobs {
  public:
    using Placement = std::function<std::optional<UnitPlacement>(int32_t pid)>;
    using Parent = std::function<std::optional<int32_t>(int32_t pid)>;

    LaunchdJobs() = default;
    /// A manager that names each job's process (launchd lists the pid of every job).
    explicit LaunchdJobs(std::map<int32_t, std::string> labelByPID)
        : labelByPID_(std::move(labelByPID)) {}
    /// A manager that places processes in units, read on demand and
    /// remembered for this scan. A unit's label belongs to its main process
    /// only, the one whose parent runs outside the unit: its descendants
    /// reach the label through their ancestors, so that a server started by
    /// hand from a shell inside a desktop app's unit is not the app's.
    LaunchdJobs(Placement placement, Parent parent);

    std::optional<std::string> label(int32_t pid) const;
    /// Whether the manager put `pid` in another unit than its parent's: the
    /// process then belongs to its own unit, not to its parent's job. False
    /// when either is unknown or the manager has no units.
    bool crossesUnit(int32_t pid, int32_t parent) const;

    /// `launchctl list` output: "PID\tStatus\tLabel" lines; "-" pids skipped.
    static LaunchdJobs parse(std::string_view text);
    /// Runs "/bin/launchctl list"; no output gives no labels.
    static LaunchdJobs read(CommandRunner& runner);

  private:
    struct Units {
        Placement placement;
        Parent parent;
        std::unordered_map<int32_t, std::optional<UnitPlacement>> memo;
        const std::optional<UnitPlacement>& of(int32_t pid);
    };

    std::map<int32_t, std::string> labelByPID_;
    // Shared by copies, so a copy taken during a scan reuses what was read.
    std::shared_ptr<Units> units_;
};

}  // namespace wharfy
