#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace wharfy {

/// Runs a read-only tool and returns its standard output.
class CommandRunner {
  public:
    virtual ~CommandRunner() = default;
    /// Standard output of a zero exit; absent for any failure.
    virtual std::optional<std::string> run(const std::string& executable,
                                           const std::vector<std::string>& arguments) = 0;
};

/// What an acting program did.
struct ProcessResult {
    int status = 0;
    std::string output;
    std::string error;

    bool operator==(const ProcessResult&) const = default;
};

/// Runs a program that acts, with exactly the environment given.
class ActionProcessRunner {
  public:
    virtual ~ActionProcessRunner() = default;
    virtual ProcessResult run(const std::string& executable,
                              const std::vector<std::string>& arguments,
                              const std::map<std::string, std::string>& environment) = 0;
};

/// CommandRunner over a real child process: absolute path, argument list,
/// never a shell; standard error discarded; SIGTERM at the time limit.
class SystemCommandRunner final : public CommandRunner {
  public:
    explicit SystemCommandRunner(double timeoutSeconds = 10.0) : timeoutSeconds_(timeoutSeconds) {}
    std::optional<std::string> run(const std::string& executable,
                                   const std::vector<std::string>& arguments) override;

  private:
    double timeoutSeconds_;
};

/// ActionProcessRunner over a real child process. A program that cannot be
/// launched reports status 127 and the launch error's text.
class SystemActionRunner final : public ActionProcessRunner {
  public:
    explicit SystemActionRunner(double timeoutSeconds = 120.0) : timeoutSeconds_(timeoutSeconds) {}
    ProcessResult run(const std::string& executable, const std::vector<std::string>& arguments,
                      const std::map<std::string, std::string>& environment) override;

    static constexpr int kLaunchFailureStatus = 127;

  private:
    double timeoutSeconds_;
};

}  // namespace wharfy
