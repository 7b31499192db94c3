#include "spawned_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>

namespace wharfy::testing {

std::unique_ptr<SpawnedProcess> SpawnedProcess::start(const std::vector<std::string>& argv,
                                                      const std::map<std::string, std::string>& env,
                                                      const std::string& logPath) {
    if (argv.empty()) return nullptr;
    // Everything the child needs is built before fork: after it, only
    // async-signal-safe calls are allowed.
    std::vector<std::string> argText = argv;
    std::vector<char*> args;
    for (auto& a : argText)
        args.push_back(a.data());
    args.push_back(nullptr);
    std::vector<std::string> envText;
    for (const auto& [key, value] : env)
        envText.push_back(key + "=" + value);
    std::vector<char*> envp;
    for (auto& e : envText)
        envp.push_back(e.data());
    envp.push_back(nullptr);

    int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (log < 0) return nullptr;
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        ::close(log);
        return nullptr;
    }
    const pid_t parent = ::getpid();
    pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) ::_exit(127);
        int in = ::open("/dev/null", O_RDONLY);
        if (in < 0 || ::dup2(in, STDIN_FILENO) < 0 || ::dup2(pipeFds[1], STDOUT_FILENO) < 0 ||
            ::dup2(log, STDERR_FILENO) < 0)
            ::_exit(127);
        ::execve(args[0], args.data(), envp.data());
        ::_exit(127);
    }
    ::close(pipeFds[1]);
    ::close(log);
    if (pid < 0) {
        ::close(pipeFds[0]);
        return nullptr;
    }
    std::unique_ptr<SpawnedProcess> process(new SpawnedProcess());
    process->pid_ = pid;
    process->output_ = pipeFds[0];
    return process;
}

SpawnedProcess::~SpawnedProcess() {
    if (output_ >= 0) ::close(output_);
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (::waitpid(pid_, nullptr, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            // Last resort for a program that ignores SIGTERM: never leave it behind.
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::optional<int> SpawnedProcess::waitExit(double seconds) {
    if (pid_ <= 0) return std::nullopt;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::optional<std::string> SpawnedProcess::readLine(double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        auto newline = buffered_.find('\n');
        if (newline != std::string::npos) {
            std::string line = buffered_.substr(0, newline);
            buffered_.erase(0, newline + 1);
            return line;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return std::nullopt;
        pollfd pfd{output_, POLLIN, 0};
        int ready = ::poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno != EINTR) return std::nullopt;
        if (ready <= 0) continue;
        char chunk[512];
        ssize_t n = ::read(output_, chunk, sizeof chunk);
        if (n <= 0) return std::nullopt;
        buffered_.append(chunk, static_cast<size_t>(n));
    }
}

std::string readTextFile(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace wharfy::testing
