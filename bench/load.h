#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace wharfy::bench {

/// Runs an external command to completion (no shell); used to time the
/// standard tools next to our own reads. Returns false if it could not run.
bool runTool(const std::string& executable, const std::vector<std::string>& arguments);

/// A running load generator. Stopped (its standard input closed, then waited
/// for) when the handle goes away.
class LoadGenerator {
  public:
    /// Starts `executable` (the generator or a copy of it) with PROCESSES
    /// LISTENERS EXTRA_FDS and waits until every child is set up.
    static std::unique_ptr<LoadGenerator> start(const std::string& executable, int processes,
                                                int listeners, int extraDescriptors);
    ~LoadGenerator();
    LoadGenerator(const LoadGenerator&) = delete;
    LoadGenerator& operator=(const LoadGenerator&) = delete;

    /// The generator's "ready ..." line.
    const std::string& readyLine() const { return readyLine_; }

  private:
    LoadGenerator() = default;
    pid_t pid_ = -1;
    int stdin_ = -1;
    std::string readyLine_;
};

/// Path of the load generator built next to the benchmarks.
std::string loadGeneratorPath();

/// Starts the load generator when WHARFY_BENCH_LOAD="N:L:F" is set; stops it at exit.
void startLoadFromEnvironment();

/// Path of the wharfy executable built next to the benchmarks.
std::string wharfyPath();

}  // namespace wharfy::bench
