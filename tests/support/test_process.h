#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace wharfy::testing {

/// A running copy of the test helper program (tests/support/test_process_main.cpp).
/// Killed and reaped when the handle goes away.
class TestProcess {
  public:
    /// Starts the helper with `args` and waits for its "ready" line.
    /// `executable` defaults to the helper itself; pass a copy to run it
    /// under another name or path.
    static std::optional<TestProcess> start(const std::vector<std::string>& args,
                                            const std::string& executable = helperPath(),
                                            const std::string& workingDirectory = "");
    TestProcess(TestProcess&&) noexcept;
    TestProcess& operator=(TestProcess&&) = delete;
    TestProcess(const TestProcess&) = delete;
    ~TestProcess();

    pid_t pid() const { return pid_; }
    /// Bound ports of the --listen sockets, in order.
    const std::vector<int>& ports() const { return ports_; }
    /// Pids of forked workers and zombies, in order.
    const std::vector<pid_t>& children() const { return children_; }
    /// Waits for the process to exit; its wait status, or absent after `seconds`.
    std::optional<int> wait(double seconds);

    /// Path of the helper program.
    static std::string helperPath();

  private:
    TestProcess() = default;
    pid_t pid_ = -1;
    bool reaped_ = false;
    std::vector<int> ports_;
    std::vector<pid_t> children_;
};

/// A temporary folder removed with its contents when the handle goes away.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

/// Copies a file, keeping it executable.
bool copyExecutable(const std::string& from, const std::string& to);

}  // namespace wharfy::testing
