#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace wharfy::testing {

/// A program started by a test (argument list, never a shell) with exactly the
/// environment given, standard output on a pipe that the test reads and
/// standard error in a log file. Sent SIGTERM and reaped when the handle goes
/// away; it also gets SIGTERM if the test process dies first.
class SpawnedProcess {
  public:
    /// Starts `argv` (argv[0] an absolute path); absent when it cannot be started.
    static std::unique_ptr<SpawnedProcess> start(const std::vector<std::string>& argv,
                                                 const std::map<std::string, std::string>& env,
                                                 const std::string& logPath = "/dev/null");
    ~SpawnedProcess();
    SpawnedProcess(const SpawnedProcess&) = delete;
    SpawnedProcess& operator=(const SpawnedProcess&) = delete;

    pid_t pid() const { return pid_; }
    /// Waits up to `seconds` for the program to end: its exit status (128 + N
    /// after signal N), or absent while it still runs.
    std::optional<int> waitExit(double seconds);
    /// The next line of standard output, without its newline; absent at the end
    /// of output or after `seconds`.
    std::optional<std::string> readLine(double seconds);

  private:
    SpawnedProcess() = default;
    pid_t pid_ = -1;
    int output_ = -1;
    std::string buffered_;
};

/// The contents of a small text file, or "" when it cannot be read.
std::string readTextFile(const std::string& path);

}  // namespace wharfy::testing
