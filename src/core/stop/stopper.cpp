#include "core/stop/stopper.h"

#include <chrono>
#include <deque>
#include <map>
#include <set>
#include <string_view>
#include <thread>

#include "core/ports/system_programs.h"
#include "core/stop/protected.h"
#include "core/stop/runners.h"

namespace wharfy {

using nemarro::process::ProcessRef;

using nemarro::process::BSDInfo;
using nemarro::process::ProcessIdentity;

namespace {

// Process trees are shallow; the bound only guards against a parent table
// that changes under the walk.
constexpr int kMaxAncestors = 64;

// The operating system's own programs are refused as part of the operating
// system, the same refusal the port rules give them, because that tells the
// user where to look instead. The table is the one the port rules use.
bool isSystemPath(const std::optional<std::string>& path) {
    return path && platformSystemPrograms().isSystemPath(*path);
}

bool isShellRef(const ProcessRef& ref) {
    if (Protected::isShell(ref.name)) return true;
    if (!ref.path) return false;
    auto slash = ref.path->rfind('/');
    return Protected::isShell(slash == std::string::npos ? *ref.path : ref.path->substr(slash + 1));
}

bool sameProcess(const ProcessRef& a, const ProcessRef& b) {
    return a.identity == b.identity && a.name == b.name && a.path == b.path;
}

}  // namespace

Stopper::Stopper(Config config, StopEnvironment& environment, SignalSender& sender, Sleep sleep)
    : config_(config), environment_(environment), sender_(sender), sleep_(std::move(sleep)) {}

Stopper::Sleep Stopper::realSleep() {
    return
        [](double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); };
}

std::optional<ProcessRef> Stopper::ref(int32_t pid) const {
    auto info = environment_.process(pid);
    if (!info) return std::nullopt;
    return ProcessRef{ProcessIdentity{pid, info->startTime}, info->name,
                      environment_.executablePath(pid),
                      environment_.arguments(pid).value_or(std::vector<std::string>{})};
}

std::optional<StopRefusal> Stopper::checkAllowed(const ProcessRef& ref) const {
    if (ref.identity.pid < 2 || ref.identity.pid == config_.selfPID ||
        Protected::matches(ref.name, ref.path)) {
        return StopRefusal{StopRefusal::ProtectedProgram{ref.name}};
    }
    if (isSystemPath(ref.path)) {
        return StopRefusal{
            StopRefusal::NotAPlainProcess{ListenerRole{ListenerRole::AppleSystem{}}}};
    }
    return std::nullopt;
}

bool Stopper::isGone(const ProcessIdentity& identity) const {
    auto info = environment_.process(identity.pid);
    return !info || info->isZombie() || info->startTime != identity.startTime;
}

Result<StopPlan, StopRefusal> Stopper::plan(const PortRow& row) const {
    // A row without a start time is known only from the kernel's table: its
    // process could not be read, so it is someone else's.
    if (!row.startTime) return StopRefusal{StopRefusal::NotYours{}};
    std::optional<std::string> label;
    if (auto service = row.role.as<ListenerRole::BackgroundService>()) label = service->label;
    return plan(ProcessIdentity{row.pid, *row.startTime}, row.port, row.project, label);
}

Result<StopPlan, StopRefusal> Stopper::plan(const ProcessRef& ref,
                                            const std::optional<ProjectInfo>& project,
                                            const std::optional<std::string>& label) const {
    return plan(ref.identity, std::nullopt, project, label);
}

Result<StopPlan, StopRefusal> Stopper::plan(const ProcessIdentity& identity,
                                            std::optional<uint16_t> port,
                                            const std::optional<ProjectInfo>& project,
                                            const std::optional<std::string>& label) const {
    auto info = environment_.process(identity.pid);
    if (!info || info->isZombie()) return StopRefusal{StopRefusal::Gone{}};
    if (info->startTime != identity.startTime) return StopRefusal{StopRefusal::IdentityChanged{}};
    if (info->uid != config_.uid) return StopRefusal{StopRefusal::NotYours{}};

    ProcessRef shown{identity, info->name, environment_.executablePath(identity.pid),
                     environment_.arguments(identity.pid).value_or(std::vector<std::string>{})};
    if (auto refusal = checkAllowed(shown)) return *refusal;
    ListenerRole role = environment_.role(identity.pid, port);
    if (!role.is<ListenerRole::PlainProcess>()) {
        return StopRefusal{StopRefusal::NotAPlainProcess{role}};
    }

    StopPlan plan;
    plan.shown = shown;
    plan.target = shown;
    plan.port = port;
    plan.project = project;
    plan.label = label;

    // The walk goes on past a promotion, so a worker under a master under npm
    // ends at npm: the outermost process that would restart the rest.
    std::optional<PortHolders> holders;
    int32_t ppid = info->ppid;
    for (int depth = 0; depth < kMaxAncestors && ppid >= 2; ++depth) {
        auto parentInfo = environment_.process(ppid);
        if (!parentInfo || parentInfo->isZombie() || parentInfo->uid != config_.uid) break;
        auto parent = ref(ppid);
        if (!parent || parent->identity.startTime != parentInfo->startTime) break;
        bool wrapper = isCommandWrapper(parent->name, parent->commandLine);
        bool eligible = !checkAllowed(*parent) &&
                        environment_.role(ppid, port).is<ListenerRole::PlainProcess>();
        if (!eligible) {
            if (!wrapper) break;
        } else if (Runners::isRunner(*parent)) {
            plan.target = *parent;
            plan.promotionReason = parent->name +
                                   " runs this and would start it again, so the "
                                   "stop request goes to " +
                                   parent->name + ".";
        } else if (port && (holders ? *holders : holders.emplace(environment_.holders(*port)))
                               .pids.contains(ppid)) {
            plan.target = *parent;
            plan.promotionReason =
                parent->name + " and its workers share this port, so the stop request goes to " +
                parent->name + ".";
        } else if (!wrapper) {
            break;
        }
        ppid = parentInfo->ppid;
    }

    auto targetInfo = environment_.process(plan.target.identity.pid);
    int32_t next =
        plan.target.identity.pid == identity.pid ? info->ppid : (targetInfo ? targetInfo->ppid : 0);
    for (int depth = 0; depth < kMaxAncestors && next >= 2; ++depth) {
        auto parent = ref(next);
        if (!parent) break;
        plan.chain.push_back(*parent);
        if (isShellRef(*parent)) break;
        auto parentInfo = environment_.process(next);
        if (!parentInfo) break;
        next = parentInfo->ppid;
    }
    return plan;
}

