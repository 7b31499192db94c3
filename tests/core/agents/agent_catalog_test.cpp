#include <gtest/gtest.h>

#include "core/agents/agent_catalog.h"

namespace wharfy {
namespace {

const std::string kHome = "/Users/ana";

// "tool/role", then " by <app>" and " v<version>" when set; "none" without a match.
std::string describe(const std::optional<AgentMatch>& m) {
    if (!m) return "none";
    static const char* roles[] = {"root", "daemon", "wrapper"};
    std::string out = std::string(rawValue(m->tool)) + "/" + roles[static_cast<int>(m->role)];
    if (m->managedBy) out += " by " + *m->managedBy;
    if (m->version) out += " v" + *m->version;
    return out;
}

// A leading "~" stands for the home folder; arguments are separated by "|".
std::string expand(const std::string& s) {
    return s.starts_with("~") ? kHome + s.substr(1) : s;
}
std::vector<std::string> split(const std::string& joined) {
    std::vector<std::string> out;
    for (size_t start = 0, end; start <= joined.size(); start = end + 1) {
        end = std::min(joined.find('|', start), joined.size());
        out.push_back(expand(joined.substr(start, end - start)));
    }
    return out;
}

TEST(AgentCatalogTest, FirstFittingRuleDecides) {
    const std::string claudeCli = "/u/node_modules/@anthropic-ai/claude-code/cli.js";
    const std::string desktop = "~/Library/Application Support/Claude/claude-code/2.0.5";
    const std::string codex = "~/.codex/packages/standalone/releases/";
    const std::string server = "~/.codex/packages/app-server-daemon/releases/0.47.1-x/codex";
    const std::string gemini = "/x/node_modules/@google/gemini-cli/dist/index.js";
    struct Case {
        std::string path, arguments, expected;
    };
    const Case cases[] = {
        {"/System/Library/node", "node|" + claudeCli, "none"},
        {"/usr/libexec/node", "node|" + claudeCli, "none"},
        {"~/.local/share/claude/versions/2.0.14", "claude", "claudeCode/root v2.0.14"},
        {"/home/bob/.local/share/claude/versions/2.0.14", "claude", "none"},
        {desktop + "/claude.app/Contents/MacOS/claude", "claude",
         "claudeCode/root by Claude v2.0.5"},
        {desktop + "/claude.app/Contents/MacOS/helper", "helper", "none"},
        {"/Applications/Claude.app/Contents/Helpers/disclaimer", "d|--pgroup|" + desktop,
         "claudeCode/wrapper by Claude"},
        {"/Applications/Claude.app/Contents/Helpers/disclaimer", "d|" + desktop, "none"},
        {"/opt/homebrew/Caskroom/claude-code/2.0.1/claude", "claude", "claudeCode/root"},
        {"/usr/bin/node", "node|" + claudeCli, "claudeCode/root"},
        {"/opt/node22", "node22|" + claudeCli, "claudeCode/root"},
        {"/usr/bin/node", "node|/u/node_modules/@anthropic-ai/claude-code/sdk.mjs", "none"},
        {"/usr/bin/python3", "python3|" + claudeCli, "none"},
        {codex + "0.46.0-aarch64-apple-darwin/codex", "codex", "codex/root v0.46.0"},
        {codex + "0.46.0-x86_64-unknown-linux-musl/codex", "codex", "codex/root v0.46.0"},
        {codex + "0.46.0-aarch64-apple-darwin/codex-old", "codex-old", "none"},
        {server, "codex|app-server", "codex/daemon v0.47.1"},
        {server, "codex|serve", "none"},
        {"/h/.bun/bin/bun", "bun|/x/node_modules/@openai/codex/bin/codex.js", "codex/root"},
        {"/Applications/Cursor.app/Contents/MacOS/Cursor", "Cursor", "cursor/root"},
        {"~/Applications/Cursor.app/Contents/MacOS/Cursor", "Cursor", "cursor/root"},
        {"/Volumes/Cursor/Cursor.app/Contents/MacOS/Cursor", "Cursor", "none"},
        {"/h/.local/bin/cursor-agent", "cursor-agent", "cursor/root"},
        {"/usr/bin/node", "node|/h/.local/share/cursor-agent/versions/1/index.js", "cursor/root"},
        {"/tmp/.mount_CursorAbc123/cursor", "cursor", "cursor/root"},
        {"/tmp/.mount_cursorXyz/usr/share/cursor/cursor", "cursor", "cursor/root"},
        {"/usr/share/cursor/cursor", "cursor", "cursor/root"},
        {"/usr/share/cursor/cursor", "cursor|--type=renderer", "none"},
        {"/tmp/.mount_CursorAbc123/chrome_crashpad_handler", "chrome_crashpad_handler", "none"},
        {"/tmp/.mount_CursorAbc123/node", "node|" + gemini, "geminiCLI/root"},
        {"/usr/bin/node", "node|/usr/local/bin/gemini", "geminiCLI/root"},
        {"/usr/local/bin/gemini", "gemini", "none"},
        {"/opt/homebrew/bin/gemini", "gemini", "geminiCLI/root"},
        {"/opt/homebrew/bin/aider", "aider", "none"},
        {"/usr/bin/python3.12", "python3.12|/opt/homebrew/bin/aider", "aider/root"},
        {"/usr/bin/python3", "python3|-m|aider", "aider/root"},
        {"/usr/bin/python3", "python3|-m|aider.main", "none"},
    };
    for (const auto& c : cases) {
        AgentCatalog catalog(kHome);
        EXPECT_EQ(describe(catalog.match(expand(c.path), split(c.arguments))), c.expected)
            << c.path << " " << c.arguments;
    }
}

TEST(AgentCatalogTest, ArgumentsAreReadOnlyWhereARuleNeedsThem) {
    AgentCatalog catalog(kHome);
    struct Case {
        std::optional<std::string> path;
        bool mayNeed, reads;
    };
    const Case cases[] = {
        {std::nullopt, false, false},
        {"/System/Library/x", false, false},
        {"/Library/Apple/x", false, false},
        {kHome + "/.local/share/claude/versions/2", true, false},
        {"/usr/bin/vim", true, false},
        {"/usr/bin/node", true, true},
        {"/usr/bin/python3", true, true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(catalog.mayNeedArguments(c.path), c.mayNeed) << c.path.value_or("none");
        int reads = 0;
        catalog.matchReading(c.path, [&] { return std::vector<std::string>(++reads, "x"); });
        EXPECT_EQ(reads, c.reads ? 1 : 0) << c.path.value_or("none");
    }
    for (AgentTool tool : kAllAgentTools)
        EXPECT_EQ(agentToolFromRaw(rawValue(tool)), tool);
    EXPECT_STREQ(displayName(AgentTool::geminiCLI), "Gemini CLI");
}

}  // namespace
}  // namespace wharfy
