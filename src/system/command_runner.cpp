#include "system/command_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

extern char** environ;

namespace wharfy {
namespace {

uint64_t monotonicMillis() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1'000'000;
}

struct ChildRun {
    bool launched = false;
    std::string launchError;
    int status = 0;
    bool exitedZero = false;
    std::string output;
    std::string error;
};

class Pipe {
  public:
    Pipe() {
        if (::pipe2(fds_, O_CLOEXEC) != 0) fds_[0] = fds_[1] = -1;
    }
    ~Pipe() {
        closeRead();
        closeWrite();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    bool ok() const { return fds_[0] >= 0; }
    int read() const { return fds_[0]; }
    int write() const { return fds_[1]; }
    void closeRead() { closeFd(fds_[0]); }
    void closeWrite() { closeFd(fds_[1]); }

  private:
    static void closeFd(int& fd) {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
    int fds_[2];
};

// Grace after SIGTERM before the run gives up on a child and leaves it to a
// reaper thread. Wharfy never sends a harder signal than SIGTERM, not even to
// its own tools.
constexpr uint64_t kGraceMillis = 2000;

void reapLater(pid_t pid) {
    std::thread([pid] {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }).detach();
}

int statusOf(int raw) {
    if (WIFEXITED(raw)) return WEXITSTATUS(raw);
    if (WIFSIGNALED(raw)) return 128 + WTERMSIG(raw);
    return 1;
}

/// Runs `executable` with `arguments`; `environment` null means inherit.
/// Both output pipes are drained in one poll loop, so a child that fills
/// its standard error never blocks.
ChildRun runChild(const std::string& executable, const std::vector<std::string>& arguments,
                  const std::map<std::string, std::string>* environment, bool captureError,
                  double timeoutSeconds) {
    ChildRun run;
    Pipe out, err;
    if (!out.ok() || (captureError && !err.ok())) {
        run.launchError = std::strerror(errno);
        return run;
    }

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out.write(), STDOUT_FILENO);
    if (captureError)
        posix_spawn_file_actions_adddup2(&actions, err.write(), STDERR_FILENO);
    else
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);

    // The child starts with default signal dispositions and an empty mask, in
    // its own process group so that the time limit reaches what it started.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(
        &attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);

    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(executable.c_str()));
    for (const auto& a : arguments)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    std::vector<std::string> envStrings;
    std::vector<char*> envp;
    if (environment) {
        for (const auto& [k, v] : *environment)
            envStrings.push_back(k + "=" + v);
        for (auto& s : envStrings)
            envp.push_back(s.data());
        envp.push_back(nullptr);
    }

    pid_t pid = -1;
    int rc = ::posix_spawn(&pid, executable.c_str(), &actions, &attr, argv.data(),
                           environment ? envp.data() : environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    out.closeWrite();
    err.closeWrite();
    if (rc != 0) {
        run.launchError = std::strerror(rc);
        return run;
    }
    run.launched = true;

    const uint64_t deadline =
        monotonicMillis() + static_cast<uint64_t>(std::max(0.0, timeoutSeconds) * 1000.0);
    bool terminated = false;
    uint64_t giveUpAt = 0;
    auto checkDeadline = [&]() -> bool {  // true when the run must give up
        uint64_t now = monotonicMillis();
        if (!terminated && now >= deadline) {
            ::kill(-pid, SIGTERM);
            terminated = true;
            giveUpAt = now + kGraceMillis;
        }
        return terminated && now >= giveUpAt;
    };

    pollfd fds[2] = {{out.read(), POLLIN, 0}, {captureError ? err.read() : -1, POLLIN, 0}};
    std::string* sinks[2] = {&run.output, &run.error};
    char chunk[65536];
    bool gaveUp = false;
    while (fds[0].fd >= 0 || fds[1].fd >= 0) {
        if (checkDeadline()) {
            gaveUp = true;
            break;
        }
        int ready = ::poll(fds, 2, 50);
        if (ready < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            ssize_t n = ::read(fds[i].fd, chunk, sizeof chunk);
            if (n > 0) {
                sinks[i]->append(chunk, static_cast<size_t>(n));
            } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
                fds[i].fd = -1;
            }
        }
    }

    int raw = 0;
    bool reaped = false;
    while (!gaveUp) {
        pid_t r = ::waitpid(pid, &raw, WNOHANG);
        if (r == pid) {
            reaped = true;
            break;
        }
        if (r < 0 && errno != EINTR) break;
        if (checkDeadline()) break;
        ::usleep(2000);
    }
    if (!reaped) {
        reapLater(pid);
        run.status = 128 + SIGTERM;
        return run;
    }
    // A program stopped at the time limit never counts as a success, even if
    // it exits 0 on SIGTERM.
    run.status = terminated && statusOf(raw) == 0 ? 128 + SIGTERM : statusOf(raw);
    run.exitedZero = !terminated && WIFEXITED(raw) && WEXITSTATUS(raw) == 0;
    return run;
}

}  // namespace

std::optional<std::string> SystemCommandRunner::run(const std::string& executable,
                                                    const std::vector<std::string>& arguments) {
    auto r = runChild(executable, arguments, nullptr, false, timeoutSeconds_);
    if (!r.launched || !r.exitedZero) return std::nullopt;
    return std::move(r.output);
}

ProcessResult SystemActionRunner::run(const std::string& executable,
                                      const std::vector<std::string>& arguments,
                                      const std::map<std::string, std::string>& environment) {
    auto r = runChild(executable, arguments, &environment, true, timeoutSeconds_);
    if (!r.launched) return ProcessResult{kLaunchFailureStatus, "", std::move(r.launchError)};
    return ProcessResult{r.status, std::move(r.output), std::move(r.error)};
}

}  // namespace wharfy
