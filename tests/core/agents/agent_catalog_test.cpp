#include <gtest/gtest.h>

#include "core/agents/agent_catalog.h"

namespace wharfy {
namespace {

using Role = AgentMatch::Role;
using Args = std::vector<std::string>;

const std::string kHome = "/Users/ana";
const std::string kLinuxHome = "/home/ana";

}  // namespace

void PrintTo(const AgentMatch& m, std::ostream* os) {
    *os << rawValue(m.tool) << "/" << static_cast<int>(m.role) << "/" << m.managedBy.value_or("-")
        << "/" << m.version.value_or("-");
}

namespace {

struct CatalogCase {
    const char* what;
    std::optional<std::string> path;
    Args arguments;
    std::optional<AgentMatch> expected;
};

AgentMatch root(AgentTool tool, std::optional<std::string> version = std::nullopt,
                std::optional<std::string> managedBy = std::nullopt) {
    return AgentMatch{tool, Role::root, std::move(managedBy), std::move(version)};
}

void PrintTo(const CatalogCase& c, std::ostream* os) {
    *os << c.what;
}

class CatalogTable : public ::testing::TestWithParam<CatalogCase> {};

TEST_P(CatalogTable, FirstFittingRuleDecides) {
    const auto& c = GetParam();
    AgentCatalog catalog(c.path && c.path->starts_with(kLinuxHome) ? kLinuxHome : kHome);
    EXPECT_EQ(catalog.match(c.path, c.arguments), c.expected) << c.what;
}

const std::string kDesktop = kHome + "/Library/Application Support/Claude/claude-code/";
const std::string kCodexReleases = kHome + "/.codex/packages/standalone/releases/";
const std::string kAppServer = kHome + "/.codex/packages/app-server-daemon/releases/";
const std::string kClaudeCli = "/u/lib/node_modules/@anthropic-ai/claude-code/cli.js";

INSTANTIATE_TEST_SUITE_P(
    Rules, CatalogTable,
    ::testing::Values(
        CatalogCase{"no path", std::nullopt, {"node", kClaudeCli}, std::nullopt},
        CatalogCase{"system program never matches, whatever its arguments",
                    "/System/Library/node",
                    {"node", kClaudeCli},
                    std::nullopt},
        CatalogCase{
            "libexec never matches", "/usr/libexec/node", {"node", kClaudeCli}, std::nullopt},
        CatalogCase{"native Claude Code",
                    kHome + "/.local/share/claude/versions/2.0.14",
                    {"claude"},
                    root(AgentTool::claudeCode, "2.0.14")},
        CatalogCase{"native Claude Code on Linux",
                    kLinuxHome + "/.local/share/claude/versions/2.0.14",
                    {"claude"},
                    root(AgentTool::claudeCode, "2.0.14")},
        CatalogCase{"another home's native install is not this user's",
                    "/home/bob/.local/share/claude/versions/2.0.14",
                    {"claude"},
                    std::nullopt},
        CatalogCase{"Claude Code run by the desktop app",
                    kDesktop + "2.0.5/claude.app/Contents/MacOS/claude",
                    {"claude"},
                    root(AgentTool::claudeCode, "2.0.5", "Claude")},
        CatalogCase{"desktop prefix with another ending falls through",
                    kDesktop + "2.0.5/claude.app/Contents/MacOS/helper",
                    {"helper"},
                    std::nullopt},
        CatalogCase{"desktop launcher",
                    "/Applications/Claude.app/Contents/Helpers/disclaimer",
                    {"disclaimer", "--pgroup", kDesktop + "2.0.5/claude.app"},
                    AgentMatch{AgentTool::claudeCode, Role::wrapper, "Claude", std::nullopt}},
        CatalogCase{"launcher without --pgroup",
                    "/Applications/Claude.app/Contents/Helpers/disclaimer",
                    {"disclaimer", kDesktop + "2.0.5/claude.app"},
                    std::nullopt},
        CatalogCase{"Homebrew cask",
                    "/opt/homebrew/Caskroom/claude-code/2.0.1/claude",
                    {"claude"},
                    root(AgentTool::claudeCode)},
        CatalogCase{"npm package under node",
                    "/usr/bin/node",
                    {"node", kClaudeCli},
                    root(AgentTool::claudeCode)},
        CatalogCase{"npm package under node22",
                    "/opt/node22",
                    {"node22", kClaudeCli},
                    root(AgentTool::claudeCode)},
        CatalogCase{"another file of the package is not the agent",
                    "/usr/bin/node",
                    {"node", "/u/node_modules/@anthropic-ai/claude-code/sdk.mjs"},
                    std::nullopt},
        CatalogCase{"the package under a non-runtime",
                    "/usr/bin/python3",
                    {"python3", kClaudeCli},
                    std::nullopt},
        CatalogCase{"Codex standalone",
                    kCodexReleases + "0.46.0-aarch64-apple-darwin/codex",
                    {"codex"},
                    root(AgentTool::codex, "0.46.0")},
        CatalogCase{
            "Codex standalone on Linux",
            kLinuxHome +
                "/.codex/packages/standalone/releases/0.46.0-x86_64-unknown-linux-musl/codex",
            {"codex"},
            root(AgentTool::codex, "0.46.0")},
        CatalogCase{"renamed Codex executable",
                    kCodexReleases + "0.46.0-aarch64-apple-darwin/codex-old",
                    {"codex-old"},
                    std::nullopt},
        CatalogCase{"Codex app server",
                    kAppServer + "0.47.1-aarch64-apple-darwin/codex",
                    {"codex", "app-server"},
                    AgentMatch{AgentTool::codex, Role::daemon, std::nullopt, "0.47.1"}},
        CatalogCase{"app-server executable without its argument",
                    kAppServer + "0.47.1-aarch64-apple-darwin/codex",
                    {"codex", "serve"},
                    std::nullopt},
        CatalogCase{"Codex cask",
                    "/opt/homebrew/Caskroom/codex/0.40.0/codex",
                    {"codex"},
                    root(AgentTool::codex)},
        CatalogCase{"Codex under bun",
                    "/home/ana/.bun/bin/bun",
                    {"bun", "/x/node_modules/@openai/codex/bin/codex.js"},
                    root(AgentTool::codex)},
        CatalogCase{"Cursor app",
                    "/Applications/Cursor.app/Contents/MacOS/Cursor",
                    {"Cursor"},
                    root(AgentTool::cursor)},
        CatalogCase{"Cursor app in the user's Applications",
                    kHome + "/Applications/Cursor.app/Contents/MacOS/Cursor",
                    {"Cursor"},
                    root(AgentTool::cursor)},
        CatalogCase{"Cursor app on a disk image",
                    "/Volumes/Cursor/Cursor.app/Contents/MacOS/Cursor",
                    {"Cursor"},
                    std::nullopt},
        CatalogCase{"cursor-agent executable",
                    "/home/ana/.local/bin/cursor-agent",
                    {"cursor-agent"},
                    root(AgentTool::cursor)},
        CatalogCase{"cursor-agent under node",
                    "/usr/bin/node",
                    {"node", "/home/ana/.local/share/cursor-agent/versions/1/index.js"},
                    root(AgentTool::cursor)},
        CatalogCase{"Cursor AppImage mount",
                    "/tmp/.mount_CursorAbc123/cursor",
                    {"cursor"},
                    root(AgentTool::cursor)},
        CatalogCase{"Cursor AppImage mount, lower case",
                    "/tmp/.mount_cursorXyz/usr/share/cursor/cursor",
                    {"cursor"},
                    root(AgentTool::cursor)},
        CatalogCase{"Cursor installed package",
                    "/usr/share/cursor/cursor",
                    {"cursor"},
                    root(AgentTool::cursor)},
        CatalogCase{"Cursor in /opt", "/opt/Cursor/cursor", {"cursor"}, root(AgentTool::cursor)},
        CatalogCase{"Cursor's Electron renderer is part of the app, not a session",
                    "/usr/share/cursor/cursor",
                    {"cursor", "--type=renderer"},
                    std::nullopt},
        CatalogCase{"crash handler in the AppImage mount",
                    "/tmp/.mount_CursorAbc123/chrome_crashpad_handler",
                    {"chrome_crashpad_handler"},
                    std::nullopt},
        CatalogCase{"a node script inside the Cursor mount still follows the node rules",
                    "/tmp/.mount_CursorAbc123/node",
                    {"node", "/x/node_modules/@google/gemini-cli/dist/index.js"},
                    root(AgentTool::geminiCLI)},
        CatalogCase{"Gemini CLI package under node",
                    "/usr/bin/node",
                    {"node", "/x/node_modules/@google/gemini-cli/dist/index.js"},
                    root(AgentTool::geminiCLI)},
        CatalogCase{"gemini launcher script under node",
                    "/usr/bin/node",
                    {"node", "/usr/local/bin/gemini"},
                    root(AgentTool::geminiCLI)},
        CatalogCase{
            "gemini executable under /usr", "/usr/local/bin/gemini", {"gemini"}, std::nullopt},
        CatalogCase{"gemini executable from Homebrew",
                    "/opt/homebrew/bin/gemini",
                    {"gemini"},
                    root(AgentTool::geminiCLI)},
        CatalogCase{"aider executable alone", "/opt/homebrew/bin/aider", {"aider"}, std::nullopt},
        CatalogCase{"aider script under python",
                    "/usr/bin/python3.12",
                    {"python3.12", "/opt/homebrew/bin/aider"},
                    root(AgentTool::aider)},
        CatalogCase{
            "aider module", "/usr/bin/python3", {"python3", "-m", "aider"}, root(AgentTool::aider)},
        CatalogCase{"a module that only begins with aider",
                    "/usr/bin/python3",
                    {"python3", "-m", "aider.main"},
                    std::nullopt},
        CatalogCase{
            "python without aider", "/usr/bin/python3", {"python3", "-m", "pytest"}, std::nullopt},
        CatalogCase{"ordinary program", "/usr/bin/vim", {"vim", "claude"}, std::nullopt}),
    [](const auto& param) { return "Case" + std::to_string(param.index); });

TEST(AgentCatalogTest, ArgumentsAreReadOnlyWhereARuleNeedsThem) {
    AgentCatalog catalog(kLinuxHome);
    struct Case {
        std::optional<std::string> path;
        bool mayNeed;
        bool reads;
    };
    const Case cases[] = {
        {std::nullopt, false, false},
        {"/System/Library/x", false, false},
        {"/usr/libexec/x", false, false},
        {"/Library/Apple/x", false, false},
        {kLinuxHome + "/.local/share/claude/versions/2.0.14", true, false},
        {"/usr/bin/vim", true, false},
        {"/usr/bin/node", true, true},
        {"/usr/bin/python3", true, true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(catalog.mayNeedArguments(c.path), c.mayNeed) << c.path.value_or("none");
        int reads = 0;
        catalog.matchReading(c.path, [&] {
            ++reads;
            return Args{"x", "y"};
        });
        EXPECT_EQ(reads, c.reads ? 1 : 0) << c.path.value_or("none");
    }
}

TEST(AgentCatalogTest, ToolNamesAndReleaseVersions) {
    for (AgentTool tool : kAllAgentTools)
        EXPECT_EQ(agentToolFromRaw(rawValue(tool)), tool);
    EXPECT_STREQ(displayName(AgentTool::geminiCLI), "Gemini CLI");
    EXPECT_STREQ(rawValue(AgentTool::geminiCLI), "geminiCLI");
    EXPECT_EQ(agentToolFromRaw("Claude Code"), std::nullopt);

    EXPECT_EQ(releaseVersion("/r/0.46.0-aarch64-apple-darwin/codex", "/r/"), "0.46.0");
    EXPECT_EQ(releaseVersion("/r/0.46.0/codex", "/r/"), "0.46.0");
    EXPECT_EQ(releaseVersion("/r/codex", "/r/"), "codex");
}

}  // namespace
}  // namespace wharfy
