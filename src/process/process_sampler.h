#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "process/identity.h"
#include "process/process_reader.h"
#include "process/tick_clock.h"

namespace nemarro::process {

/// One process with its memory and the rates since the previous sample.
struct ProcessUsage {
    ProcessIdentity identity;
    int32_t ppid = 0;
    uint32_t uid = 0;
    std::string name;
    std::optional<std::string> path;
    uint64_t footprint = 0;
    /// Percent of one core; absent on a process's first sample.
    std::optional<double> cpuPercent;
    /// Bytes per second; absent on a first sample or when the platform hides disk counters.
    std::optional<double> diskReadPerSecond;
    std::optional<double> diskWritePerSecond;

    bool operator==(const ProcessUsage&) const = default;
};

/// The raw facts the sampler needs of one process.
struct RawUsage {
    int32_t ppid = 0;
    uint32_t uid = 0;
    std::string name;
    std::optional<std::string> path;
    Usage usage;
};

/// The sampler's access to the machine.
class ProcessSource {
  public:
    virtual ~ProcessSource() = default;
    virtual std::vector<int32_t> allPIDs() = 0;
    virtual std::optional<ProcessIdentity> identity(int32_t pid) = 0;
    virtual std::optional<RawUsage> usage(int32_t pid) = 0;
};

/// ProcessSource over ProcessReader. The sampler asks for a pid's identity
/// and then its usage; both come from one read, kept until the usage call.
class LiveProcessSource final : public ProcessSource {
  public:
    std::vector<int32_t> allPIDs() override;
    std::optional<ProcessIdentity> identity(int32_t pid) override;
    std::optional<RawUsage> usage(int32_t pid) override;

  private:
    int32_t lastPid_ = 0;
    std::optional<ProcessFacts> last_;
};

/// ProcessSource for a process that samples every few seconds for hours: per
/// process, one read of /proc/PID/stat and its owner. The executable path and
/// the full name are kept per process (identity and kernel name, so an exec
/// is noticed) and forgotten once it is gone. Memory footprints and disk
/// counters are not read (footprint 0, disk absent): ask
/// `ProcessReader::footprint` for the few processes that need one.
class LiveTableSource final : public ProcessSource {
  public:
    std::vector<int32_t> allPIDs() override;
    std::optional<ProcessIdentity> identity(int32_t pid) override;
    std::optional<RawUsage> usage(int32_t pid) override;

  private:
    struct Known {
        std::string comm;
        std::string name;
        std::optional<std::string> path;
    };
    struct Stat {
        int32_t pid = 0;
        std::string comm;
        int32_t ppid = 0;
        uint64_t cpuTicks = 0;
        ProcessIdentity identity;
    };
    std::optional<Stat> last_;
    /// What the previous sample learnt, and what this one has confirmed.
    std::unordered_map<ProcessIdentity, Known> known_;
    std::unordered_map<ProcessIdentity, Known> seen_;
};

/// Turns two successive readings of every process into CPU and disk rates.
class ProcessSampler {
  public:
    /// `now` returns nanoseconds on a monotonic scale.
    ProcessSampler(std::unique_ptr<ProcessSource> source, TickClock clock,
                   std::function<uint64_t()> now);

    struct Result {
        std::vector<ProcessUsage> processes;
        /// Listed processes whose identity or usage could not be read.
        int hidden = 0;
    };

    /// One reading of every process; rates cover the time since the previous call.
    Result sample();

    /// The monotonic clock in nanoseconds, for `now`.
    static uint64_t monotonicNow();

  private:
    struct Counters {
        uint64_t cpuTicks = 0;
        std::optional<uint64_t> diskRead;
        std::optional<uint64_t> diskWritten;
    };

    std::unique_ptr<ProcessSource> source_;
    TickClock clock_;
    std::function<uint64_t()> now_;
    std::unordered_map<ProcessIdentity, Counters> previous_;
    std::optional<uint64_t> previousTime_;
};

}  // namespace nemarro::process
