#include <gtest/gtest.h>

#include <map>
#include <set>

#include "core/agents/agent_session.h"

namespace wharfy {
namespace {

using nemarro::process::ProcessIdentity;
using nemarro::process::ProcessUsage;
using Args = std::vector<std::string>;

constexpr uint32_t kUid = 501;
const std::string kHome = "/home/ana";
const std::string kNativeClaude = kHome + "/.local/share/claude/versions/2.0.14";
const std::string kCodexServer =
    kHome + "/.codex/packages/app-server-daemon/releases/0.47.1-x86_64-unknown-linux-musl/codex";
const std::string kDesktopClaude = kHome +
                                   "/Library/Application Support/Claude/claude-code/2.0.5/"
                                   "claude.app/Contents/MacOS/claude";

ProcessUsage proc(int32_t pid, int32_t ppid, std::optional<std::string> path,
                  std::optional<double> cpu = std::nullopt, uint64_t footprint = 1000,
                  uint32_t uid = kUid) {
    std::string name = path ? path->substr(path->rfind('/') + 1) : "unknown";
    return ProcessUsage{ProcessIdentity{pid, 1'000'000ULL * static_cast<uint64_t>(pid)},
                        ppid,
                        uid,
                        name,
                        std::move(path),
                        footprint,
                        cpu,
                        std::nullopt,
                        std::nullopt};
}

// A recorded machine: the argument lists and working directories of a
// sample, with a record of which pids had their arguments read.
struct RecordedMachine {
    std::map<int32_t, Args> arguments;
    std::map<int32_t, std::string> directories;
    std::multiset<int32_t> argumentReads;

