#include <pwd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "core/ports/live_environment.h"
#include "core/ports/port_scanner.h"

namespace wharfy {
namespace {

using nemarro::process::BSDInfo;
using nemarro::process::FileDescriptor;
using nemarro::process::KernelListener;
using nemarro::process::ListenerTable;
using nemarro::process::ListeningSocket;
using nemarro::process::ListeningSockets;
using nemarro::process::ProcessIdentity;
using nemarro::process::ProcessReader;

std::optional<std::string> userName(uint32_t uid) {
    std::vector<char> buf(4096);
    passwd pw{};
    passwd* found = nullptr;
    if (::getpwuid_r(uid, &pw, buf.data(), buf.size(), &found) == 0 && found) return found->pw_name;
    return std::nullopt;
}

/// The Linux machine. Listening sockets are matched to processes through the
/// socket inodes behind /proc/PID/fd. Walking every descriptor of every
/// process is what `ss -p` does and costs the most, so the processes that
/// hold listening sockets are remembered, by identity, and only their
/// remembered descriptors are checked again on the next scan. A process not
/// seen at the last scan (a new pid, or a reused one) is always read in
/// full; a socket that no holder explains sends the scan through the
/// processes of the socket owner's uid first, then the rest. A stale memory
/// can only cost time: every holder is verified before it is reported.
class LinuxPortEnvironment final : public PortEnvironment {
  public:
    explicit LinuxPortEnvironment(std::shared_ptr<CommandRunner> runner)
        : runner_(std::move(runner)) {}

    std::vector<ListeningSocket> listeningSockets() override;
    std::vector<NetstatListener> netstatListeners() override;
    LaunchdJobs launchdJobs() override;
    std::vector<int32_t> allPIDs() override { return ProcessReader::allPIDs(); }
    std::optional<BSDInfo> process(int32_t pid) override;
    std::optional<std::string> executablePath(int32_t pid) override { return facts(pid).path; }
    std::optional<std::vector<std::string>> arguments(int32_t pid) override {
        return facts(pid).arguments;
    }
    std::optional<std::string> currentDirectory(int32_t pid) override {
        return facts(pid).directory;
    }
    std::optional<uint64_t> footprint(int32_t pid) override {
        return ProcessReader::footprint(pid);
    }

  private:
    /// One listening descriptor of a process.
    struct Held {
        int32_t fd;
        uint64_t inode;
    };
    using Holders = std::unordered_map<ProcessIdentity, std::vector<Held>>;
    /// A process as the last scan saw it.
    struct Seen {
        uint64_t serial;
        uint64_t startTime;
    };

    /// What a listener's row shows of its process and hardly ever changes.
    /// Kept per process identity across scans and read again once older than
    /// kFactsMaxAge, so that a new working directory or command line shows
    /// within half a minute.
    struct Facts {
        std::optional<std::string> path;
        std::optional<std::vector<std::string>> arguments;
        std::optional<std::string> directory;
        std::chrono::steady_clock::time_point readAt;
    };
    static constexpr std::chrono::seconds kFactsMaxAge{30};
    const Facts& facts(int32_t pid);

    /// The unit a process runs in, from its cgroup, kept like its facts:
    /// systemd places a process before it runs its program, so a later move
    /// is rare and shows within kFactsMaxAge.
    struct Placement {
        std::optional<UnitPlacement> unit;
        std::chrono::steady_clock::time_point readAt;
    };
    std::optional<UnitPlacement> placement(int32_t pid);

    /// Reads the whole descriptor table of `id`; its listening descriptors
    /// replace whatever `found` held for it.
    void readInFull(const ProcessIdentity& id, const ListenerTable& table, Holders& found);
    const std::string& nameOf(uint32_t uid);

