#include "tmux_session.h"

#include <unistd.h>

#include <chrono>
#include <thread>

#include "system/command_runner.h"

namespace wharfy::testing {

std::string TmuxSession::tmuxPath() {
    for (const char* path : {"/usr/bin/tmux", "/usr/local/bin/tmux"})
        if (::access(path, X_OK) == 0) return path;
    return {};
}

std::optional<std::string> TmuxSession::tmux(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"-S", socket_});
    SystemActionRunner runner(10.0);
    const ProcessResult result = runner.run(tmuxPath(), arguments, env_);
    if (result.status != 0) return std::nullopt;
    return result.output;
}

std::unique_ptr<TmuxSession> TmuxSession::start(const std::string& folder,
                                                const std::vector<std::string>& command, int cols,
                                                int rows,
                                                const std::map<std::string, std::string>& env) {
    if (tmuxPath().empty()) return nullptr;
    std::unique_ptr<TmuxSession> s(new TmuxSession());
    s->socket_ = folder + "/tmux.sock";
    s->env_ = env;
    std::vector<std::string> args{
        "-f", "/dev/null", "new-session",        "-d", "-s",
        "t",  "-x",        std::to_string(cols), "-y", std::to_string(rows)};
    args.insert(args.end(), command.begin(), command.end());
    if (!s->tmux(args)) return nullptr;
    s->tmux({"set-option", "-t", "t", "remain-on-exit", "on"});
    return s;
}

TmuxSession::~TmuxSession() {
    tmux({"kill-server"});
}

bool TmuxSession::sendKeys(const std::vector<std::string>& keys) {
    std::vector<std::string> args{"send-keys", "-t", "t"};
    args.insert(args.end(), keys.begin(), keys.end());
    return tmux(args).has_value();
}

std::string TmuxSession::capture() {
    return tmux({"capture-pane", "-p", "-t", "t"}).value_or("");
}

std::string TmuxSession::query(const std::string& format) {
    auto out = tmux({"display-message", "-p", "-t", "t", format}).value_or("");
    while (!out.empty() && out.back() == '\n')
        out.pop_back();
    return out;
}

bool TmuxSession::resize(int cols, int rows) {
    return tmux(
               {"resize-window", "-t", "t", "-x", std::to_string(cols), "-y", std::to_string(rows)})
        .has_value();
}

std::optional<std::string> TmuxSession::waitFor(const std::function<bool(const std::string&)>& done,
                                                double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    std::string text;
    for (;;) {
        text = capture();
        if (done(text)) return text;
        if (std::chrono::steady_clock::now() >= end) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

std::optional<pid_t> TmuxSession::panePid() {
    const std::string text = query("#{pane_pid}");
    if (text.empty()) return std::nullopt;
    return static_cast<pid_t>(std::stol(text));
}

}  // namespace wharfy::testing
