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

#include "system/command_runner.h"

namespace wharfy {

/// What a platform's service-manager labels mean and how a job is stopped
/// for good. The listener rules ask this instead of testing label prefixes.
class ServiceLabels {
  public:
    virtual ~ServiceLabels() = default;
    /// Path prefixes under which every program belongs to the operating system.
    virtual const std::vector<std::string>& systemPathPrefixes() const = 0;
    /// A label that may be one of the operating system's own jobs.
    virtual bool mayBeSystemJob(std::string_view label) const = 0;
    /// True when such a label counts as the system's own only if its program
    /// is a system program (Linux system units); false when the label alone
    /// decides (macOS "com.apple.").
    virtual bool systemJobNeedsSystemProgram() const = 0;
    /// A job that a desktop app started for itself.
    virtual bool isAppJob(std::string_view label) const = 0;
    /// The app named by an app job's label, or `processName` when it names none.
    virtual std::string appName(std::string_view label, const std::string& processName) const = 0;
    /// The command the user runs to stop the job so that it stays stopped.
    virtual std::string stopCommand(std::string_view label, uint32_t uid) const = 0;
    /// Whether the manager restarts the job; absent when unknown.
    virtual std::optional<bool> keepsAlive(std::string_view label, uint32_t uid,
                                           CommandRunner& runner) const = 0;
};

/// launchd on macOS: "com.apple." jobs, "application." app jobs, Homebrew services.
class LaunchdLabels final : public ServiceLabels {
  public:
    const std::vector<std::string>& systemPathPrefixes() const override;
    bool mayBeSystemJob(std::string_view label) const override;
    bool systemJobNeedsSystemProgram() const override { return false; }
    bool isAppJob(std::string_view label) const override;
    std::string appName(std::string_view label, const std::string& processName) const override;
    std::string stopCommand(std::string_view label, uint32_t uid) const override;
    std::optional<bool> keepsAlive(std::string_view label, uint32_t uid,
                                   CommandRunner& runner) const override;
    /// Whether `launchctl print` output says the job is kept alive.
    static bool printSaysKeepAlive(std::string_view output);
};

/// systemd on Linux. Labels are "system/UNIT" for system units and
/// "user/UNIT" for units of a user's manager.
class SystemdLabels final : public ServiceLabels {
  public:
    const std::vector<std::string>& systemPathPrefixes() const override;
    bool mayBeSystemJob(std::string_view label) const override;
    bool systemJobNeedsSystemProgram() const override { return true; }
    bool isAppJob(std::string_view label) const override;
    std::string appName(std::string_view label, const std::string& processName) const override;
    std::string stopCommand(std::string_view label, uint32_t uid) const override;
    std::optional<bool> keepsAlive(std::string_view label, uint32_t uid,
                                   CommandRunner& runner) const override;

    /// The label of the unit a process runs in, from /proc/PID/cgroup text
    /// (the cgroup v2 line, or the name=systemd line on hybrid systems).
    /// Only services and app scopes are jobs; login sessions, terminal
    /// scopes and the managers themselves give none.
    static std::optional<std::string> labelFromCgroup(std::string_view cgroupText);
    /// The unit name of a label ("user/redis.service" → "redis.service").
    static std::string_view unit(std::string_view label);
};

/// The service-manager label of each process, read once per scan.
class LaunchdJobs {
  public:
    LaunchdJobs() = default;
    explicit LaunchdJobs(std::map<int32_t, std::string> labelByPID)
        : labelByPID_(std::move(labelByPID)) {}
    /// Labels found on demand, one pid at a time, remembered for this scan.
    explicit LaunchdJobs(std::function<std::optional<std::string>(int32_t)> lookup)
        : lookup_(std::move(lookup)) {}

    std::optional<std::string> label(int32_t pid) const;

    /// `launchctl list` output: "PID\tStatus\tLabel" lines; "-" pids skipped.
    static LaunchdJobs parse(std::string_view text);
    /// Runs "/bin/launchctl list"; no output gives no labels.
    static LaunchdJobs read(CommandRunner& runner);

  private:
    std::map<int32_t, std::string> labelByPID_;
    std::function<std::optional<std::string>(int32_t)> lookup_;
    mutable std::shared_ptr<std::unordered_map<int32_t, std::optional<std::string>>> memo_ =
        std::make_shared<std::unordered_map<int32_t, std::optional<std::string>>>();
};

}  // namespace wharfy
