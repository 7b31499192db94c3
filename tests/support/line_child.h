#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

extern char** environ;

namespace wharfy::testing {

/// A child program the test talks to in lines: it writes to the child's
/// standard input and reads its standard output line by line, each read with
/// a deadline. Killed and reaped when the handle goes away.
class LineChild {
  public:
    static std::optional<LineChild> start(const std::string& program,
                                          const std::vector<std::string>& args) {
        int in[2];
        int out[2];
        if (::pipe2(in, O_CLOEXEC) != 0) return std::nullopt;
        if (::pipe2(out, O_CLOEXEC) != 0) {
            ::close(in[0]);
            ::close(in[1]);
            return std::nullopt;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        std::vector<char*> argv{const_cast<char*>(program.c_str())};
        for (const auto& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        pid_t pid = -1;
        int rc = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        if (rc != 0) {
            ::close(in[1]);
            ::close(out[0]);
            return std::nullopt;
        }
        LineChild child;
        child.pid_ = pid;
        child.in_ = in[1];
        child.out_ = out[0];
        return child;
    }

    LineChild(LineChild&& o) noexcept
        : pid_(o.pid_), in_(o.in_), out_(o.out_), buffer_(std::move(o.buffer_)) {
        o.pid_ = -1;
        o.in_ = o.out_ = -1;
    }
    LineChild& operator=(LineChild&&) = delete;
    ~LineChild() {
        closeInput();
        if (out_ >= 0) ::close(out_);
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }

    pid_t pid() const { return pid_; }

    bool send(const std::string& line) {
        // A child that already ended must fail the write, not kill the test.
        static const bool ignoringBrokenPipes = (::signal(SIGPIPE, SIG_IGN), true);
        (void)ignoringBrokenPipes;
        std::string text = line + "\n";
        return ::write(in_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }
    /// Ends the child's standard input.
    void closeInput() {
        if (in_ >= 0) ::close(in_);
        in_ = -1;
    }

    /// The next line without its line feed; absent at end of output or after `seconds`.
    std::optional<std::string> readLine(double seconds) {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        for (;;) {
            auto newline = buffer_.find('\n');
            if (newline != std::string::npos) {
                std::string line = buffer_.substr(0, newline);
                buffer_.erase(0, newline + 1);
                return line;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() < 0) return std::nullopt;
            pollfd pfd{out_, POLLIN, 0};
            if (::poll(&pfd, 1, static_cast<int>(left.count())) <= 0) continue;
            char chunk[256];
            ssize_t n = ::read(out_, chunk, sizeof chunk);
            if (n <= 0) return std::nullopt;
            buffer_.append(chunk, static_cast<size_t>(n));
        }
    }
    /// Reads lines until one equals `line`; false at end of output or after `seconds`.
    bool waitForLine(const std::string& line, double seconds = 20) {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        for (;;) {
            const double left =
                std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
            auto next = readLine(left > 0 ? left : 0);
            if (!next) return false;
            if (*next == line) return true;
        }
    }

    void kill(int signal) { ::kill(pid_, signal); }
    /// Waits for the child to end; its wait status, or absent after `seconds`.
    std::optional<int> wait(double seconds) {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        for (;;) {
            int status = 0;
            pid_t r = ::waitpid(pid_, &status, WNOHANG);
            if (r == pid_) {
                pid_ = -1;
                return status;
            }
            if (r < 0 || std::chrono::steady_clock::now() >= deadline) return std::nullopt;
            ::usleep(2000);
        }
    }

  private:
    LineChild() = default;
    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
    std::string buffer_;
};

}  // namespace wharfy::testing
