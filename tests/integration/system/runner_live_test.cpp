// The command runners against real child processes.
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "system/command_runner.h"
#include "test_process.h"

namespace wharfy {
namespace {

using wharfy::testing::TestProcess;

double secondsOf(auto&& fn) {
    auto start = std::chrono::steady_clock::now();
    fn();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Whether `pid` still runs (absent and zombie processes do not).
bool running(int pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), {});
    auto close = text.rfind(')');
    return close != std::string::npos && close + 2 < text.size() && text[close + 2] != 'Z';
}

bool stopsWithin(int pid, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (running(pid) && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return !running(pid);
}

TEST(CommandRunner, OutputOnSuccessAbsentOnFailureStatus) {
    SystemCommandRunner runner(10);
    EXPECT_EQ(runner.run(TestProcess::helperPath(), {"--exit", "0"}), "out\n");
    EXPECT_EQ(runner.run(TestProcess::helperPath(), {"--exit", "1"}), std::nullopt);
    EXPECT_EQ(runner.run("/nonexistent/tool", {}), std::nullopt);
}

TEST(CommandRunner, HangingToolIsTerminatedAtItsTimeLimit) {
    SystemCommandRunner runner(0.3);
    std::optional<std::string> out = "unset";
    double took = secondsOf([&] { out = runner.run(TestProcess::helperPath(), {}); });
    EXPECT_EQ(out, std::nullopt);
    EXPECT_LT(took, 5.0) << "the runner waited far past its limit";
}

TEST(CommandRunner, ToolWritingMegabytesToStandardErrorStillCompletes) {
    SystemCommandRunner runner(20);
    EXPECT_EQ(runner.run(TestProcess::helperPath(), {"--stderr-bytes", "8000000", "--exit", "0"}),
              "out\n");
}

TEST(ActionRunner, StatusOutputAndErrorOfAFailingProgram) {
    SystemActionRunner runner(20);
    auto r = runner.run(TestProcess::helperPath(), {"--stderr-bytes", "3000000", "--exit", "1"},
                        {{"PATH", "/usr/bin:/bin"}});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.output, "out\n");
    EXPECT_EQ(r.error.size(), 3000000u);
}

TEST(ActionRunner, PassesExactlyTheGivenEnvironment) {
    SystemActionRunner runner(10);
    auto r = runner.run("/usr/bin/env", {}, {{"HOME", "/tmp/h"}, {"PATH", "/usr/bin:/bin"}});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.output, "HOME=/tmp/h\nPATH=/usr/bin:/bin\n");
}

TEST(ActionRunner, LaunchFailureReports127AndTheSystemText) {
    SystemActionRunner runner(10);
    auto r = runner.run("/nonexistent/docker", {"ps"}, {});
    EXPECT_EQ(r.status, SystemActionRunner::kLaunchFailureStatus);
    EXPECT_EQ(r.error, "No such file or directory");
}

TEST(ActionRunner, TimeLimitTerminatesTheWholeProcessGroup) {
    // The worker outlives its parent unless the SIGTERM reaches the group,
    // so it tells whether the limit was enforced on everything started.
    SystemActionRunner runner(0.3);
    ProcessResult r;
    double took = secondsOf([&] {
        r = runner.run(TestProcess::helperPath(), {"--workers", "1", "--keep-workers"}, {});
    });
    EXPECT_NE(r.status, 0);
    EXPECT_LT(took, 5.0);
    std::istringstream ready(r.output);
    std::string word;
    int worker = 0;
    while (ready >> word && word != "pids") {
    }
    ready >> worker;
    ASSERT_GT(worker, 0) << "no ready line: " << r.output;
    const bool stopped = stopsWithin(worker, std::chrono::seconds(3));
    if (!stopped) ::kill(worker, SIGTERM);
    EXPECT_TRUE(stopped) << "the worker of a program stopped at its limit still runs";
}

}  // namespace
}  // namespace wharfy