    SessionBuilder::ArgumentsFn argumentReader() {
        return [this](int32_t pid) -> std::optional<Args> {
            argumentReads.insert(pid);
            auto found = arguments.find(pid);
            if (found == arguments.end()) return std::nullopt;
            return found->second;
        };
    }
    SessionBuilder::DirectoryFn directoryReader() {
        return [this](int32_t pid) -> std::optional<std::string> {
            auto found = directories.find(pid);
            if (found == directories.end()) return std::nullopt;
            return found->second;
        };
    }
};

SessionBuilder builder(std::set<std::string> gitFolders = {}) {
    return SessionBuilder(AgentCatalog(kHome),
                          ProjectResolver(kHome, true,
                                          [gitFolders](const std::string& path) {
                                              return gitFolders.contains(path);
                                          }),
                          kUid);
}

std::vector<int32_t> pids(const std::vector<ProcessUsage>& entries) {
    std::vector<int32_t> out;
    for (const auto& e : entries)
        out.push_back(e.identity.pid);
    return out;
}

std::vector<int32_t> rootPIDs(const std::vector<AgentSession>& sessions) {
    std::vector<int32_t> out;
    for (const auto& s : sessions)
        out.push_back(s.root.identity.pid);
    return out;
}

TEST(SessionBuilderTest, NoAgentsAndSystemProgramsGiveNoSessions) {
    RecordedMachine machine;
    const Args claudeArgs{"node", "/x/node_modules/@anthropic-ai/claude-code/cli.js"};
    machine.arguments = {{10, claudeArgs}, {11, claudeArgs}, {12, {"vim"}}};
    std::vector<ProcessUsage> entries{proc(10, 1, "/System/Library/node"),
                                      proc(11, 1, "/usr/libexec/node"), proc(12, 1, "/usr/bin/vim"),
                                      proc(13, 1, std::nullopt)};
    EXPECT_TRUE(
        builder().build(entries, machine.argumentReader(), machine.directoryReader()).empty());
    // System programs are never asked for their arguments, and neither is a
    // program whose name no argument rule cares about.
    EXPECT_TRUE(machine.argumentReads.empty());
}

TEST(SessionBuilderTest, OneSessionPerRootWithItsTreeProjectAndLoad) {
    RecordedMachine machine;
    machine.arguments = {{100, {"claude", "--resume"}}};
    machine.directories = {{100, kHome + "/src/app/server"}};
    std::vector<ProcessUsage> entries{
        proc(103, 102, "/usr/bin/sleep", 2.0, 30),
        proc(100, 1, kNativeClaude, 5.0, 1000),
        proc(101, 100, "/usr/bin/bash", std::nullopt, 200),
        proc(102, 100, "/usr/bin/node", 1.5, 300),
        proc(200, 1, "/usr/bin/bash", 50.0, 999),
    };
    auto sessions = builder({kHome + "/src/app/.git"})
                        .build(entries, machine.argumentReader(), machine.directoryReader());
    ASSERT_EQ(sessions.size(), 1u);
    const AgentSession& s = sessions[0];
    EXPECT_EQ(s.tool, AgentTool::claudeCode);
    EXPECT_EQ(s.version, "2.0.14");
    EXPECT_EQ(s.managedBy, std::nullopt);
    EXPECT_FALSE(s.isOrphanDaemon);
    EXPECT_EQ(s.root,
              (ProcessRef{{100, 100'000'000}, "2.0.14", kNativeClaude, {"claude", "--resume"}}));
    EXPECT_EQ(s.id(), "100@100000000");
    EXPECT_EQ(s.wrapper, std::nullopt);
    EXPECT_EQ(s.project, (ProjectInfo{"~/src/app", true}));
    EXPECT_EQ(pids(s.children), (std::vector<int32_t>{101, 102, 103}));
    EXPECT_EQ(s.processCount(), 4u);
    EXPECT_EQ(s.startTime, 100'000'000u);
    EXPECT_EQ(s.footprint, 1530u);
    EXPECT_DOUBLE_EQ(s.cpuPercent.value_or(-1), 8.5);
}

TEST(SessionBuilderTest, CpuIsAbsentOnlyWhenNoProcessHasAFigure) {
    struct Case {
        std::optional<double> root, child;
        std::optional<double> expected;
    };
    for (const Case& c : {Case{std::nullopt, std::nullopt, std::nullopt},
                          Case{std::nullopt, 0.0, 0.0}, Case{3.0, std::nullopt, 3.0}}) {
        RecordedMachine machine;
        auto sessions = builder().build(
            {proc(100, 1, kNativeClaude, c.root), proc(101, 100, "/usr/bin/git", c.child)},
            machine.argumentReader(), machine.directoryReader());
        ASSERT_EQ(sessions.size(), 1u);
        EXPECT_EQ(sessions[0].cpuPercent, c.expected);
    }
}

TEST(SessionBuilderTest, NestedHeadsKeepTheirOwnSubtrees) {
    RecordedMachine machine;
    machine.arguments = {{102, {"node", "/x/node_modules/@openai/codex/bin/codex.js"}}};
    std::vector<ProcessUsage> entries{
        proc(100, 1, kNativeClaude),     proc(101, 100, "/usr/bin/bash"),
        proc(102, 101, "/usr/bin/node"), proc(103, 102, "/usr/bin/rg"),
        proc(104, 100, "/usr/bin/git"),
    };
    auto sessions = builder().build(entries, machine.argumentReader(), machine.directoryReader());
    ASSERT_EQ(rootPIDs(sessions), (std::vector<int32_t>{100, 102}));
    EXPECT_EQ(pids(sessions[0].children), (std::vector<int32_t>{101, 104}));
    EXPECT_EQ(sessions[1].tool, AgentTool::codex);
    EXPECT_EQ(pids(sessions[1].children), (std::vector<int32_t>{103}));
    // The nested agent is not wrapped by the agent that runs it.
    EXPECT_EQ(sessions[1].wrapper, std::nullopt);
}

TEST(SessionBuilderTest, AnAgentsOwnCopiesJoinItsSession) {
    RecordedMachine machine;
    const Args gemini{"node", "/x/node_modules/@google/gemini-cli/dist/index.js"};
    machine.arguments = {{200, gemini}, {201, gemini}, {300, {"node", "/x/cursor-agent/index.js"}}};
    std::vector<ProcessUsage> entries{
        proc(100, 1, kNativeClaude),
        proc(101, 100, kNativeClaude),  // forked worker
        proc(102, 101, kNativeClaude),  // and its own fork
        proc(200, 1, "/usr/bin/node"),
        proc(201, 200, "/usr/bin/node"),        // relaunched with more memory
        proc(202, 200, "/usr/local/bin/node"),  // another install under it: its own session
        proc(300, 201, "/usr/bin/node"),        // another agent from the same runtime
    };
    machine.arguments[202] = gemini;
    auto sessions = builder().build(entries, machine.argumentReader(), machine.directoryReader());
    ASSERT_EQ(rootPIDs(sessions), (std::vector<int32_t>{100, 200, 202, 300}));
    EXPECT_EQ(pids(sessions[0].children), (std::vector<int32_t>{101, 102}));
    EXPECT_EQ(pids(sessions[1].children), (std::vector<int32_t>{201}));
    EXPECT_EQ(sessions[3].tool, AgentTool::cursor);
}

TEST(SessionBuilderTest, MissingEntryCutsTheTree) {
    RecordedMachine machine;
    std::vector<ProcessUsage> entries{proc(100, 1, kNativeClaude), proc(101, 100, "/usr/bin/a"),
                                      /* 102 exited between listing and reading */
                                      proc(103, 102, "/usr/bin/b"), proc(104, 103, "/usr/bin/c")};
    auto sessions = builder().build(entries, machine.argumentReader(), machine.directoryReader());
    ASSERT_EQ(sessions.size(), 1u);
    EXPECT_EQ(pids(sessions[0].children), (std::vector<int32_t>{101}));
}

TEST(SessionBuilderTest, DescendantsWalkBreadthFirst) {
    const std::vector<ProcessUsage> entries{proc(2, 1, "/a"), proc(3, 1, "/b"), proc(4, 2, "/c"),
                                            proc(5, 3, "/d"), proc(6, 7, "/e")};
    SessionBuilder::EntryMap byPID;
    for (const auto& e : entries)
        byPID[e.identity.pid] = &e;
    struct Case {
        const char* what;
        SessionBuilder::ChildMap children;
        std::unordered_set<int32_t> excluding;
        std::vector<int32_t> expected;
    };
    const Case cases[] = {
        {"visiting order", {{1, {3, 2}}, {2, {4}}, {3, {5}}}, {}, {3, 2, 5, 4}},
        {"excluded pid skipped with its subtree", {{1, {2, 3}}, {2, {4}}, {3, {5}}}, {2}, {3, 5}},
        {"missing entry skipped, its child reached another way",
         {{1, {7, 3}}, {7, {6}}, {3, {6}}},
         {},
         {3, 6}},
        {"missing entry skipped with its subtree", {{1, {7}}, {7, {6}}}, {}, {}},
        {"a cycle ends", {{1, {2}}, {2, {1, 4}}, {4, {2}}}, {}, {2, 4}},
        {"no children", {}, {}, {}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(pids(SessionBuilder::descendants(1, c.children, byPID, c.excluding)), c.expected)
            << c.what;
}

TEST(SessionBuilderTest, WrappersMarkWhoManagesTheSession) {
    RecordedMachine machine;
    const std::string disclaimer = "/Applications/Claude.app/Contents/Helpers/disclaimer";
    const std::string cursor = "/Applications/Cursor.app/Contents/MacOS/Cursor";
    const Args launcher{"disclaimer", "--pgroup",
                        kHome + "/Library/Application Support/Claude/claude-code/2.0.5"};
    machine.arguments = {{50, launcher},
                         {70, launcher},
                         {92, {"node", "/x/node_modules/@anthropic-ai/claude-code/cli.js"}}};
    std::vector<ProcessUsage> entries{
        proc(50, 1, disclaimer),
        proc(60, 50, kDesktopClaude),  // desktop app's own Claude Code
        proc(70, 1, disclaimer),
        proc(80, 70, kNativeClaude),  // launcher in front of a native one
        proc(90, 1, cursor),
        proc(91, 90, cursor + " Helper"),
        proc(92, 91, "/usr/bin/node"),  // Claude Code run by Cursor
    };
    auto sessions = builder().build(entries, machine.argumentReader(), machine.directoryReader());
    ASSERT_EQ(rootPIDs(sessions), (std::vector<int32_t>{60, 80, 90, 92}));
    struct Expected {
        std::optional<int32_t> wrapper;
        std::optional<std::string> managedBy;
        AgentTool tool;
        std::vector<int32_t> children;
    };
    const Expected expected[] = {
        {50, "Claude", AgentTool::claudeCode, {}},
        {70, "Claude", AgentTool::claudeCode, {}},
        {std::nullopt, std::nullopt, AgentTool::cursor, {91}},
        {90, "Cursor", AgentTool::claudeCode, {}},
    };
    for (size_t i = 0; i < sessions.size(); ++i) {
        const auto& s = sessions[i];
        EXPECT_EQ(s.wrapper ? std::optional<int32_t>(s.wrapper->pid) : std::nullopt,
                  expected[i].wrapper)
            << i;
        EXPECT_EQ(s.managedBy, expected[i].managedBy) << i;
        EXPECT_EQ(s.tool, expected[i].tool) << i;
        EXPECT_EQ(pids(s.children), expected[i].children) << i;
    }
}

TEST(SessionBuilderTest, DaemonHeadsASessionOnlyWhenNoRootRunsIt) {
    RecordedMachine machine;
    machine.arguments = {{20, {"codex", "app-server"}}, {31, {"codex", "app-server"}}};
    const std::string codex =
        kHome + "/.codex/packages/standalone/releases/0.46.0-x86_64-unknown-linux-musl/codex";
    std::vector<ProcessUsage> entries{
        proc(20, 1, kCodexServer), proc(21, 20, "/usr/bin/rg"),  // left behind
        proc(30, 1, codex), proc(31, 30, kCodexServer),          // run by its agent
    };
    auto sessions = builder().build(entries, machine.argumentReader(), machine.directoryReader());
    ASSERT_EQ(rootPIDs(sessions), (std::vector<int32_t>{20, 30}));
    EXPECT_TRUE(sessions[0].isOrphanDaemon);
    EXPECT_EQ(sessions[0].version, "0.47.1");
    EXPECT_EQ(pids(sessions[0].children), (std::vector<int32_t>{21}));
    EXPECT_FALSE(sessions[1].isOrphanDaemon);
    EXPECT_EQ(pids(sessions[1].children), (std::vector<int32_t>{31}));
}

TEST(SessionBuilderTest, OnlyTheUsersOwnProcessesHeadSessions) {
    RecordedMachine machine;
    const Args claudeArgs{"node", "/x/node_modules/@anthropic-ai/claude-code/cli.js"};
    machine.arguments = {{10, claudeArgs}, {11, claudeArgs}};
    std::vector<ProcessUsage> entries{
        proc(10, 1, "/usr/bin/node", std::nullopt, 1000, kUid + 1), proc(11, 1, "/usr/bin/node"),
        proc(12, 11, "/usr/bin/sudo", std::nullopt, 1000, 0),  // its load still counts
    };
    auto sessions = builder().build(entries, machine.argumentReader(), machine.directoryReader());
    ASSERT_EQ(rootPIDs(sessions), (std::vector<int32_t>{11}));
    EXPECT_EQ(pids(sessions[0].children), (std::vector<int32_t>{12}));
    EXPECT_EQ(machine.argumentReads.count(10), 0u);
    EXPECT_EQ(machine.argumentReads.count(11), 1u);  // once: the match's read is reused
}

TEST(SessionBuilderTest, SessionsSortByStartTimeThenPid) {
    RecordedMachine machine;
    auto a = proc(300, 1, kNativeClaude);
    auto b = proc(200, 1, kNativeClaude);
    auto c = proc(100, 1, kNativeClaude);
    a.identity.startTime = 5;
    b.identity.startTime = 9;
    c.identity.startTime = 9;
    auto sessions = builder().build({a, b, c}, machine.argumentReader(), machine.directoryReader());
    EXPECT_EQ(rootPIDs(sessions), (std::vector<int32_t>{300, 100, 200}));
    // Without a readable working directory or arguments, the session still stands.
    EXPECT_EQ(sessions[0].project, std::nullopt);
    EXPECT_TRUE(sessions[0].root.commandLine.empty());
}

}  // namespace
}  // namespace wharfy