    std::shared_ptr<CommandRunner> runner_;
    std::vector<char> argumentBuffer_;
    // Across scans.
    Holders holders_;
    std::unordered_map<int32_t, Seen> seen_;
    std::unordered_set<uint64_t> unheld_;
    // This scan.
    std::vector<KernelListener> table_;
    std::unordered_map<int32_t, std::optional<BSDInfo>> info_;
    std::unordered_map<ProcessIdentity, Facts> facts_;
    std::unordered_map<ProcessIdentity, Placement> placements_;
    Facts unknown_;
    std::unordered_map<uint32_t, std::string> userNames_;
};

std::optional<BSDInfo> LinuxPortEnvironment::process(int32_t pid) {
    auto [it, inserted] = info_.try_emplace(pid);
    if (inserted) it->second = ProcessReader::bsdInfo(pid);
    return it->second;
}

const LinuxPortEnvironment::Facts& LinuxPortEnvironment::facts(int32_t pid) {
    auto seen = seen_.find(pid);
    if (seen == seen_.end()) {
        // Not a process of this scan's table: read, never kept.
        unknown_ = {ProcessReader::executablePath(pid),
                    ProcessReader::arguments(pid, argumentBuffer_),
                    ProcessReader::currentDirectory(pid),
                    {}};
        return unknown_;
    }
    const auto now = std::chrono::steady_clock::now();
    auto [it, inserted] = facts_.try_emplace(ProcessIdentity{pid, seen->second.startTime});
    if (inserted || now - it->second.readAt >= kFactsMaxAge)
        it->second = {ProcessReader::executablePath(pid),
                      ProcessReader::arguments(pid, argumentBuffer_),
                      ProcessReader::currentDirectory(pid), now};
    return it->second;
}

std::optional<UnitPlacement> LinuxPortEnvironment::placement(int32_t pid) {
    auto read = [pid]() -> std::optional<UnitPlacement> {
        auto text = ProcessReader::controlGroups(pid);
        if (!text) return std::nullopt;
        return SystemdLabels::placementFromCgroup(*text);
    };
    auto seen = seen_.find(pid);
    if (seen == seen_.end()) return read();
    const auto now = std::chrono::steady_clock::now();
    auto [it, inserted] = placements_.try_emplace(ProcessIdentity{pid, seen->second.startTime});
    if (inserted || now - it->second.readAt >= kFactsMaxAge) it->second = {read(), now};
    return it->second.unit;
}

void LinuxPortEnvironment::readInFull(const ProcessIdentity& id, const ListenerTable& table,
                                      Holders& found) {
    auto fds = ProcessReader::fileDescriptors(id.pid);
    if (!fds) return;
    std::vector<Held> held;
    for (const auto& fd : *fds)
        if (fd.type == FileDescriptor::kSocket && table.count(fd.socketInode))
            held.push_back({fd.fd, fd.socketInode});
    if (held.empty())
        found.erase(id);
    else
        found[id] = std::move(held);
}

std::vector<ListeningSocket> LinuxPortEnvironment::listeningSockets() {
    info_.clear();
    userNames_.clear();
    table_ = ListeningSockets::table();
    const auto table = ListeningSockets::index(table_);

    // Who runs now. A pid whose entry has not changed since the last scan is
    // the process seen then. Any other is read in full, even when its start
    // time is the one remembered: start times count clock ticks, and a pid
    // can go to a new process within one.
    std::vector<ProcessIdentity> running;
    std::vector<ProcessIdentity> unseen;
    std::unordered_map<int32_t, Seen> seen;
    for (const auto& entry : ProcessReader::pidEntries()) {
        auto before = seen_.find(entry.pid);
        std::optional<uint64_t> start;
        if (before != seen_.end() && before->second.serial == entry.serial)
            start = before->second.startTime;
        else
            start = ProcessReader::startTime(entry.pid);
        if (!start) continue;
        running.push_back({entry.pid, *start});
        seen.emplace(entry.pid, Seen{entry.serial, *start});
        if (before == seen_.end() || before->second.serial != entry.serial)
            unseen.push_back(running.back());
    }
    auto isRunning = [&](const ProcessIdentity& id) {
        auto it = seen.find(id.pid);
        return it != seen.end() && it->second.startTime == id.startTime;
    };

    Holders found;
    // What the last scan found, where the same process still names the same socket.
    for (const auto& [id, held] : holders_) {
        if (!isRunning(id)) continue;
        std::vector<Held> still;
        for (const auto& h : held)
            if (table.count(h.inode) && ProcessReader::socketInode(id.pid, h.fd) == h.inode)
                still.push_back(h);
        if (!still.empty()) found.emplace(id, std::move(still));
    }
    // Every process the last scan did not see.
    std::unordered_set<ProcessIdentity> read;
    for (const auto& id : unseen) {
        read.insert(id);
        readInFull(id, table, found);
    }
    // Sockets that no holder explains: the owner's processes first.
    auto missingUids = [&] {
        std::unordered_set<uint64_t> explained;
        for (const auto& [id, held] : found)
            for (const auto& h : held)
                explained.insert(h.inode);
        std::set<uint32_t> uids;
        for (const auto& l : table_)
            if (!explained.count(l.socketID) && !unheld_.count(l.socketID)) uids.insert(l.uid);
        return uids;
    };
    if (auto uids = missingUids(); !uids.empty()) {
        for (const auto& id : running) {
            if (read.count(id)) continue;
            auto info = process(id.pid);
            if (!info || !uids.count(info->uid)) continue;
            read.insert(id);
            readInFull(id, table, found);
        }
        if (!missingUids().empty()) {
            for (const auto& id : running)
                if (read.insert(id).second) readInFull(id, table, found);
        }
    }

    // Report in process-table order, each process's sockets in descriptor order.
    std::vector<ListeningSocket> out;
    std::unordered_set<uint64_t> held;
    for (const auto& id : running) {
        auto it = found.find(id);
        if (it == found.end()) continue;
        std::sort(it->second.begin(), it->second.end(),
                  [](const Held& a, const Held& b) { return a.fd < b.fd; });
        for (const auto& h : it->second) {
            const auto& l = table.at(h.inode);
            out.push_back({id.pid, h.fd, h.inode, l.port, l.family, l.addressClass, l.address});
            held.insert(h.inode);
        }
    }

    unheld_.clear();
    for (const auto& l : table_)
        if (!held.count(l.socketID)) unheld_.insert(l.socketID);
    // Facts of processes that are gone are let go.
    std::erase_if(facts_, [&](const auto& entry) { return !isRunning(entry.first); });
    std::erase_if(placements_, [&](const auto& entry) { return !isRunning(entry.first); });
    holders_ = std::move(found);
    seen_ = std::move(seen);
    return out;
}

const std::string& LinuxPortEnvironment::nameOf(uint32_t uid) {
    auto [it, inserted] = userNames_.try_emplace(uid);
    if (inserted) it->second = userName(uid).value_or(std::to_string(uid));
    return it->second;
}

std::vector<NetstatListener> LinuxPortEnvironment::netstatListeners() {
    std::vector<NetstatListener> out;
    for (const auto& l : table_) {
        if (!unheld_.count(l.socketID)) continue;
        out.push_back({0, "(" + nameOf(l.uid) + ")", l.address, l.port});
    }
    return out;
}

// Parents come from this scan's process facts, so the jobs must not outlive
// the scan that made them.
LaunchdJobs LinuxPortEnvironment::launchdJobs() {
    return LaunchdJobs([this](int32_t pid) { return placement(pid); },
                       [this](int32_t pid) -> std::optional<int32_t> {
                           auto info = process(pid);
                           if (!info) return std::nullopt;
                           return info->ppid;
                       });
}

}  // namespace

std::unique_ptr<PortEnvironment> makeLivePortEnvironment(std::shared_ptr<CommandRunner> runner) {
    return std::make_unique<LinuxPortEnvironment>(std::move(runner));
}

std::shared_ptr<const ServiceLabels> platformServiceLabels() {
    static const auto labels = std::make_shared<const SystemdLabels>(&userName);
    return labels;
}

// Linux programs carry no vendor signature: the system's own are told by
// their folder and their unit alone.
ListenerClassifier makeLiveClassifier(uint32_t uid, const std::string& home,
                                      std::shared_ptr<CommandRunner> runner) {
    auto labels = platformServiceLabels();
    return ListenerClassifier(uid, home, labels, {},
                              [labels, runner, uid](const std::string& label) {
                                  return labels->keepsAlive(label, uid, *runner);
                              });
}

std::function<ListenerRole(int32_t, std::optional<uint16_t>)> makeLiveRoleRules(
    uint32_t uid, const std::string& home, std::shared_ptr<CommandRunner> runner) {
    auto classifier = std::make_shared<ListenerClassifier>(makeLiveClassifier(uid, home, runner));
    return [runner, classifier, uid, home](int32_t pid, std::optional<uint16_t> port) {
        // Each question is a refresh of its own: facts kept from an earlier
        // one may describe a process that has since exited or run another program.
        LinuxPortEnvironment environment(runner);
        ProjectResolver resolver(home, true, &ProjectResolver::pathExists);
        PortScanner scanner(environment, *classifier, std::move(resolver), uid);
        return scanner.role(pid, port.value_or(0), environment.launchdJobs());
    };
}

}  // namespace wharfy
