// `wharfy` and `wharfy --containers-json` as a user runs them, against Docker
// contexts whose engines misbehave: real sockets served by the hostile engine
// program, a temporary HOME, the real executable.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "hostile_engine.h"
#include "test_process.h"

namespace wharfy {
namespace {

using nlohmann::json;
using testing::TestProcess;

struct WharfyRun {
    int status = -1;
    std::string output;
    double seconds = 0;
    /// Peak resident memory of the run, in kilobytes.
    long maxRssKb = 0;
};

/// Runs the wharfy executable with `args` and nothing but `environment`,
/// as `uid` when given; killed after 60 s.
WharfyRun runWharfy(const std::vector<std::string>& args,
                    const std::vector<std::string>& environment,
                    std::optional<uid_t> uid = std::nullopt) {
    std::vector<char*> argv{const_cast<char*>(WHARFY_EXECUTABLE)};
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (const auto& e : environment)
        envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);

    WharfyRun run;
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return run;
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = ::fork();
    if (child == 0) {
        if (uid && (::setgid(*uid) != 0 || ::setuid(*uid) != 0)) _exit(126);
        ::dup2(fds[1], STDOUT_FILENO);
        ::execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    ::close(fds[1]);
    if (child < 0) {
        ::close(fds[0]);
        return run;
    }
    const auto deadline = start + std::chrono::seconds(60);
    char buffer[65536];
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd p{fds[0], POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0) continue;
        const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
        if (n <= 0) break;
        run.output.append(buffer, static_cast<size_t>(n));
    }
    ::close(fds[0]);
    if (std::chrono::steady_clock::now() >= deadline) ::kill(child, SIGKILL);
    rusage usage{};
    ::wait4(child, &run.status, 0, &usage);
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    run.maxRssKb = usage.ru_maxrss;
    return run;
}

class HostileEnginesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // Readable by anyone: one test runs wharfy as another user.
        ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
        std::filesystem::create_directories(home() + "/.docker/contexts/meta");
        std::filesystem::permissions(home(), std::filesystem::perms(0755));
    }
    std::string home() const { return dir.path() + "/home"; }
    std::string socket(const std::string& name) const { return dir.path() + "/" + name + ".sock"; }

    /// A hostile engine on its own socket, and a Docker context `name` for it.
    void addEngine(const std::string& name, const std::vector<std::string>& args) {
        auto engine = testing::startHostileEngine(socket(name), args);
        ASSERT_TRUE(engine.has_value()) << name;
        engines.push_back(std::move(*engine));
        const std::string folder = home() + "/.docker/contexts/meta/" + name;
        std::filesystem::create_directories(folder);
        std::ofstream(folder + "/meta.json")
            << json{{"Name", name},
                    {"Endpoints", {{"docker", {{"Host", "unix://" + socket(name)}}}}}}
                   .dump();
    }
    std::vector<std::string> environment() const {
        return {"HOME=" + home(), "PATH=/usr/local/bin:/usr/bin:/bin"};
    }
    /// The runtime object of context `name` in a --containers-json output.
    static json context(const json& output, const std::string& name) {
        for (const auto& r : output["runtimes"])
            if (r["runtime"] == "Docker context " + name) return r;
        return json();
    }
    static json parsed(const WharfyRun& run) {
        return json::parse(run.output, nullptr, /*allow_exceptions=*/false);
    }

    testing::TempDir dir;
    std::vector<TestProcess> engines;
};

TEST_F(HostileEnginesTest, FiveEnginesThatNeverAnswerCostOneProbeTogether) {
    for (int i = 0; i < 5; ++i)
        addEngine("hung" + std::to_string(i), {"--mode", "silent", "--for", "60"});
    const WharfyRun run = runWharfy({"--containers-json"}, environment());
    ASSERT_TRUE(WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0) << run.status;
    const json output = parsed(run);
    for (int i = 0; i < 5; ++i) {
        const json r = context(output, "hung" + std::to_string(i));
        EXPECT_EQ(r["state"], "notAnswering") << r.dump();
        EXPECT_EQ(r["socket"], socket("hung" + std::to_string(i)));
    }
    // One after another they would cost five probe time-outs, 15 s.
    EXPECT_LT(run.seconds, 10.0);
}

