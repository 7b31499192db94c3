// wharfy --export and --history-json as the user runs them: the real
// executable, real listeners, real files under a temporary home.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "core/history/history_store.h"
#include "test_process.h"

extern char** environ;

namespace wharfy {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;
using testing::TestProcess;

struct Outcome {
    int status = -1;
    std::string out, err;
};

/// Runs wharfy with `args` and extra environment entries; killed after 60 s.
Outcome wharfy(const std::vector<std::string>& args, const std::vector<std::string>& env) {
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) return {};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    std::string exe = WHARFY_EXE;
    std::vector<char*> argv{exe.data()};
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<std::string> envText = env;
    for (char** e = environ; *e; ++e)
        envText.emplace_back(*e);  // later duplicates lose: getenv takes the first
    std::vector<char*> envp;
    for (auto& e : envText)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    pid_t pid = -1;
    const int rc = ::posix_spawn(&pid, exe.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(err[1]);
    Outcome run;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    while (rc == 0 && (fds[0].fd >= 0 || fds[1].fd >= 0) &&
           std::chrono::steady_clock::now() < deadline) {
        if (::poll(fds, 2, 200) <= 0) continue;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !fds[i].revents) continue;
            char buf[4096];
            const ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
            if (n <= 0)
                fds[i].fd = -1;
            else
                (i == 0 ? run.out : run.err).append(buf, static_cast<size_t>(n));
        }
    }
    ::close(out[0]);
    ::close(err[0]);
    if (rc != 0) return run;
    if (::waitpid(pid, &run.status, WNOHANG) == 0) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &run.status, 0);
    }
    return run;
}

bool exitedWith(const Outcome& run, int code) {
    return WIFEXITED(run.status) && WEXITSTATUS(run.status) == code;
}

std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

struct Project {
    TempDir home;
    std::string server = home.path() + "/src/shop/server";
    Project() {
        fs::create_directories(home.path() + "/src/shop/.git");
        fs::create_directories(server);
    }
    std::vector<std::string> env() const { return {"HOME=" + home.path()}; }
};

TEST(ExportLive, MarkdownAndJsonNameAListenerInItsProject) {
    Project project;
    auto listener =
        TestProcess::start({"--listen", "127.0.0.1:0"}, TestProcess::helperPath(), project.server);
    ASSERT_TRUE(listener);
    const int port = listener->ports().at(0);

    const std::string markdown = project.home.path() + "/report.md";
    const Outcome md = wharfy({"--export", markdown}, project.env());
    ASSERT_TRUE(exitedWith(md, 0)) << md.status << md.err;
    const std::string text = contents(markdown);
    for (const char* heading :
         {"# What is running\n", "\n## Ports (", "\n## Containers\n", "\n## Agent sessions ("})
        EXPECT_NE(text.find(heading), std::string::npos) << heading << "\n" << text;
    const std::string row = "\n| " + std::to_string(port) + " | ";
    const auto at = text.find(row);
    ASSERT_NE(at, std::string::npos) << text;
    const std::string line = text.substr(at + 1, text.find('\n', at + 1) - at - 1);
    EXPECT_NE(line.find("| This computer only | process | shop |  |"), std::string::npos) << line;

    const std::string jsonPath = project.home.path() + "/report.json";
    const Outcome js = wharfy({"--export", jsonPath}, project.env());
    ASSERT_TRUE(exitedWith(js, 0)) << js.err;
    const auto json = nlohmann::json::parse(contents(jsonPath));
    bool found = false;
    for (const auto& p : json.at("ports")) {
        if (p.at("port") != port) continue;
        found = true;
        EXPECT_EQ(p.at("pid"), listener->pid());
        EXPECT_EQ(p.at("project"), "shop");
        EXPECT_EQ(p.at("exposure"), "This computer only");
    }
    EXPECT_TRUE(found) << json.dump(2);
}

TEST(ExportLive, AFailedWriteExitsWithOneAndOneLine) {
    Project project;
    const Outcome run =
        wharfy({"--export", project.home.path() + "/missing/report.md"}, project.env());
    EXPECT_TRUE(exitedWith(run, 1)) << run.status;
    EXPECT_EQ(run.out, "");
    ASSERT_FALSE(run.err.empty());
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
    EXPECT_NE(run.err.find("Could not write the export to "), std::string::npos) << run.err;
}

TEST(HistoryLive, HistoryJsonSummarisesTheStateFolder) {
    TempDir state;
    const HistoryStore store(historyDirectory(state.path(), "/"),
                             std::make_shared<LocalCalendar>());
    const double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    for (double t : {now - 600, now - 300})
        ASSERT_TRUE(store.append({t, {{3000, "node", "All networks", "shop"}}, {}}));

    const Outcome run = wharfy({"--history-json"}, {"XDG_STATE_HOME=" + state.path()});
    ASSERT_TRUE(exitedWith(run, 0)) << run.err;
    const auto json = nlohmann::json::parse(run.out);
    EXPECT_EQ(json.at("folder"), store.directory());
    EXPECT_EQ(json.at("entries"), 2);
    const auto& ports = json.at("days").at(0).at("ports");
    ASSERT_EQ(ports.size(), 1u) << json.dump(2);
    EXPECT_EQ(ports[0].at("port"), 3000);
    EXPECT_EQ(ports[0].at("project"), "shop");
}

}  // namespace
}  // namespace wharfy
