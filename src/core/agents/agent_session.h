#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "core/agents/agent_catalog.h"
#include "core/ports/port_row.h"
#include "core/ports/project_resolver.h"
#include "core/stop/stop_plan.h"
#include "process/identity.h"
#include "process/process_sampler.h"

namespace wharfy {

/// One running agent session: the process that heads it, everything it
/// started, and their load summed.
struct AgentSession {
    AgentTool tool = AgentTool::claudeCode;
    std::optional<std::string> version;
    /// The desktop app that runs this agent; such a session is quit there.
    std::optional<std::string> managedBy;
    /// Headed by an agent daemon that no agent process runs.
    bool isOrphanDaemon = false;
    nemarro::process::ProcessRef root;
    /// A desktop app's launcher in front of the root.
    std::optional<nemarro::process::ProcessIdentity> wrapper;
    /// From the root's working directory.
    std::optional<ProjectInfo> project;
    /// The root's descendants, by pid; other sessions' processes excluded.
    std::vector<nemarro::process::ProcessUsage> children;
    /// The root's start time, microseconds since the epoch.
    uint64_t startTime = 0;
    /// Root and children together, bytes.
    uint64_t footprint = 0;
    /// Root and children together, percent of one core; absent while none
    /// of them has a CPU figure yet.
    std::optional<double> cpuPercent;

    bool operator==(const AgentSession&) const = default;

    /// The root's identity text: stable for the session's life, never reused.
    std::string id() const { return root.identity.text(); }
    /// The root and its children.
    size_t processCount() const { return 1 + children.size(); }
};

/// Turns one sample of the process table into agent sessions, one per agent
/// root:
/// - only the user's own processes are matched, so only they head sessions;
///   a session's children may belong to anyone;
/// - a root that is a true fork of its parent (same tool, same executable and
///   same command line, directly under it) belongs to its parent's session;
///   the same tool started anew with other arguments heads its own;
/// - a daemon heads its own session, marked `isOrphanDaemon`, only when no
///   agent root stands above it; otherwise it is one of that root's children;
/// - the nearest launcher above a head (a `wrapper` match, or the Cursor app
///   itself rather than its helpers) is its `wrapper`, unless another agent
///   root or an interactive shell comes first; the session takes its
///   `managedBy` from the match, else from that launcher;
/// - children are sorted by pid, sessions by start time then pid;
/// - `cpuPercent` is absent only while no process of the session has a figure.
class SessionBuilder {
  public:
    /// A process's argument list; absent when it cannot be read.
    using ArgumentsFn = std::function<std::optional<std::vector<std::string>>(int32_t pid)>;
    /// A process's working directory; absent when it cannot be read.
    using DirectoryFn = std::function<std::optional<std::string>(int32_t pid)>;
    using ChildMap = std::unordered_map<int32_t, std::vector<int32_t>>;
    /// Pid to its entry in the sample; the entries must outlive the map.
    using EntryMap = std::unordered_map<int32_t, const nemarro::process::ProcessUsage*>;

    /// Only processes owned by `uid` are matched and can head a session.
    SessionBuilder(AgentCatalog catalog, ProjectResolver resolver, uint32_t uid);

    /// The sessions of one sample, by start time then pid. Arguments are
    /// asked for only where the catalog needs them, and for session roots.
    std::vector<AgentSession> build(const std::vector<nemarro::process::ProcessUsage>& entries,
                                    const ArgumentsFn& arguments,
                                    const DirectoryFn& workingDirectory) const;

    /// Breadth-first descendants of `pid`, in visiting order. Pids in
    /// `excluding`, and pids without an entry, are skipped with their subtrees
    /// (unless reached another way).
    static std::vector<nemarro::process::ProcessUsage> descendants(
        int32_t pid, const ChildMap& children, const EntryMap& byPID,
        const std::unordered_set<int32_t>& excluding);

    const AgentCatalog& catalog() const { return catalog_; }
    uint32_t uid() const { return uid_; }

  private:
    AgentCatalog catalog_;
    ProjectResolver resolver_;
    uint32_t uid_;
};

/// The live provider of sessions: samples the process table and builds the
/// sessions with live argument and working-directory reads. One per app
/// model; safe to call from any thread.
class LiveAgentSource {
  public:
    /// Over the machine's process table.
    LiveAgentSource();
    explicit LiveAgentSource(nemarro::process::ProcessSampler sampler);

    /// Takes a sample and builds its sessions. CPU figures cover the time
    /// since the previous call; the first call has none.
    std::vector<AgentSession> sessions(const SessionBuilder& builder);

  private:
    std::mutex lock_;
    nemarro::process::ProcessSampler sampler_;
    /// Reused by every argument read, so a refresh allocates it once.
    std::vector<char> argumentBuffer_;
};

}  // namespace wharfy