TEST_F(HostileEnginesTest, DrippingOversizedAndEndlessEnginesAreBounded) {
    addEngine("drip", {"--mode", "drip", "--for", "60"});
    addEngine("huge", {"--mode", "huge"});
    addEngine("headers", {"--mode", "headers", "--for", "60"});
    addEngine("many", {"--mode", "many"});
    const WharfyRun run = runWharfy({"--containers-json"}, environment());
    ASSERT_TRUE(WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0) << run.status;
    const json output = parsed(run);
    EXPECT_EQ(context(output, "drip")["state"], "notAnswering") << run.output;
    EXPECT_EQ(context(output, "huge")["error"],
              "Could not read the runtime (the engine's answer was larger than 32 MiB).")
        << run.output;
    EXPECT_EQ(context(output, "headers")["error"],
              "Could not read the runtime (the engine's answer had more than 64 KiB of headers).")
        << run.output;
    EXPECT_EQ(context(output, "many")["error"],
              "Could not read the runtime (the engine's answer was not the expected JSON).")
        << run.output;
    EXPECT_LT(run.seconds, 10.0);
    // A 200 MB body or endless headers once took 690 MB and 3 GB; ten million
    // JSON values in 30 MB would take 900 MB as a tree.
    EXPECT_LT(run.maxRssKb, 200 * 1024);
}

TEST_F(HostileEnginesTest, ASocketThisUserMayNotUseIsSaidSo) {
    addEngine("shut", {});
    ASSERT_EQ(::chmod(socket("shut").c_str(), 0600), 0);
    // Root may connect to anything: as root, run wharfy as nobody.
    std::optional<uid_t> nobody;
    if (::geteuid() == 0)
        nobody = 65534;
    else
        ASSERT_EQ(::chmod(socket("shut").c_str(), 0), 0);
    const WharfyRun run = runWharfy({"--containers-json"}, environment(), nobody);
    ASSERT_TRUE(WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0) << run.status;
    const json r = context(parsed(run), "shut");
    EXPECT_EQ(r["state"], "permissionDenied") << run.output;
    EXPECT_EQ(r["socket"], socket("shut"));
    EXPECT_LT(run.seconds, 10.0);
}

TEST_F(HostileEnginesTest, ACalmEngineIsAskedItsVersionOncePerRun) {
    const std::string log = dir.path() + "/requests.log";
    addEngine("calm", {"--log", log});
    const WharfyRun run = runWharfy({"--containers-json"}, environment());
    const json r = context(parsed(run), "calm");
    EXPECT_EQ(r["state"], "running") << run.output;
    EXPECT_EQ(r["running"], 1);
    EXPECT_EQ(r["stopped"], 1);
    EXPECT_EQ(r["imagesBytes"], 2000000);
    std::ifstream in(log);
    std::vector<std::string> requests;
    for (std::string line; std::getline(in, line);)
        requests.push_back(line);
    EXPECT_EQ(std::count(requests.begin(), requests.end(), "/version"), 1) << run.output;
    EXPECT_EQ(std::count(requests.begin(), requests.end(), "/v1.41/system/df"), 1);
}

TEST_F(HostileEnginesTest, TheReportPrintsItsPortsWhateverTheEnginesDo) {
    // One engine never answers; the other answers its ping, then drips.
    addEngine("hung", {"--mode", "silent", "--for", "60"});
    addEngine("slow", {"--mode", "drip", "--ping-ok", "--for", "60"});
    const WharfyRun run = runWharfy({}, environment());
    ASSERT_TRUE(WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0) << run.status;
    EXPECT_NE(run.output.find("Listening ports\n"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("Docker context hung  " + socket("hung") +
                              "\n  Running, but not answering.\n"),
              std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("Docker context slow  " + socket("slow") +
                              "\n  Could not read the runtime (the engine did not answer in "
                              "time).\n"),
              std::string::npos)
        << run.output;
    EXPECT_LT(run.seconds, 10.0);
}

}  // namespace
}  // namespace wharfy
