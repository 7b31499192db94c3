#include <algorithm>
#include <deque>

#include "core/agents/agent_session.h"
#include "core/ports/shell_names.h"

namespace wharfy {
namespace {

using nemarro::process::ProcessRef;

using nemarro::process::ProcessIdentity;
using nemarro::process::ProcessUsage;
using Role = AgentMatch::Role;

struct Matched {
    AgentMatch match;
    std::optional<std::vector<std::string>> arguments;
};

// Argument lists read during one build, so that no process is asked twice.
class ArgumentCache {
  public:
    ArgumentCache(const SessionBuilder::ArgumentsFn& read,
                  std::unordered_map<int32_t, Matched>& matches)
        : read_(read), matches_(matches) {}

    const std::vector<std::string>& of(int32_t pid) {
        if (auto m = matches_.find(pid); m != matches_.end()) {
            if (!m->second.arguments) m->second.arguments = read_(pid);
            return m->second.arguments ? *m->second.arguments : kNone;
        }
        auto [it, fresh] = others_.try_emplace(pid);
        if (fresh) it->second = read_(pid).value_or(std::vector<std::string>{});
        return it->second;
    }

  private:
    static inline const std::vector<std::string> kNone;
    const SessionBuilder::ArgumentsFn& read_;
    std::unordered_map<int32_t, Matched>& matches_;
    std::unordered_map<int32_t, std::vector<std::string>> others_;
};

// A shell the user types into. Its command line is read only for shells; an
// unreadable one counts as interactive, so nothing is attributed past it.
bool isInteractiveShell(const ProcessUsage& p, ArgumentCache& arguments) {
    if (!isShellName(normalizedProgramName(p.name))) return false;
    return !isCommandWrapper(arguments.of(p.identity.pid));
}

// What stands above a head: the launcher in front of it, and whether another
// agent root runs it.
struct Above {
    const ProcessUsage* wrapper = nullptr;
    const Matched* wrapperMatch = nullptr;
    bool cursorApp = false;
    bool underRoot = false;
};

Above lookAbove(const ProcessUsage& head, const SessionBuilder::EntryMap& byPID,
                const std::unordered_map<int32_t, Matched>& matches, ArgumentCache& arguments) {
    Above above;
    std::unordered_set<int32_t> seen{head.identity.pid};
    int32_t pid = head.ppid;
    while (pid > 1 && seen.insert(pid).second) {
        auto entry = byPID.find(pid);
        if (entry == byPID.end()) break;
        const ProcessUsage& p = *entry->second;
        auto m = matches.find(pid);
        // An agent typed by hand in an editor's terminal is the user's own,
        // not the editor's.
        if (isInteractiveShell(p, arguments)) return above;
        // The Cursor app is itself a root, but an agent it runs is its session.
        const bool cursorApp =
            p.path && isCursorAppPath(*p.path) && isCursorApp(*p.path, arguments.of(pid));
        if (cursorApp || (m != matches.end() && m->second.match.role == Role::wrapper)) {
            above.wrapper = &p;
            above.wrapperMatch = m == matches.end() ? nullptr : &m->second;
            above.cursorApp = cursorApp;
            above.underRoot = m != matches.end() && m->second.match.role == Role::root;
            return above;
        }
        if (m != matches.end() && m->second.match.role == Role::root) {
            above.underRoot = true;
            return above;
        }
        pid = p.ppid;
    }
    return above;
}

// A true fork of an agent (the same executable with the same command line,
// directly under it) is one session with its parent. Anything else, even the
// same tool started anew by the agent, heads a session of its own.
bool isForkOfParent(const ProcessUsage& p, const SessionBuilder::EntryMap& byPID,
                    const std::unordered_map<int32_t, Matched>& matches, ArgumentCache& arguments) {
    auto parent = byPID.find(p.ppid);
    auto parentMatch = matches.find(p.ppid);
    auto own = matches.find(p.identity.pid);
    if (parent == byPID.end() || parentMatch == matches.end() || own == matches.end() ||
        parentMatch->second.match.role != Role::root ||
        parentMatch->second.match.tool != own->second.match.tool || !p.path ||
        parent->second->path != p.path)
        return false;
    const auto& mine = arguments.of(p.identity.pid);
    return !mine.empty() && mine == arguments.of(p.ppid);
}

}  // namespace

SessionBuilder::SessionBuilder(AgentCatalog catalog, ProjectResolver resolver, uint32_t uid)
    : catalog_(std::move(catalog)), resolver_(std::move(resolver)), uid_(uid) {}

std::vector<ProcessUsage> SessionBuilder::descendants(
    int32_t pid, const ChildMap& children, const EntryMap& byPID,
    const std::unordered_set<int32_t>& excluding) {
    std::vector<ProcessUsage> result;
    auto first = children.find(pid);
    if (first == children.end()) return result;
    std::deque<int32_t> queue(first->second.begin(), first->second.end());
    std::unordered_set<int32_t> visited{pid};
    while (!queue.empty()) {
        const int32_t next = queue.front();
        queue.pop_front();
        if (!visited.insert(next).second || excluding.contains(next)) continue;
        auto entry = byPID.find(next);
        if (entry == byPID.end()) continue;
        result.push_back(*entry->second);
        if (auto own = children.find(next); own != children.end())
            queue.insert(queue.end(), own->second.begin(), own->second.end());
    }
    return result;
}

std::vector<AgentSession> SessionBuilder::build(const std::vector<ProcessUsage>& entries,
                                                const ArgumentsFn& arguments,
                                                const DirectoryFn& workingDirectory) const {
    // Only the user's own processes are matched: another user's agent is not
    // this user's session, and skipping them spares their argument reads.
    std::unordered_map<int32_t, Matched> matches;
    for (const auto& entry : entries) {
        if (entry.uid != uid_ || !catalog_.mayNeedArguments(entry.path)) continue;
        std::optional<std::vector<std::string>> read;
        auto match = catalog_.matchReading(entry.path, [&] {
            read = arguments(entry.identity.pid);
            return read.value_or(std::vector<std::string>{});
        });
        if (match) matches.emplace(entry.identity.pid, Matched{std::move(*match), std::move(read)});
    }
    bool anyHead = std::any_of(matches.begin(), matches.end(),
                               [](const auto& m) { return m.second.match.role != Role::wrapper; });
    if (!anyHead) return {};

    ChildMap children;
    EntryMap byPID;
    byPID.reserve(entries.size());
    for (const auto& entry : entries) {
        byPID.emplace(entry.identity.pid, &entry);
        children[entry.ppid].push_back(entry.identity.pid);
    }

    // Roots head sessions; a daemon heads one only when no root runs it.
    ArgumentCache cache(arguments, matches);
    std::vector<std::pair<int32_t, Above>> heads;
    for (const auto& [pid, m] : matches) {
        if (m.match.role == Role::wrapper || isForkOfParent(*byPID.at(pid), byPID, matches, cache))
            continue;
        Above above = lookAbove(*byPID.at(pid), byPID, matches, cache);
        if (m.match.role == Role::daemon && above.underRoot) continue;
        heads.emplace_back(pid, above);
    }
    std::sort(heads.begin(), heads.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    std::unordered_set<int32_t> headPIDs;
    for (const auto& h : heads)
        headPIDs.insert(h.first);

    std::vector<AgentSession> sessions;
    sessions.reserve(heads.size());
    for (const auto& [pid, above] : heads) {
        const ProcessUsage& head = *byPID.at(pid);
        const Matched& m = matches.at(pid);
        const auto& commandLine = cache.of(pid);

        AgentSession s;
        s.tool = m.match.tool;
        s.version = m.match.version;
        s.managedBy = m.match.managedBy;
        if (!s.managedBy && above.wrapperMatch) s.managedBy = above.wrapperMatch->match.managedBy;
        if (!s.managedBy && above.cursorApp) s.managedBy = "Cursor";
        s.isOrphanDaemon = m.match.role == Role::daemon;
        s.root = ProcessRef{head.identity, head.name, head.path, commandLine};
        if (above.wrapper) s.wrapper = above.wrapper->identity;
        if (auto directory = workingDirectory(pid)) s.project = resolver_.resolve(*directory);

        s.children = descendants(pid, children, byPID, headPIDs);
        std::sort(s.children.begin(), s.children.end(),
                  [](const auto& a, const auto& b) { return a.identity.pid < b.identity.pid; });
        s.startTime = head.identity.startTime;
        s.footprint = head.footprint;
        s.cpuPercent = head.cpuPercent;
        for (const auto& child : s.children) {
            s.footprint += child.footprint;
            if (child.cpuPercent) s.cpuPercent = s.cpuPercent.value_or(0.0) + *child.cpuPercent;
        }
        sessions.push_back(std::move(s));
    }
    std::sort(sessions.begin(), sessions.end(), [](const auto& a, const auto& b) {
        return a.startTime != b.startTime ? a.startTime < b.startTime
                                          : a.root.identity.pid < b.root.identity.pid;
    });
    return sessions;
}

}  // namespace wharfy