Result<StopReport, StopRefusal> Stopper::stop(const StopPlan& plan, bool watchDescendants) const {
    // Planned again from the target itself, so a promoted target passes the
    // same checks as a picked one; the fresh plan must not move the request.
    auto fresh = this->plan(plan.target.identity, plan.port, plan.project, plan.label);
    if (!fresh) return fresh.error();
    if (!sameProcess(fresh.value().target, plan.target) ||
        !sameProcess(fresh.value().shown, plan.target)) {
        return StopRefusal{StopRefusal::IdentityChanged{}};
    }

    std::vector<ProcessRef> descendants;
    if (watchDescendants) {
        std::multimap<int32_t, int32_t> children;
        for (int32_t pid : environment_.allPIDs()) {
            if (auto info = environment_.process(pid)) children.emplace(info->ppid, pid);
        }
        std::set<int32_t> seen{plan.target.identity.pid};
        std::deque<int32_t> queue{plan.target.identity.pid};
        while (!queue.empty()) {
            int32_t parent = queue.front();
            queue.pop_front();
            auto [first, last] = children.equal_range(parent);
            for (auto it = first; it != last; ++it) {
                if (!seen.insert(it->second).second) continue;
                queue.push_back(it->second);
                if (auto child = ref(it->second)) descendants.push_back(*child);
            }
        }
    }

    std::optional<PortHolders> before;
    if (plan.port) before = environment_.holders(*plan.port);

    StopReport report{plan, ProcessStopOutcome{}, {}};
    if (int err = sender_.terminate(plan.target.identity); err != 0) {
        report.outcome.value = ProcessStopOutcome::SignalFailed{err};
        return report;
    }

    std::vector<ProcessIdentity> watched{plan.target.identity};
    if (plan.shown.identity != plan.target.identity) watched.push_back(plan.shown.identity);
    auto allGone = [&] {
        for (const auto& id : watched) {
            if (!isGone(id)) return false;
        }
        return true;
    };
    const int sleeps = static_cast<int>(config_.waitSeconds * 4);
    bool exited = allGone();
    for (int slept = 0; !exited && slept < sleeps; ++slept) {
        sleep_(0.25);
        exited = allGone();
    }

    if (!exited) {
        report.outcome.value = ProcessStopOutcome::StillRunning{};
    } else if (!plan.port) {
        report.outcome.value = ProcessStopOutcome::Stopped{};
    } else {
        // A holder from before the signal outranks a new one: the port was
        // never going to be free. Among several, the lowest pid is named, so
        // the report does not depend on the order of the process table.
        PortHolders after = environment_.holders(*plan.port);
        if (after.empty()) {
            report.outcome.value = ProcessStopOutcome::StoppedPortFree{};
        } else {
            std::optional<int32_t> old, newHolder;
            for (int32_t pid : after.pids) {
                if (before->pids.contains(pid)) {
                    if (!old) old = pid;
                } else if (!newHolder) {
                    newHolder = pid;
                }
            }
            if (old) {
                report.outcome.value = ProcessStopOutcome::StoppedPortStillUsed{ref(*old)};
            } else if (after.hidden && before->hidden) {
                report.outcome.value = ProcessStopOutcome::StoppedPortStillUsed{};
            } else if (newHolder) {
                report.outcome.value = ProcessStopOutcome::StoppedPortReopened{ref(*newHolder)};
            } else {
                report.outcome.value = ProcessStopOutcome::StoppedPortReopened{};
            }
        }
    }

    for (const auto& d : descendants) {
        if (!isGone(d.identity)) report.survivors.push_back(d);
    }
    return report;
}

}  // namespace wharfy
