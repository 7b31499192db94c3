#include "core/ports/port_scanner.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

namespace wharfy {
namespace {

using nemarro::process::ListeningSocket;

std::vector<std::string> sortedDistinct(std::vector<std::string> v) {
    std::sort(v.begin(), v.end());
    v.erase(std::unique(v.begin(), v.end()), v.end());
    return v;
}

}  // namespace

std::vector<PortRow> PortScanner::scan(const CpuByProcess& cpu) {
    projects_.clear();
    // Group sockets by (pid, port), keeping first-seen order of the groups.
    std::vector<std::pair<std::pair<int32_t, uint16_t>, std::vector<ListeningSocket>>> groups;
    std::map<std::pair<int32_t, uint16_t>, size_t> groupIndex;
    for (auto& socket : environment_.listeningSockets()) {
        auto key = std::make_pair(socket.pid, socket.port);
        auto [it, inserted] = groupIndex.emplace(key, groups.size());
        if (inserted) groups.push_back({key, {}});
        groups[it->second].second.push_back(std::move(socket));
    }

    const LaunchdJobs jobs = environment_.launchdJobs();
    const ListenerClassifier classifier = classifier_.forOneRefresh();
    std::vector<PortRow> rows;
    std::set<int32_t> covered;
    for (const auto& [key, sockets] : groups) {
        auto info = environment_.process(key.first);
        if (!info || info->isZombie()) continue;
        covered.insert(key.first);
        rows.push_back(ownRow(key.first, key.second, *info, sockets, jobs, classifier, cpu));
    }

    // The rest of the machine: listeners of processes nobody here can
    // inspect. Grouping by name too keeps different owners apart where the
    // table cannot name a pid.
    std::vector<std::vector<NetstatListener>> others;
    std::map<std::tuple<int32_t, std::string, uint16_t>, size_t> otherIndex;
    for (auto& l : environment_.netstatListeners()) {
        if (covered.count(l.pid)) continue;
        auto key = std::make_tuple(l.pid, l.processName, l.port);
        auto [it, inserted] = otherIndex.emplace(key, others.size());
        if (inserted) others.emplace_back();
        others[it->second].push_back(std::move(l));
    }
    for (const auto& group : others) {
        PortRow row;
        row.port = group.front().port;
        row.pid = group.front().pid;
        row.processName = group.front().processName;
        std::vector<std::string> addresses;
        row.addressClass = AddressClass::thisMacOnly;
        for (const auto& l : group) {
            addresses.push_back(l.address);
            row.addressClass = std::max(row.addressClass, addressClass(l.address));
        }
        row.addresses = sortedDistinct(std::move(addresses));
        row.role = {ListenerRole::OtherUser{}};
        row.isOwnedByUser = false;
        rows.push_back(std::move(row));
    }

    std::stable_sort(rows.begin(), rows.end(), [](const PortRow& a, const PortRow& b) {
        return std::tie(a.port, a.pid) < std::tie(b.port, b.pid);
    });
    return rows;
}

ListenerRole PortScanner::role(const ListenerFacts& facts, const LaunchdJobs& jobs,
                               const ListenerClassifier& classifier) {
    RoleResolver resolver(environment_, classifier);
    ListenerRole role = classifier.classify(facts);
    if (role.is<ListenerRole::PartOfApp>()) {
        // A command-line tool inside an app's folder, started by hand, is not the app.
        if (!resolver.isRunByItsApp(facts.pid, facts.executablePath, jobs)) {
            if (facts.launchdLabel && classifier.isServiceJob(*facts.launchdLabel))
                return classifier.serviceRole(*facts.launchdLabel);
            return resolver.resolvePlain(facts.pid, facts.port, jobs,
                                         {ListenerRole::PlainProcess{}});
        }
    } else if (role.is<ListenerRole::PlainProcess>()) {
        return resolver.resolvePlain(facts.pid, facts.port, jobs, role);
    }
    return role;
}

ListenerRole PortScanner::role(int32_t pid, uint16_t port, const LaunchdJobs& jobs) {
    auto info = environment_.process(pid);
    if (!info) return {ListenerRole::OtherUser{}};
    ListenerFacts facts{pid, port,           info->name, environment_.executablePath(pid),
                        {},  jobs.label(pid)};
    if (auto arguments = environment_.arguments(pid)) facts.arguments = std::move(*arguments);
    return role(facts, jobs, classifier_.forOneRefresh());
}

PortRow PortScanner::ownRow(int32_t pid, uint16_t port, const nemarro::process::BSDInfo& info,
                            const std::vector<ListeningSocket>& sockets, const LaunchdJobs& jobs,
                            const ListenerClassifier& classifier, const CpuByProcess& cpu) {
    ListenerFacts facts{pid, port,           info.name, environment_.executablePath(pid),
                        {},  jobs.label(pid)};
    auto arguments = environment_.arguments(pid);
    if (arguments) facts.arguments = *arguments;

    ListenerRole role = this->role(facts, jobs, classifier);

    PortRow row;
    row.port = port;
    row.pid = pid;
    row.startTime = info.startTime;
    row.processName = info.name;
    row.executablePath = facts.executablePath;
    row.commandLine = std::move(arguments);
    row.isOwnedByUser = info.uid == uid_;
    if (row.isOwnedByUser &&
        (role.is<ListenerRole::BackgroundService>() || role.is<ListenerRole::PlainProcess>())) {
        if (auto cwd = environment_.currentDirectory(pid)) {
            auto [it, inserted] = projects_.try_emplace(*cwd);
            if (inserted) it->second = resolver_.resolve(*cwd);
            row.project = it->second;
        }
    }
    std::vector<std::string> addresses;
    row.addressClass = AddressClass::thisMacOnly;
    for (const auto& s : sockets) {
        addresses.push_back(s.address);
        row.addressClass = std::max(row.addressClass, addressClass(s.addressClass));
    }
    row.addresses = sortedDistinct(std::move(addresses));
    row.footprint = environment_.footprint(pid);
    if (auto it = cpu.find({pid, info.startTime}); it != cpu.end()) row.cpuPercent = it->second;
    row.role = std::move(role);
    return row;
}

std::vector<PortRow> PortScanner::rows(uint16_t port, const std::vector<PortRow>& rows) {
    std::vector<PortRow> out;
    std::copy_if(rows.begin(), rows.end(), std::back_inserter(out),
                 [port](const PortRow& r) { return r.port == port; });
    return out;
}

}  // namespace wharfy
