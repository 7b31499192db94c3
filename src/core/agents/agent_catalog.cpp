#include "core/agents/agent_catalog.h"

#include <algorithm>
#include <utility>

namespace wharfy {
namespace {

using Role = AgentMatch::Role;

bool startsWith(std::string_view s, std::string_view prefix) {
    return s.substr(0, prefix.size()) == prefix;
}

bool endsWith(std::string_view s, std::string_view suffix) {
    return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

bool contains(std::string_view s, std::string_view part) {
    return s.find(part) != std::string_view::npos;
}

std::string_view lastComponent(std::string_view path) {
    auto slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool isSystemPath(std::string_view path) {
    return startsWith(path, "/System/") || startsWith(path, "/Library/Apple/") ||
           startsWith(path, "/usr/libexec/");
}

bool isScriptRuntime(std::string_view name) {
    return name == "node" || name == "bun" || name == "deno" || startsWith(name, "node");
}

std::string upToSlash(std::string_view rest) {
    return std::string(rest.substr(0, rest.find('/')));
}

template <typename Pred>
bool any(const std::vector<std::string>& arguments, Pred pred) {
    return std::any_of(arguments.begin(), arguments.end(),
                       [&](const std::string& a) { return pred(std::string_view(a)); });
}

bool hasExactly(const std::vector<std::string>& arguments, std::string_view word) {
    return any(arguments, [&](std::string_view a) { return a == word; });
}

bool runsModuleAider(const std::vector<std::string>& arguments) {
    auto m = std::find(arguments.begin(), arguments.end(), "-m");
    return m != arguments.end() && std::next(m) != arguments.end() && *std::next(m) == "aider";
}

// Electron starts its renderers, GPU process and zygotes from the same
// executable with a "--type=" argument; only the main process is the app.
bool isElectronHelper(const std::vector<std::string>& arguments) {
    return any(arguments, [](std::string_view a) { return startsWith(a, "--type="); });
}

bool isLinuxCursorPath(std::string_view path) {
    const std::string_view name = lastComponent(path);
    return (name == "cursor" || name == "Cursor") &&
           (contains(path, "/.mount_Cursor") || contains(path, "/.mount_cursor") ||
            endsWith(path, "/share/cursor/cursor") || startsWith(path, "/opt/Cursor/") ||
            startsWith(path, "/opt/cursor/"));
}

AgentMatch matchOf(AgentTool tool, Role role = Role::root,
                   std::optional<std::string> managedBy = std::nullopt,
                   std::optional<std::string> version = std::nullopt) {
    return AgentMatch{tool, role, std::move(managedBy), std::move(version)};
}

}  // namespace

const char* rawValue(AgentTool tool) {
    switch (tool) {
        case AgentTool::claudeCode:
            return "claudeCode";
        case AgentTool::codex:
            return "codex";
        case AgentTool::cursor:
            return "cursor";
        case AgentTool::geminiCLI:
            return "geminiCLI";
        case AgentTool::aider:
            return "aider";
    }
    return "";
}

const char* displayName(AgentTool tool) {
    switch (tool) {
        case AgentTool::claudeCode:
            return "Claude Code";
        case AgentTool::codex:
            return "Codex";
        case AgentTool::cursor:
            return "Cursor";
        case AgentTool::geminiCLI:
            return "Gemini CLI";
        case AgentTool::aider:
            return "Aider";
    }
    return "";
}

std::optional<AgentTool> agentToolFromRaw(std::string_view raw) {
    for (AgentTool tool : kAllAgentTools)
        if (raw == rawValue(tool)) return tool;
    return std::nullopt;
}

std::string releaseVersion(std::string_view path, std::string_view prefix) {
    std::string_view rest = startsWith(path, prefix) ? path.substr(prefix.size()) : path;
    rest = rest.substr(0, rest.find('/'));
    return std::string(rest.substr(0, rest.find('-')));
}

class AgentCatalog::Arguments {
  public:
    explicit Arguments(const std::vector<std::string>& given) : given_(&given) {}
    explicit Arguments(const ArgumentReader& reader) : reader_(&reader) {}

    const std::vector<std::string>& get() {
        if (given_ != nullptr) return *given_;
        if (!read_) read_ = (*reader_)();
        return *read_;
    }

  private:
    const std::vector<std::string>* given_ = nullptr;
    const ArgumentReader* reader_ = nullptr;
    std::optional<std::vector<std::string>> read_;
};

AgentCatalog::AgentCatalog(std::string home)
    : home_(std::move(home)),
      claudeVersions_(home_ + "/.local/share/claude/versions/"),
      claudeDesktop_(home_ + "/Library/Application Support/Claude/claude-code/"),
      codexStandalone_(home_ + "/.codex/packages/standalone/releases/"),
      codexAppServer_(home_ + "/.codex/packages/app-server-daemon/releases/"),
      userApplications_(home_ + "/Applications/") {}

std::optional<AgentMatch> AgentCatalog::match(const std::optional<std::string>& path,
                                              const std::vector<std::string>& arguments) const {
    Arguments args(arguments);
    return matchWith(path, args);
}

std::optional<AgentMatch> AgentCatalog::matchReading(const std::optional<std::string>& path,
                                                     const ArgumentReader& readArguments) const {
    Arguments args(readArguments);
    return matchWith(path, args);
}

bool AgentCatalog::mayNeedArguments(const std::optional<std::string>& path) const {
    return path.has_value() && !isSystemPath(*path);
}

std::optional<AgentMatch> AgentCatalog::matchWith(const std::optional<std::string>& pathOrNone,
                                                  Arguments& args) const {
    if (!pathOrNone) return std::nullopt;
    const std::string_view path = *pathOrNone;
    if (isSystemPath(path)) return std::nullopt;
    const std::string_view name = lastComponent(path);
    const bool scriptRuntime = isScriptRuntime(name);

    if (startsWith(path, claudeVersions_))
        return matchOf(AgentTool::claudeCode, Role::root, std::nullopt,
                       upToSlash(path.substr(claudeVersions_.size())));
    if (startsWith(path, claudeDesktop_) && endsWith(path, "/claude.app/Contents/MacOS/claude"))
        return matchOf(AgentTool::claudeCode, Role::root, "Claude",
                       upToSlash(path.substr(claudeDesktop_.size())));
    if (name == "disclaimer" && contains(path, "/Claude.app/Contents/Helpers/") &&
        hasExactly(args.get(), "--pgroup") &&
        any(args.get(), [](std::string_view a) { return contains(a, "/Claude/claude-code/"); }))
        return matchOf(AgentTool::claudeCode, Role::wrapper, "Claude");
    if (contains(path, "/Caskroom/claude-code/")) return matchOf(AgentTool::claudeCode);
    if (scriptRuntime && any(args.get(), [](std::string_view a) {
            return contains(a, "/@anthropic-ai/claude-code/") &&
                   (endsWith(a, "cli.js") || endsWith(a, "cli.mjs"));
        }))
        return matchOf(AgentTool::claudeCode);

    if (startsWith(path, codexStandalone_) && name == "codex")
        return matchOf(AgentTool::codex, Role::root, std::nullopt,
                       releaseVersion(path, codexStandalone_));
    if (startsWith(path, codexAppServer_) && name == "codex" &&
        hasExactly(args.get(), "app-server"))
        return matchOf(AgentTool::codex, Role::daemon, std::nullopt,
                       releaseVersion(path, codexAppServer_));
    if (contains(path, "/Caskroom/codex/")) return matchOf(AgentTool::codex);
    if (scriptRuntime &&
        any(args.get(), [](std::string_view a) { return contains(a, "/@openai/codex/"); }))
        return matchOf(AgentTool::codex);

    if (endsWith(path, "/Cursor.app/Contents/MacOS/Cursor") &&
        (startsWith(path, "/Applications/") || startsWith(path, userApplications_)))
        return matchOf(AgentTool::cursor);
    if (name == "cursor-agent") return matchOf(AgentTool::cursor);
    if (scriptRuntime && any(args.get(), [](std::string_view a) {
            return lastComponent(a) == "cursor-agent" || contains(a, "/cursor-agent/");
        }))
        return matchOf(AgentTool::cursor);

    if (scriptRuntime && any(args.get(), [](std::string_view a) {
            return contains(a, "/@google/gemini-cli/") || lastComponent(a) == "gemini";
        }))
        return matchOf(AgentTool::geminiCLI);
    if (name == "gemini" && !startsWith(path, "/usr/")) return matchOf(AgentTool::geminiCLI);

    // Cursor on Linux runs from its AppImage mount or an installed folder. No
    // earlier rule can fire for an executable named "cursor", and the Python
    // rule below never matches it, so this rule only turns a miss into a match.
    if (isLinuxCursorPath(path) && !isElectronHelper(args.get())) return matchOf(AgentTool::cursor);

    if (!startsWith(name, "python")) return std::nullopt;
    const auto& arguments = args.get();
    if (any(arguments, [](std::string_view a) { return lastComponent(a) == "aider"; }) ||
        runsModuleAider(arguments))
        return matchOf(AgentTool::aider);
    return std::nullopt;
}

bool isCursorAppPath(std::string_view path) {
    return endsWith(path, ".app/Contents/MacOS/Cursor") || isLinuxCursorPath(path);
}

bool isCursorApp(std::string_view path, const std::vector<std::string>& arguments) {
    return isCursorAppPath(path) && !isElectronHelper(arguments);
}

}  // namespace wharfy
