// The command runners against real child processes.
#include <gtest/gtest.h>

#include <chrono>

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

TEST(ActionRunner, HangingProgramIsTerminatedWithANonZeroStatus) {
    SystemActionRunner runner(0.3);
    ProcessResult r;
    double took = secondsOf([&] { r = runner.run(TestProcess::helperPath(), {}, {}); });
    EXPECT_NE(r.status, 0);
    EXPECT_LT(took, 5.0);
}

}  // namespace
}  // namespace wharfy
