#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace wharfy::testing {

/// A tmux server of its own (a private socket) with one detached session
/// running a program in a pane of a given size, driven like a user would:
/// keys in, the pane's text out. The server is killed with the handle.
class TmuxSession {
  public:
    /// Where tmux is; empty when it is not installed.
    static std::string tmuxPath();
    /// Starts `command` (an argument list, no shell) in a `cols` × `rows`
    /// pane; the pane stays after the program exits. Absent when tmux fails.
    static std::unique_ptr<TmuxSession> start(const std::string& folder,
                                              const std::vector<std::string>& command, int cols,
                                              int rows,
                                              const std::map<std::string, std::string>& env);
    ~TmuxSession();
    TmuxSession(const TmuxSession&) = delete;
    TmuxSession& operator=(const TmuxSession&) = delete;

    /// tmux send-keys: key names ("F9", "Escape") or literal text.
    bool sendKeys(const std::vector<std::string>& keys);
    /// The pane's visible text, one line per row.
    std::string capture();
    /// A tmux format of the pane, such as "#{alternate_on}".
    std::string query(const std::string& format);
    bool resize(int cols, int rows);
    /// Polls the pane until `done` holds for its text; the last text either way.
    std::optional<std::string> waitFor(const std::function<bool(const std::string&)>& done,
                                       double seconds);
    /// The pid of the pane's program.
    std::optional<pid_t> panePid();

  private:
    TmuxSession() = default;
    std::optional<std::string> tmux(std::vector<std::string> arguments);

    std::string socket_;
    std::map<std::string, std::string> env_;
};

}  // namespace wharfy::testing
