#include <gtest/gtest.h>

#include <map>
#include <set>

#include "core/agents/agent_session.h"

namespace wharfy {
namespace {

using nemarro::process::ProcessRef;

using nemarro::process::ProcessUsage;
using Args = std::vector<std::string>;

constexpr uint32_t kUid = 501;
const std::string kHome = "/home/ana";
const std::string kClaude = kHome + "/.local/share/claude/versions/2.0.14";

ProcessUsage proc(int32_t pid, int32_t ppid, std::optional<std::string> path,
                  std::optional<double> cpu = std::nullopt, uint32_t uid = kUid) {
    std::string name = path ? path->substr(path->rfind('/') + 1) : "?";
    return ProcessUsage{{pid, 1000ULL * static_cast<uint64_t>(pid)},
                        ppid,
                        uid,
                        name,
                        path,
                        100,
                        cpu,
                        std::nullopt,
                        std::nullopt};
}

// A recorded sample: argument lists and working directories by pid, and
// which pids had their arguments read.
struct Recorded {
    std::map<int32_t, Args> arguments;
    std::map<int32_t, std::string> directories;
    std::multiset<int32_t> reads;

    std::vector<AgentSession> build(const std::vector<ProcessUsage>& entries) {
        SessionBuilder builder(
            AgentCatalog(kHome),
            ProjectResolver(kHome, true,
                            [](const std::string& p) { return p.ends_with("app/.git"); }),
            kUid);
        return builder.build(
            entries,
            [&](int32_t pid) -> std::optional<Args> {
                reads.insert(pid);
                if (!arguments.contains(pid)) return std::nullopt;
                return arguments[pid];
            },
            [&](int32_t pid) -> std::optional<std::string> {
                if (!directories.contains(pid)) return std::nullopt;
                return directories[pid];
            });
    }
};

std::string pidList(const std::vector<ProcessUsage>& entries) {
    std::string out;
    for (const auto& e : entries)
        out += (out.empty() ? "" : ",") + std::to_string(e.identity.pid);
    return out;
}

// "pid tool [children]", then " wrapper=pid", " by=app", " orphan" when set.
std::vector<std::string> summary(const std::vector<AgentSession>& sessions) {
    std::vector<std::string> out;
    for (const auto& s : sessions) {
        std::string line = std::to_string(s.root.identity.pid) + " " + rawValue(s.tool) + " [" +
                           pidList(s.children) + "]";
        if (s.wrapper) line += " wrapper=" + std::to_string(s.wrapper->pid);
        if (s.managedBy) line += " by=" + *s.managedBy;
        if (s.isOrphanDaemon) line += " orphan";
        out.push_back(line);
    }
    return out;
}

TEST(SessionBuilderTest, GroupsProcessTreesIntoOneSessionPerRoot) {
    const std::string disclaimer = "/Applications/Claude.app/Contents/Helpers/disclaimer";
    const std::string desktop = kHome + "/Library/Application Support/Claude/claude-code/2.0.5";
    const std::string cursor = "/Applications/Cursor.app/Contents/MacOS/Cursor";
    const std::string server = kHome + "/.codex/packages/app-server-daemon/releases/0.4-x/codex";
    const std::string codex = kHome + "/.codex/packages/standalone/releases/0.4-x/codex";
    const Args claudeCli{"node", "/x/node_modules/@anthropic-ai/claude-code/cli.js"};
    Recorded r;
    r.arguments = {{10, claudeCli},
                   {11, claudeCli},
                   {13, claudeCli},
                   {52, claudeCli},
                   {40, {"d", "--pgroup", desktop}},
                   {62, {"node", "/x/@openai/codex/cli.js"}},
                   {20, {"codex", "app-server"}},
                   {31, {"codex", "app-server"}},
                   {60, {"claude", "--resume"}},
                   {61, {"claude", "--resume"}}};
    r.directories = {{60, kHome + "/src/app/server"}};
    std::vector<ProcessUsage> entries{
        proc(10, 1, "/System/Library/node"),         // system program: arguments never read
        proc(11, 1, "/usr/bin/node", {}, kUid + 1),  // another user's agent
        proc(12, 11, "/usr/bin/sleep"),
        proc(13, 1, "/usr/bin/node"),          // the user's own under node
        proc(14, 13, "/usr/bin/sudo", {}, 0),  // another uid's child still counts
        proc(20, 1, server),
        proc(21, 20, "/usr/bin/rg"),  // left-behind daemon
        proc(30, 1, codex),
        proc(31, 30, server),  // daemon run by its agent
        proc(40, 1, disclaimer),
        proc(41, 40, desktop + "/claude.app/Contents/MacOS/claude"),
        proc(50, 1, cursor),
        proc(51, 50, cursor + " Helper"),
        proc(52, 51, "/usr/bin/node"),
        proc(60, 1, kClaude, 5.0),
        proc(61, 60, kClaude, 1.5),
        proc(62, 61, "/usr/bin/node"),  // fork, nested
        proc(63, 62, "/usr/bin/rg"),
        proc(64, 60, "/usr/bin/bash"),
        proc(66, 65, "/usr/bin/cat"),  // 65 exited: its child is not reached
        proc(67, 60, "/usr/bin/git"),
    };
    for (auto& e : entries) {
        if (e.identity.pid == 62) e.identity.startTime = 1;       // started first (pids wrapped)
        if (e.identity.pid == 50) e.identity.startTime = 13'000;  // with 13: lower pid first
    }
    auto sessions = r.build(entries);
    EXPECT_EQ(summary(sessions), (std::vector<std::string>{
                                     "62 codex [63]",
                                     "13 claudeCode [14]",
                                     "50 cursor [51]",
                                     "20 codex [21] orphan",
                                     "30 codex [31]",
                                     "41 claudeCode [] wrapper=40 by=Claude",
                                     "52 claudeCode [] wrapper=50 by=Cursor",
                                     "60 claudeCode [61,64,67]",
                                 }));
    const AgentSession& claude = sessions.back();
    EXPECT_EQ(claude.root, (ProcessRef{{60, 60'000}, "2.0.14", kClaude, {"claude", "--resume"}}));
    EXPECT_EQ(claude.id(), "60@60000");
    EXPECT_EQ(claude.version, "2.0.14");
    EXPECT_EQ(claude.project, (ProjectInfo{"~/src/app", true}));
    EXPECT_EQ(claude.startTime, 60'000u);
    EXPECT_EQ(claude.footprint, 400u);
    EXPECT_EQ(claude.cpuPercent, 6.5);
    // No CPU figure in the session yet: absent, not zero. No directory: no project.
    EXPECT_EQ(sessions[1].cpuPercent, std::nullopt);
    EXPECT_EQ(sessions[1].project, std::nullopt);
    EXPECT_EQ(r.reads.count(10) + r.reads.count(11), 0u);
    EXPECT_EQ(r.reads.count(13), 1u);  // the match's read serves the command line too
    EXPECT_EQ(r.reads.count(64), 0u);  // no rule asks a shell for its arguments
}

TEST(SessionBuilderTest, ForksJoinTheirParentAndShellsEndTheWrapperWalk) {
    const std::string cursor = "/opt/Cursor/cursor";
    Recorded r;
    r.arguments = {{10, {"claude"}},
                   {11, {"claude"}},                  // a true fork
                   {12, {"claude", "-p", "review"}},  // started anew by the agent
                   {20, {cursor}},
                   {21, {cursor, "--type=utility"}},  // Electron helper of the app
                   {22, {"claude"}},                  // run by the app
                   {23, {"bash"}},                    // the editor's terminal
                   {24, {"claude"}},                  // typed by hand there
                   {25, {"bash", "-c", "claude"}},    // a script the app runs
                   {26, {"claude", "--print"}}};
    const std::vector<ProcessUsage> entries{
        proc(10, 1, kClaude),          proc(11, 10, kClaude), proc(12, 10, kClaude),
        proc(20, 1, cursor),           proc(21, 20, cursor),  proc(22, 21, kClaude),
        proc(23, 21, "/usr/bin/bash"), proc(24, 23, kClaude), proc(25, 21, "/usr/bin/bash"),
        proc(26, 25, kClaude),
    };
    EXPECT_EQ(summary(r.build(entries)), (std::vector<std::string>{
                                             "10 claudeCode [11]",
                                             "12 claudeCode []",
                                             "20 cursor [21,23,25]",
                                             "22 claudeCode [] wrapper=20 by=Cursor",
                                             "24 claudeCode []",
                                             "26 claudeCode [] wrapper=20 by=Cursor",
                                         }));
}

TEST(SessionBuilderTest, DescendantsWalkBreadthFirst) {
    const std::vector<ProcessUsage> entries{proc(2, 1, "/a"), proc(3, 1, "/b"), proc(4, 2, "/c"),
                                            proc(5, 3, "/d"), proc(6, 7, "/e")};
    SessionBuilder::EntryMap byPID;
    for (const auto& e : entries)
        byPID[e.identity.pid] = &e;
    struct Case {
        SessionBuilder::ChildMap children;
        std::unordered_set<int32_t> excluding;
        std::string expected;
    };
    const Case cases[] = {
        {{{1, {3, 2}}, {2, {4}}, {3, {5}}}, {}, "3,2,5,4"},
        {{{1, {2, 3}}, {2, {4}}, {3, {5}}}, {2}, "3,5"},  // excluded with its subtree
        {{{1, {7, 3}}, {7, {6}}, {3, {6}}}, {}, "3,6"},   // 6 reached past missing 7
        {{{1, {7}}, {7, {6}}}, {}, ""},                   // missing 7 cuts its subtree
        {{{1, {2}}, {2, {1, 4}}, {4, {2}}}, {}, "2,4"},   // a cycle ends
    };
    for (const auto& c : cases)
        EXPECT_EQ(pidList(SessionBuilder::descendants(1, c.children, byPID, c.excluding)),
                  c.expected);
}

}  // namespace
}  // namespace wharfy
