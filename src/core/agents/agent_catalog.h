#pragma once

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wharfy {

/// The coding agents Wharfy tracks. The raw values are stored in history and exports.
enum class AgentTool { claudeCode, codex, cursor, geminiCLI, aider };

/// Every tool, in declaration order.
inline constexpr std::array<AgentTool, 5> kAllAgentTools{AgentTool::claudeCode, AgentTool::codex,
                                                         AgentTool::cursor, AgentTool::geminiCLI,
                                                         AgentTool::aider};

/// "claudeCode", "codex", "cursor", "geminiCLI", "aider".
const char* rawValue(AgentTool tool);
/// "Claude Code", "Codex", "Cursor", "Gemini CLI", "Aider".
const char* displayName(AgentTool tool);
/// The tool whose raw value is `raw`, if any.
std::optional<AgentTool> agentToolFromRaw(std::string_view raw);

/// What the catalog recognised one process as.
struct AgentMatch {
    enum class Role {
        /// The agent process itself; it heads a session.
        root,
        /// A long-lived server process of the agent.
        daemon,
        /// A desktop app's launcher in front of the agent.
        wrapper,
    };

    AgentTool tool = AgentTool::claudeCode;
    Role role = Role::root;
    /// The desktop app that installed and runs the agent ("Claude").
    std::optional<std::string> managedBy;
    /// The version read from the install path.
    std::optional<std::string> version;

    bool operator==(const AgentMatch&) const = default;
};

/// The text of `path` after `prefix` up to the next "/", cut at its first "-":
/// the version of a release folder such as "0.46.0-aarch64-apple-darwin".
std::string releaseVersion(std::string_view path, std::string_view prefix);

/// Whether `path` can be the Cursor desktop app's own executable: the app
/// bundle on macOS, or its AppImage mount or installed folder on Linux.
bool isCursorAppPath(std::string_view path);

/// Whether a process is the Cursor desktop app itself, not one of the
/// Electron helper processes it starts from the same executable.
bool isCursorApp(std::string_view path, const std::vector<std::string>& arguments);

/// Decides from an executable path and argument list whether a process is a
/// coding agent, which one and in which role. It only compares strings.
class AgentCatalog {
  public:
    /// `home` without a trailing "/".
    explicit AgentCatalog(std::string home);

    /// The match for a process; `arguments` starts with the name it was started by.
    std::optional<AgentMatch> match(const std::optional<std::string>& path,
                                    const std::vector<std::string>& arguments) const;

    /// Reads a process's argument list on demand.
    using ArgumentReader = std::function<std::vector<std::string>()>;

    /// The same decision, calling `readArguments` (at most once) only when a
    /// rule reaches the point where the arguments decide.
    std::optional<AgentMatch> matchReading(const std::optional<std::string>& path,
                                           const ArgumentReader& readArguments) const;

    /// False when arguments cannot change the answer for this path (no path,
    /// or a system program); callers read arguments only when this is true.
    bool mayNeedArguments(const std::optional<std::string>& path) const;

    const std::string& home() const { return home_; }

  private:
    class Arguments;
    std::optional<AgentMatch> matchWith(const std::optional<std::string>& path,
                                        Arguments& arguments) const;

    std::string home_;
    std::string claudeVersions_;
    std::string claudeDesktop_;
    std::string codexStandalone_;
    std::string codexAppServer_;
    std::string userApplications_;
};

}  // namespace wharfy
