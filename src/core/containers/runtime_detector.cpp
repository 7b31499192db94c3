#include "core/containers/runtime_detector.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>

namespace wharfy {
namespace {

std::string quoted(const std::string& s) {
    return "\"" + s + "\"";
}

struct ContextMeta {
    std::string name;
    std::optional<std::string> host;
};

std::optional<ContextMeta> readContextMeta(const std::string& bytes) {
    auto root = nlohmann::json::parse(bytes, nullptr, false);
    if (root.is_discarded() || !root.is_object()) return std::nullopt;
    auto name = root.find("Name");
    if (name == root.end() || !name->is_string()) return std::nullopt;
    ContextMeta meta{name->get<std::string>(), std::nullopt};
    auto endpoints = root.find("Endpoints");
    if (endpoints == root.end() || !endpoints->is_object()) return meta;
    auto docker = endpoints->find("docker");
    if (docker == endpoints->end() || !docker->is_object()) return meta;
    auto host = docker->find("Host");
    if (host != docker->end() && host->is_string()) meta.host = host->get<std::string>();
    return meta;
}

}  // namespace

std::string RuntimeKind::text() const {
    struct Text {
        std::string operator()(const Colima& k) const {
            return "colima(profile: " + quoted(k.profile) + ")";
        }
        std::string operator()(const Context& k) const {
            return "context(name: " + quoted(k.name) + ")";
        }
        std::string operator()(const DockerDesktop&) const { return "dockerDesktop"; }
        std::string operator()(const OrbStack&) const { return "orbstack"; }
        std::string operator()(const DockerEngine&) const { return "dockerEngine"; }
        std::string operator()(const Podman&) const { return "podman"; }
    };
    return std::visit(Text{}, value);
}

std::optional<std::string> RuntimeInfo::stateText() const {
    if (remoteEndpoint)
        return "Remote context (" + *remoteEndpoint +
               "). Listed only; Wharfy does not measure or change it.";
    switch (status) {
        case RuntimeStatus::running:
            return std::nullopt;
        case RuntimeStatus::notRunning:
            break;
        case RuntimeStatus::notAnswering:
            return std::string("Running, but not answering.");
        case RuntimeStatus::permissionDenied:
            return std::string("Wharfy may not use this runtime's socket (permission denied).");
    }
    return std::string("Not running. Wharfy never starts a runtime.");
}

const char* RuntimeInfo::stateName() const {
    if (remoteEndpoint) return "remote";
    switch (status) {
        case RuntimeStatus::running:
            return "running";
        case RuntimeStatus::notRunning:
            break;
        case RuntimeStatus::notAnswering:
            return "notAnswering";
        case RuntimeStatus::permissionDenied:
            return "permissionDenied";
    }
    return "notRunning";
}

SocketAnswer pingAnswer(const Result<std::string, TransportError>& outcome) {
    if (outcome) return SocketAnswer::answered;
    using Kind = TransportError::Kind;
    const TransportError& e = outcome.error();
    switch (e.kind) {
        case Kind::responseTooLarge:
        case Kind::headerTooLarge:
            return SocketAnswer::answered;
        case Kind::timedOut:
        case Kind::ioFailed:
            return SocketAnswer::notAnswering;
        case Kind::connectFailed:
            if (e.errnoValue == EACCES || e.errnoValue == EPERM)
                return SocketAnswer::permissionDenied;
            return SocketAnswer::refused;
        case Kind::invalidPath:
        case Kind::socketPathTooLong:
            return SocketAnswer::refused;
    }
    return SocketAnswer::refused;
}

RuntimeInfo RuntimeDetector::settled(const RuntimeCandidate& candidate, SocketAnswer answer) {
    RuntimeInfo runtime = candidate.runtime;
    if (!candidate.probe) return runtime;
    switch (answer) {
        case SocketAnswer::answered:
            runtime.status = RuntimeStatus::running;
            break;
        case SocketAnswer::refused:
            runtime.status = RuntimeStatus::notRunning;
            return runtime;
        case SocketAnswer::notAnswering:
            runtime.status = RuntimeStatus::notAnswering;
            break;
        case SocketAnswer::permissionDenied:
            runtime.status = RuntimeStatus::permissionDenied;
            break;
    }
    runtime.socketPath = candidate.probe;
    return runtime;
}

RuntimeCandidate RuntimeDetector::probed(RuntimeInfo runtime, const std::string& socket,
                                         std::set<std::string>& claimed) const {
    if (!fileSystem_->isSocket(socket)) return {std::move(runtime), std::nullopt};
    auto resolved = fileSystem_->resolve(socket);
    if (!resolved) return {std::move(runtime), std::nullopt};
    claimed.insert(*resolved);
    return {std::move(runtime), socket};
}

std::optional<std::string> RuntimeDetector::choose(const std::vector<std::string>& candidates,
                                                   const std::set<std::string>& claimed) const {
    for (const auto& candidate : candidates) {
        if (!fileSystem_->isSocket(candidate)) continue;
        auto resolved = fileSystem_->resolve(candidate);
        if (resolved && !claimed.contains(*resolved)) return candidate;
    }
    return std::nullopt;
}

void RuntimeDetector::appendChosen(std::vector<RuntimeCandidate>& out,
                                   std::set<std::string>& claimed, RuntimeKind kind,
                                   const std::string& name,
                                   const std::vector<std::string>& candidates,
                                   const std::vector<std::string>& disks,
                                   const std::vector<std::string>& installedMarkers) const {
    RuntimeInfo runtime{std::move(kind),           name, std::nullopt, std::nullopt,
                        RuntimeStatus::notRunning, disks};
    if (auto chosen = choose(candidates, claimed)) {
        out.push_back(probed(std::move(runtime), *chosen, claimed));
        return;
    }
    for (const auto& marker : installedMarkers) {
        if (fileSystem_->exists(marker)) {
            out.push_back({std::move(runtime), std::nullopt});
            return;
        }
    }
}

std::vector<std::string> RuntimeDetector::colimaProfiles() const {
    std::vector<std::string> profiles;
    for (auto& name : fileSystem_->subdirectories(home_ + "/.colima"))
        if (!name.starts_with('_')) profiles.push_back(std::move(name));
    return profiles;
}

std::vector<std::string> RuntimeDetector::colimaDisks(const std::string& profile) const {
    const std::string instance = profile == "default" ? "colima" : "colima-" + profile;
    return {home_ + "/.colima/_lima/" + instance + "/disk",
            home_ + "/.colima/_lima/_disks/" + instance + "/datadisk"};
}

std::vector<RuntimeCandidate> RuntimeDetector::contexts(std::set<std::string>& claimed) const {
    std::vector<RuntimeCandidate> out;
    const std::string meta = home_ + "/.docker/contexts/meta";
    for (const auto& folder : fileSystem_->subdirectories(meta)) {
        auto bytes = fileSystem_->contents(meta + "/" + folder + "/meta.json");
        if (!bytes) continue;
        auto context = readContextMeta(*bytes);
        if (!context || !context->host) continue;
        RuntimeInfo runtime{RuntimeKind{RuntimeKind::Context{context->name}},
                            "Docker context " + context->name,
                            std::nullopt,
                            std::nullopt,
                            RuntimeStatus::notRunning,
                            {}};
        const std::string& host = *context->host;
        if (host.starts_with("unix://")) {
            const std::string socket = host.substr(7);
            if (!fileSystem_->isSocket(socket)) continue;
            auto resolved = fileSystem_->resolve(socket);
            if (!resolved || claimed.contains(*resolved)) continue;
            out.push_back(probed(std::move(runtime), socket, claimed));
        } else {
            runtime.remoteEndpoint = host;
            out.push_back({std::move(runtime), std::nullopt});
        }
    }
    return out;
}

std::vector<RuntimeCandidate> RuntimeDetector::candidates() const {
    std::vector<RuntimeCandidate> out;
    std::set<std::string> claimed;
    auto runtime = [](RuntimeKind kind, std::string name, std::vector<std::string> disks) {
        return RuntimeInfo{std::move(kind), std::move(name),           std::nullopt,
                           std::nullopt,    RuntimeStatus::notRunning, std::move(disks)};
    };

    for (const auto& profile : colimaProfiles()) {
        out.push_back(probed(runtime(RuntimeKind{RuntimeKind::Colima{profile}},
                                     "Colima (" + profile + ")", colimaDisks(profile)),
                             home_ + "/.colima/" + profile + "/docker.sock", claimed));
    }

    if (platform_ == DetectorPlatform::macOS) {
        if (fileSystem_->exists(home_ + "/.orbstack") ||
            fileSystem_->exists("/Applications/OrbStack.app")) {
            out.push_back(probed(
                runtime(
                    RuntimeKind{RuntimeKind::OrbStack{}}, "OrbStack",
                    {home_ + "/Library/Group Containers/HUAQ24HBR6.dev.orbstack/data/data.img"}),
                home_ + "/.orbstack/run/docker.sock", claimed));
        }
        appendChosen(out, claimed, RuntimeKind{RuntimeKind::DockerDesktop{}}, "Docker Desktop",
                     {home_ + "/.docker/run/docker.sock", "/var/run/docker.sock"},
                     {home_ + "/Library/Containers/com.docker.docker/Data/vms/0/data/Docker.raw"},
                     {"/Applications/Docker.app"});
    } else {
        appendChosen(out, claimed, RuntimeKind{RuntimeKind::DockerDesktop{}}, "Docker Desktop",
                     {home_ + "/.docker/desktop/docker.sock"},
                     {home_ + "/.docker/desktop/vms/0/data/Docker.raw"}, {"/opt/docker-desktop"});
        std::vector<std::string> engine{"/var/run/docker.sock"};
        std::vector<std::string> podman;
        if (xdgRuntimeDir_ && !xdgRuntimeDir_->empty()) {
            engine.push_back(*xdgRuntimeDir_ + "/docker.sock");
            podman.push_back(*xdgRuntimeDir_ + "/podman/podman.sock");
        }
        podman.push_back("/run/podman/podman.sock");
        appendChosen(out, claimed, RuntimeKind{RuntimeKind::DockerEngine{}}, "Docker Engine",
                     engine, {}, {});
        appendChosen(out, claimed, RuntimeKind{RuntimeKind::Podman{}}, "Podman", podman, {}, {});
    }

    auto listed = contexts(claimed);
    out.insert(out.end(), std::make_move_iterator(listed.begin()),
               std::make_move_iterator(listed.end()));
    return out;
}

std::vector<RuntimeInfo> RuntimeDetector::detect() const {
    const auto found = candidates();
    std::vector<std::string> sockets;
    for (const auto& c : found)
        if (c.probe) sockets.push_back(*c.probe);
    const auto answers = sockets.empty() ? std::vector<SocketAnswer>{} : fileSystem_->ping(sockets);

    std::vector<RuntimeInfo> out;
    out.reserve(found.size());
    size_t next = 0;
    for (const auto& c : found) {
        // A file system that answers short leaves the rest not running.
        SocketAnswer answer = SocketAnswer::refused;
        if (c.probe && next < answers.size()) answer = answers[next++];
        out.push_back(settled(c, answer));
    }
    return out;
}

std::vector<std::string> DockerBinary::candidates(const std::string& home,
                                                  DetectorPlatform platform) {
    std::vector<std::string> list;
    if (platform == DetectorPlatform::linuxOS)
        list = {"/usr/bin/docker", "/usr/local/bin/docker", home + "/.docker/bin/docker"};
    for (std::string c :
         {std::string("/opt/homebrew/bin/docker"), std::string("/usr/local/bin/docker"),
          std::string("/Applications/Docker.app/Contents/Resources/bin/docker"),
          home + "/.orbstack/bin/docker"}) {
        if (std::find(list.begin(), list.end(), c) == list.end()) list.push_back(std::move(c));
    }
    return list;
}

std::optional<std::string> DockerBinary::find(
    const std::string& home, const std::function<bool(const std::string&)>& isExecutable,
    DetectorPlatform platform) {
    for (const auto& candidate : candidates(home, platform))
        if (isExecutable(candidate)) return candidate;
    return std::nullopt;
}

}  // namespace wharfy
