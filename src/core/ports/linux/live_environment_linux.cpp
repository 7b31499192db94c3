#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "core/ports/live_environment.h"
#include "core/ports/port_scanner.h"
#include "process/linux/procfs.h"

namespace wharfy {
namespace {

using nemarro::process::BSDInfo;
using nemarro::process::KernelListener;
using nemarro::process::ListeningSocket;
using nemarro::process::ListeningSockets;
using nemarro::process::ProcessReader;

std::string userName(uint32_t uid) {
    std::vector<char> buf(4096);
    passwd pw{};
    passwd* found = nullptr;
    if (::getpwuid_r(uid, &pw, buf.data(), buf.size(), &found) == 0 && found) return found->pw_name;
    return std::to_string(uid);
}

/// A distribution's program: a regular file under /usr (not /usr/local),
/// owned by root and writable by no one else. Linux executables carry no
/// vendor signature, so ownership is the mark a package leaves.
bool isDistributionProgram(const std::string& path) {
    if (!path.starts_with("/usr/") || path.starts_with("/usr/local/")) return false;
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return false;
    return S_ISREG(st.st_mode) && st.st_uid == 0 && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::optional<SignatureCache::Stamp> fileStamp(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return std::nullopt;
    return SignatureCache::Stamp{
        static_cast<uint64_t>(st.st_size),
        static_cast<int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec};
}

/// The Linux machine. Listening sockets are matched to processes through the
/// socket inodes behind /proc/PID/fd. Walking every descriptor of every
/// process is what `ss -p` does and costs the most, so the holders of each
/// listening inode are remembered and only verified on the next scan (same
/// start time, descriptor still naming the inode). Processes born since the
/// last scan are always read in full; an inode nobody is known to hold sends
/// the scan through the processes of the socket owner's uid first, then the
/// rest. A stale cache can only cost time: every holder is verified before
/// it is reported.
class LinuxPortEnvironment final : public PortEnvironment {
  public:
    explicit LinuxPortEnvironment(std::shared_ptr<CommandRunner> runner)
        : runner_(std::move(runner)) {}

    std::vector<ListeningSocket> listeningSockets() override;
    std::vector<NetstatListener> netstatListeners() override;
    LaunchdJobs launchdJobs() override;
    std::vector<int32_t> allPIDs() override { return ProcessReader::allPIDs(); }
    std::optional<BSDInfo> process(int32_t pid) override;
    std::optional<std::string> executablePath(int32_t pid) override {
        return ProcessReader::executablePath(pid);
    }
    std::optional<std::vector<std::string>> arguments(int32_t pid) override {
        return ProcessReader::arguments(pid, argumentBuffer_);
    }
    std::optional<std::string> currentDirectory(int32_t pid) override {
        return ProcessReader::currentDirectory(pid);
    }
    std::optional<uint64_t> footprint(int32_t pid) override {
        auto usage = ProcessReader::usage(pid);
        if (!usage) return std::nullopt;
        return usage->footprint;
    }

  private:
    struct Holder {
        int32_t pid;
        int32_t fd;
        uint64_t startTime;
    };
    using Holders = std::unordered_map<uint64_t, std::vector<Holder>>;

    void readDescriptors(int32_t pid, const nemarro::process::ListenerTable& table, Holders& found);
    const std::string& nameOf(uint32_t uid);

    std::shared_ptr<CommandRunner> runner_;
    std::vector<char> argumentBuffer_;
    // Across scans.
    Holders holders_;
    std::unordered_set<uint64_t> unheld_;
    std::unordered_set<int32_t> knownPids_;
    std::unordered_map<uint32_t, std::string> userNames_;
    // This scan.
    std::vector<KernelListener> table_;
    std::unordered_map<int32_t, std::optional<BSDInfo>> info_;
};

std::optional<BSDInfo> LinuxPortEnvironment::process(int32_t pid) {
    auto [it, inserted] = info_.try_emplace(pid);
    if (inserted) it->second = ProcessReader::bsdInfo(pid);
    return it->second;
}

void LinuxPortEnvironment::readDescriptors(int32_t pid,
                                           const nemarro::process::ListenerTable& table,
                                           Holders& found) {
    auto fds = ProcessReader::fileDescriptors(pid);
    if (!fds) return;
    std::optional<BSDInfo> info;
    for (const auto& fd : *fds) {
        if (fd.type != nemarro::process::FileDescriptor::kSocket || !table.count(fd.socketInode))
            continue;
        if (!info) info = process(pid);
        if (!info) return;
        found[fd.socketInode].push_back({pid, fd.fd, info->startTime});
    }
}

std::vector<ListeningSocket> LinuxPortEnvironment::listeningSockets() {
    info_.clear();
    table_ = ListeningSockets::table();
    const auto table = ListeningSockets::index(table_);
    const auto pids = ProcessReader::allPIDs();

    Holders found;
    // Verify what the cache remembers.
    for (const auto& [inode, holders] : holders_) {
        if (!table.count(inode)) continue;
        for (const auto& h : holders) {
            auto info = process(h.pid);
            if (info && info->startTime == h.startTime &&
                ProcessReader::socketInode(h.pid, h.fd) == inode)
                found[inode].push_back(h);
        }
    }
    // Read every process born since the last scan.
    std::unordered_set<int32_t> scanned;
    for (int32_t pid : pids) {
        if (knownPids_.count(pid)) continue;
        scanned.insert(pid);
        readDescriptors(pid, table, found);
    }
    // Sockets that no verified holder explains: the owner's processes first.
    auto missingUids = [&] {
        std::set<uint32_t> uids;
        for (const auto& l : table_)
            if (!found.count(l.socketID) && !unheld_.count(l.socketID)) uids.insert(l.uid);
        return uids;
    };
    if (auto uids = missingUids(); !uids.empty()) {
        for (int32_t pid : pids) {
            if (scanned.count(pid)) continue;
            auto info = process(pid);
            if (!info || !uids.count(info->uid)) continue;
            scanned.insert(pid);
            readDescriptors(pid, table, found);
        }
        if (!missingUids().empty()) {
            for (int32_t pid : pids) {
                if (scanned.count(pid)) continue;
                scanned.insert(pid);
                readDescriptors(pid, table, found);
            }
        }
    }

    // Report in process-table order, each process's sockets in descriptor order.
    std::unordered_map<int32_t, std::vector<std::pair<int32_t, uint64_t>>> byPid;
    for (const auto& [inode, holders] : found)
        for (const auto& h : holders)
            byPid[h.pid].push_back({h.fd, inode});
    std::vector<ListeningSocket> out;
    for (int32_t pid : pids) {
        auto it = byPid.find(pid);
        if (it == byPid.end()) continue;
        std::sort(it->second.begin(), it->second.end());
        for (const auto& [fd, inode] : it->second) {
            const auto& l = table.at(inode);
            out.push_back({pid, fd, inode, l.port, l.family, l.addressClass, l.address});
        }
    }

    unheld_.clear();
    for (const auto& l : table_)
        if (!found.count(l.socketID)) unheld_.insert(l.socketID);
    holders_ = std::move(found);
    knownPids_ = std::unordered_set<int32_t>(pids.begin(), pids.end());
    return out;
}

const std::string& LinuxPortEnvironment::nameOf(uint32_t uid) {
    auto [it, inserted] = userNames_.try_emplace(uid);
    if (inserted) it->second = userName(uid);
    return it->second;
}

std::vector<NetstatListener> LinuxPortEnvironment::netstatListeners() {
    std::vector<NetstatListener> out;
    for (const auto& l : table_) {
        if (holders_.count(l.socketID)) continue;
        out.push_back({0, "(" + nameOf(l.uid) + ")", l.address, l.port});
    }
    return out;
}

LaunchdJobs LinuxPortEnvironment::launchdJobs() {
    return LaunchdJobs([](int32_t pid) -> std::optional<std::string> {
        std::string text;
        const std::string path = std::to_string(pid) + "/cgroup";
        if (!nemarro::process::linux::readAll(path.c_str(), text)) return std::nullopt;
        return SystemdLabels::labelFromCgroup(text);
    });
}

}  // namespace

std::unique_ptr<PortEnvironment> makeLivePortEnvironment(std::shared_ptr<CommandRunner> runner) {
    return std::make_unique<LinuxPortEnvironment>(std::move(runner));
}

std::shared_ptr<const ServiceLabels> platformServiceLabels() {
    static const auto labels = std::make_shared<const SystemdLabels>();
    return labels;
}

ListenerClassifier makeLiveClassifier(uint32_t uid, const std::string& home,
                                      std::shared_ptr<CommandRunner> runner) {
    static auto cache = std::make_shared<SignatureCache>(isDistributionProgram, fileStamp);
    auto labels = platformServiceLabels();
    return ListenerClassifier(
        uid, home, labels, [](const std::string& path) { return cache->verdict(path); },
        [labels, runner, uid](const std::string& label) {
            return labels->keepsAlive(label, uid, *runner);
        });
}

std::function<ListenerRole(int32_t, std::optional<uint16_t>)> makeLiveRoleRules(
    uint32_t uid, const std::string& home, std::shared_ptr<CommandRunner> runner) {
    std::shared_ptr<PortEnvironment> environment = makeLivePortEnvironment(runner);
    auto classifier = std::make_shared<ListenerClassifier>(makeLiveClassifier(uid, home, runner));
    return [environment, classifier, uid, home](int32_t pid, std::optional<uint16_t> port) {
        ProjectResolver resolver(home, true, &ProjectResolver::pathExists);
        PortScanner scanner(*environment, *classifier, std::move(resolver), uid);
        return scanner.role(pid, port.value_or(0), environment->launchdJobs());
    };
}

}  // namespace wharfy
