#include "core/containers/container_actions.h"

#include "core/containers/http.h"
#include "core/containers/runtime_detector.h"

namespace wharfy {
namespace {

bool isLowerHex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}
bool isAlnum(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool needsQuoting(const std::string& s) {
    if (s.empty()) return true;
    for (char c : s) {
        if (isAlnum(c)) continue;
        if (std::string_view("-_./:=@%+,").find(c) != std::string_view::npos) continue;
        return true;
    }
    return false;
}

std::string shellQuoted(const std::string& s) {
    if (!needsQuoting(s)) return s;
    std::string out = "'";
    for (char c : s) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    return out + "'";
}

bool isUsableSocket(const std::string& path) {
    if (path.empty() || path.size() > kMaxSocketPathBytes || !path.starts_with('/')) return false;
    for (unsigned char c : path)
        if (c < 0x20 || c == 0x7f) return false;
    return true;
}

ActionError refused(ActionError::Kind kind, std::string text = {}) {
    return ActionError{kind, std::move(text)};
}

}  // namespace

bool DockerIdentifiers::isContainerID(std::string_view id) {
    if (id.size() < 12 || id.size() > 64) return false;
    for (char c : id)
        if (!isLowerHex(c)) return false;
    return true;
}

bool DockerIdentifiers::isImageID(std::string_view id) {
    if (id.starts_with("sha256:")) id.remove_prefix(7);
    return isContainerID(id);
}

bool DockerIdentifiers::isVolumeName(std::string_view name) {
    if (name.empty() || name.size() > 255 || !isAlnum(name.front())) return false;
    for (char c : name.substr(1))
        if (!isAlnum(c) && c != '_' && c != '.' && c != '-') return false;
    return true;
}

std::string ActionError::description() const {
    switch (kind) {
        case Kind::invalidID:
            return "Nothing was run: \"" + text + "\" is not a container or image id.";
        case Kind::invalidVolumeName:
            return "Nothing was run: \"" + text + "\" is not a volume name.";
        case Kind::noTargets:
            return "Nothing was run: there is nothing to remove.";
        case Kind::invalidSocket:
            return "Nothing was run: the runtime's socket path cannot be passed to docker.";
    }
    return "Nothing was run.";
}

const char* rawValue(StopOutcome outcome) {
    switch (outcome) {
        case StopOutcome::stopped:
            return "stopped";
        case StopOutcome::stillRunning:
            return "stillRunning";
        case StopOutcome::unknown:
            return "unknown";
    }
    return "unknown";
}

std::string DockerCommand::display() const {
    std::string out = shellQuoted(executable);
    for (const auto& a : arguments)
        out += " " + shellQuoted(a);
    return out;
}

Result<DockerCommand, ActionError> ContainerActions::command(const ContainerAction& action) const {
    using Kind = ActionError::Kind;
    if (!isUsableSocket(socketPath)) return refused(Kind::invalidSocket);
    std::vector<std::string> args{"-H", "unix://" + socketPath};

    if (auto* stop = std::get_if<ContainerAction::StopContainer>(&action.value)) {
        if (!DockerIdentifiers::isContainerID(stop->id)) return refused(Kind::invalidID, stop->id);
        args.insert(args.end(), {"kill", "--signal=TERM", stop->id});
    } else if (auto* rm = std::get_if<ContainerAction::RemoveStoppedContainers>(&action.value)) {
        if (rm->ids.empty()) return refused(Kind::noTargets);
        for (const auto& id : rm->ids)
            if (!DockerIdentifiers::isContainerID(id)) return refused(Kind::invalidID, id);
        args.push_back("rm");
        args.insert(args.end(), rm->ids.begin(), rm->ids.end());
    } else if (auto* images = std::get_if<ContainerAction::RemoveDanglingImages>(&action.value)) {
        if (images->ids.empty()) return refused(Kind::noTargets);
        for (const auto& id : images->ids)
            if (!DockerIdentifiers::isImageID(id)) return refused(Kind::invalidID, id);
        args.insert(args.end(), {"image", "rm"});
        args.insert(args.end(), images->ids.begin(), images->ids.end());
    } else if (auto* volume = std::get_if<ContainerAction::RemoveVolume>(&action.value)) {
        if (!DockerIdentifiers::isVolumeName(volume->name))
            return refused(Kind::invalidVolumeName, volume->name);
        args.insert(args.end(), {"volume", "rm", volume->name});
    } else {
        args.insert(args.end(), {"builder", "prune", "-f"});
    }
    return DockerCommand{dockerPath, std::move(args)};
}

Result<ActionReport, ActionError> ContainerActions::perform(const ContainerAction& action) const {
    auto built = command(action);
    if (!built) return built.error();
    const auto* stop = std::get_if<ContainerAction::StopContainer>(&action.value);
    // Stopping frees no disk, so only the clean-ups read the disk images.
    auto readDisk = [&]() -> std::optional<uint64_t> {
        if (stop || !macDisk) return std::nullopt;
        return macDisk();
    };

    ActionReport report;
    report.command = built.value();
    report.macDiskBefore = readDisk();
    ProcessResult result =
        runner->run(report.command.executable, report.command.arguments, environment);
    report.succeeded = result.status == 0;
    report.output = std::move(result.output);
    report.error = std::move(result.error);

    if (stop) {
        report.stopOutcome = StopOutcome::unknown;
        // The API version is asked once for all the polls.
        std::optional<std::string> api;
        if (engine)
            if (auto version = engine->version()) api = std::move(version.value().apiVersion);
        if (api) {
            report.stopOutcome = StopOutcome::stillRunning;
            for (int poll = 0; poll < kMaxPolls; ++poll) {
                if (sleep) sleep(kPollInterval);
                auto state = engine->containerState(stop->id, *api);
                if (!state) {
                    report.stopOutcome = StopOutcome::unknown;
                    break;
                }
                if (state.value() != "running") {
                    report.stopOutcome = StopOutcome::stopped;
                    break;
                }
            }
        }
    }

    report.macDiskAfter = readDisk();
    if (report.macDiskBefore || report.macDiskAfter) report.note = diskImageNote();
    return report;
}

std::map<std::string, std::string> ContainerActions::toolEnvironment(const std::string& home) {
    return {{"HOME", home}, {"PATH", "/usr/local/bin:/usr/bin:/bin"}};
}

int ContainerCounts::running() const {
    int n = 0;
    for (const auto& c : containers)
        n += c.isRunning() ? 1 : 0;
    return n;
}

int ContainerCounts::stopped() const {
    int n = 0;
    for (const auto& c : containers)
        n += c.isStopped() ? 1 : 0;
    return n;
}

}  // namespace wharfy
