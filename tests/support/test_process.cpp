#include "test_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <thread>

extern char** environ;

namespace wharfy::testing {

std::string TestProcess::helperPath() {
    return WHARFY_TEST_PROCESS;
}

std::optional<TestProcess> TestProcess::start(const std::vector<std::string>& args,
                                              const std::string& executable,
                                              const std::string& workingDirectory) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return std::nullopt;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    if (!workingDirectory.empty())
        posix_spawn_file_actions_addchdir_np(&actions, workingDirectory.c_str());
    std::vector<char*> argv{const_cast<char*>(executable.c_str())};
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    int rc = ::posix_spawn(&pid, executable.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    if (rc != 0) {
        ::close(fds[0]);
        return std::nullopt;
    }
    TestProcess p;
    p.pid_ = pid;
    std::string line;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (line.find('\n') == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        pollfd pfd{fds[0], POLLIN, 0};
        if (::poll(&pfd, 1, 100) <= 0) continue;
        char buf[256];
        ssize_t n = ::read(fds[0], buf, sizeof buf);
        if (n <= 0) break;
        line.append(buf, static_cast<size_t>(n));
    }
    ::close(fds[0]);
    std::istringstream in(line);
    std::string word;
    in >> word;
    if (word != "ready") return std::nullopt;  // the destructor reaps it
    bool inPids = false;
    while (in >> word) {
        if (word == "pids")
            inPids = true;
        else if (inPids)
            p.children_.push_back(std::atoi(word.c_str()));
        else
            p.ports_.push_back(std::atoi(word.c_str()));
    }
    return p;
}

TestProcess::TestProcess(TestProcess&& other) noexcept
    : pid_(other.pid_),
      reaped_(other.reaped_),
      ports_(std::move(other.ports_)),
      children_(std::move(other.children_)) {
    other.pid_ = -1;
}

TestProcess::~TestProcess() {
    if (pid_ <= 0 || reaped_) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
}

std::optional<int> TestProcess::wait(double seconds) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        int status = 0;
        pid_t r = ::waitpid(pid_, &status, WNOHANG);
        if (r == pid_) {
            reaped_ = true;
            return status;
        }
        if (r < 0 || std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "wharfy-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}

bool copyExecutable(const std::string& from, const std::string& to) {
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(to).parent_path(), ec);
    if (!std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing,
                                    ec))
        return false;
    return ::chmod(to.c_str(), 0755) == 0;
}

}  // namespace wharfy::testing
