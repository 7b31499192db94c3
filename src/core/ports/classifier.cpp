#include "core/ports/classifier.h"

#include <algorithm>

#include "core/ports/shell_names.h"

namespace wharfy {
namespace {

bool contains(std::string_view s, std::string_view part) {
    return s.find(part) != std::string_view::npos;
}

constexpr int kMaxAncestors = 8;

}  // namespace

SignatureCache::SignatureCache(std::function<bool(const std::string&)> check,
                               std::function<std::optional<Stamp>(const std::string&)> stamp,
                               size_t capacity)
    : check_(std::move(check)),
      stamp_(std::move(stamp)),
      capacity_(std::max<size_t>(capacity, 1)) {}

bool SignatureCache::verdict(const std::string& path) {
    auto stamp = stamp_(path);
    if (!stamp) return false;
    Key key{path, stamp->size, stamp->modified};
    {
        std::lock_guard lock(mutex_);
        if (auto it = verdicts_.find(key); it != verdicts_.end()) return it->second;
    }
    bool result = check_(path);
    std::lock_guard lock(mutex_);
    if (verdicts_.emplace(key, result).second) {
        order_.push_back(std::move(key));
        if (order_.size() > capacity_) {
            verdicts_.erase(order_.front());
            order_.pop_front();
        }
    }
    return result;
}

size_t SignatureCache::size() const {
    std::lock_guard lock(mutex_);
    return verdicts_.size();
}

ListenerClassifier::ListenerClassifier(
    uint32_t uid, std::string home, std::shared_ptr<const ServiceLabels> labels,
    std::function<bool(const std::string&)> isSystemSigned,
    std::function<std::optional<bool>(const std::string&)> keepsAlive)
    : uid_(uid),
      home_(std::move(home)),
      labels_(std::move(labels)),
      isSystemSigned_(std::move(isSystemSigned)),
      keepsAlive_(std::move(keepsAlive)) {}

ListenerClassifier ListenerClassifier::forOneRefresh() const {
    ListenerClassifier copy = *this;
    if (!keepsAlive_) return copy;
    auto answers = std::make_shared<std::map<std::string, std::optional<bool>>>();
    copy.keepsAlive_ = [ask = keepsAlive_, answers](const std::string& label) {
        auto [it, inserted] = answers->try_emplace(label);
        if (inserted) it->second = ask(label);
        return it->second;
    };
    return copy;
}

std::optional<std::string> ListenerClassifier::containerRuntime(const ListenerFacts& f) const {
    const std::string n = lowercase(f.name);
    const std::string p = lowercase(f.executablePath.value_or(""));
    if (n == "limactl" || p.ends_with("/limactl")) return "Colima";
    if (n == "ssh" && std::any_of(f.arguments.begin(), f.arguments.end(), [](const auto& a) {
            return contains(a, "/.colima/") || contains(a, "/.lima/");
        }))
        return "Colima";
    if (n.starts_with("com.docker.") || contains(p, "/docker.app/") || n == "vpnkit")
        return "Docker Desktop";
    if (contains(n, "orbstack") || contains(p, "/orbstack.app/") || contains(p, "/orbstack.app "))
        return "OrbStack";
    if (n == "docker-proxy" || p.ends_with("/rootlesskit")) return "Docker Engine";
    if (n == "conmon" || n == "rootlessport" || n == "pasta" || n == "slirp4netns") return "Podman";
    return std::nullopt;
}

bool ListenerClassifier::isAppleProgram(const std::string& path,
                                        const std::optional<std::string>& label) const {
    if (labels_->systemPrograms().isSystemPath(path)) return true;
    if (!label) return false;
    switch (labels_->systemJob(*label)) {
        case ServiceLabels::SystemJob::no:
            return false;
        case ServiceLabels::SystemJob::yes:
            return true;
        case ServiceLabels::SystemJob::ifSystemSigned:
            break;
    }
    // A system-looking label on a program in the home folder is never trusted.
    if (path.starts_with(home_ + "/")) return false;
    return isSystemSigned_ && isSystemSigned_(path);
}

std::optional<std::string> ListenerClassifier::appName(const ListenerFacts& f) const {
    if (f.executablePath) {
        const std::string& path = *f.executablePath;
        // The outermost bundle wins: a helper app inside another app is part of the outer one.
        size_t pos = 0;
        while (pos < path.size()) {
            size_t end = path.find('/', pos);
            if (end == std::string::npos) end = path.size();
            std::string_view piece(path.data() + pos, end - pos);
            if (piece.size() > 4 && piece.ends_with(".app"))
                return std::string(piece.substr(0, piece.size() - 4));
            pos = end + 1;
        }
        if (path.starts_with("/snap/")) {
            auto end = path.find('/', 6);
            if (end != std::string::npos && end > 6) return path.substr(6, end - 6);
        }
    }
    if (f.launchdLabel && labels_->isAppJob(*f.launchdLabel))
        return labels_->appName(*f.launchdLabel, f.name);
    return std::nullopt;
}

bool ListenerClassifier::isSystemJob(const std::string& label) const {
    return labels_->systemJob(label) == ServiceLabels::SystemJob::yes;
}

bool ListenerClassifier::isServiceJob(const std::string& label) const {
    return !labels_->isAppJob(label) && labels_->systemJob(label) == ServiceLabels::SystemJob::no;
}

ListenerRole ListenerClassifier::serviceRole(const std::string& label) const {
    return {ListenerRole::BackgroundService{label, labels_->stopCommand(label, uid_),
                                            keepsAlive_ ? keepsAlive_(label) : std::nullopt}};
}

ListenerRole ListenerClassifier::classify(const ListenerFacts& f) const {
    if (auto runtime = containerRuntime(f)) return {ListenerRole::ContainerForwarder{*runtime}};
    // A base-system unit is the system's even when its program cannot be read.
    if ((f.executablePath && isAppleProgram(*f.executablePath, f.launchdLabel)) ||
        (f.launchdLabel && isSystemJob(*f.launchdLabel))) {
        std::optional<std::string> fix;
        if (f.name == "ControlCenter" && (f.port == 5000 || f.port == 7000))
            fix = "System Settings → General → AirDrop & Handoff → AirPlay Receiver";
        return {ListenerRole::AppleSystem{fix}};
    }
    if (auto app = appName(f)) return {ListenerRole::PartOfApp{*app}};
    if (f.launchdLabel && isServiceJob(*f.launchdLabel)) return serviceRole(*f.launchdLabel);
    return {ListenerRole::PlainProcess{}};
}

std::optional<std::string> RoleResolver::bundlePrefix(const std::string& path) {
    if (auto app = path.find(".app/"); app != std::string::npos) return path.substr(0, app + 5);
    if (path.starts_with("/snap/")) {
        auto end = path.find('/', 6);
        if (end != std::string::npos && end > 6) return path.substr(0, end + 1);
    }
    return std::nullopt;
}

bool RoleResolver::isRunByItsApp(int32_t pid, const std::optional<std::string>& path,
                                 const LaunchdJobs& jobs) const {
    if (auto own = jobs.label(pid); own && classifier_.labels().isAppJob(*own)) return true;
    if (!path) return false;
    auto prefix = bundlePrefix(*path);
    if (!prefix) return false;
    int32_t current = pid;
    for (int level = 0; level < kMaxAncestors; ++level) {
        auto info = environment_.process(current);
        if (!info || info->ppid < 2) break;
        const int32_t parent = info->ppid;
        auto label = jobs.label(parent);
        if (label && classifier_.labels().isAppJob(*label)) {
            auto parentPath = environment_.executablePath(parent);
            if (parentPath && parentPath->starts_with(*prefix)) return true;
        }
        current = parent;
    }
    return false;
}

ListenerRole RoleResolver::resolvePlain(int32_t pid, uint16_t /*port*/, const LaunchdJobs& jobs,
                                        ListenerRole ownRole) const {
    int32_t current = pid;
    for (int level = 0; level < kMaxAncestors; ++level) {
        auto info = environment_.process(current);
        if (!info || info->ppid < 2) break;
        const int32_t parent = info->ppid;
        // The manager gave this process a unit of its own: it is not part
        // of whatever job its parent belongs to.
        if (jobs.crossesUnit(current, parent)) break;
        auto parentInfo = environment_.process(parent);
        if (!parentInfo) break;
        // Started by hand from an interactive shell: the process is its own master.
        if (isShellName(normalizedProgramName(parentInfo->name)) &&
            !isCommandWrapper(environment_.arguments(parent).value_or(std::vector<std::string>{})))
            break;
        if (auto label = jobs.label(parent)) {
            if (classifier_.isSystemJob(*label)) return {ListenerRole::AppleSystem{}};
            if (classifier_.isServiceJob(*label)) return classifier_.serviceRole(*label);
        }
        current = parent;
    }
    return ownRole;
}

}  // namespace wharfy
