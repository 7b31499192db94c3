#include "app/suite_link.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "app/diagnostics.h"
#include "app/settings_file.h"
#include "system/private_files.h"

namespace wharfy::app {

using nemarro::suite::GlanceLevel;
using nemarro::suite::GlanceMetric;
using nemarro::suite::SuiteApp;
using nemarro::suite::SuiteFolder;
using nemarro::suite::SuiteLocationFacts;
using nemarro::suite_ui::ParticipantParts;
using nemarro::suite_ui::SuiteParticipant;

namespace {

GlanceLevel glanceLevel(SuiteLevel level) {
    switch (level) {
        case SuiteLevel::ok:
            return GlanceLevel::ok;
        case SuiteLevel::notice:
            return GlanceLevel::notice;
        case SuiteLevel::alert:
            return GlanceLevel::alert;
    }
    return GlanceLevel::ok;
}

/// Whether `child` lies below `parent` (both resolved, without trailing slash).
bool isBelow(const std::string& child, const std::string& parent) {
    if (parent == "/") return child.size() > 1 && child.front() == '/';
    return child.size() > parent.size() && child.starts_with(parent) && child[parent.size()] == '/';
}

constexpr const char* kTestPreferencesFile = "com.nemarro.wharfy.qa-suite.json";

}  // namespace

std::vector<SuiteMetric> WharfyGlance::metrics(const WharfyCounts& counts) {
    std::vector<SuiteMetric> metrics{
        {"servers", "Servers", counts.listening, SuiteLevel::ok},
        {"exposed", "Open to network", counts.openToNetwork, SuiteLevel::ok},
    };
    if (counts.containersRunning)
        metrics.push_back({"containers", "Containers", *counts.containersRunning, SuiteLevel::ok});
    metrics.push_back({"agents", "Agents busy", counts.agentsBusy,
                       counts.hasRunaway ? SuiteLevel::alert : SuiteLevel::ok});
    return metrics;
}

SuiteLevel WharfyGlance::level(const WharfyCounts& counts) {
    if (counts.hasRunaway) return SuiteLevel::alert;
    if (counts.unseenAlerts > 0) return SuiteLevel::notice;
    return SuiteLevel::ok;
}

std::string SuiteFolderArgument::Problem::message() const {
    switch (kind) {
        case Kind::notAbsolute:
            return "--suite-folder must be an absolute path: " + path;
        case Kind::outsideTemporaryFolder:
            return "--suite-folder must be inside the temporary folder: " + path;
        case Kind::realSuiteFolder:
            return "--suite-folder must not be the real suite folder: " + path;
        case Kind::missingValue:
            return "--suite-folder needs a path";
    }
    return "--suite-folder needs a path";
}

std::string SuiteFolderArgument::resolved(const std::string& path) {
    std::error_code error;
    auto canonical = std::filesystem::weakly_canonical(path, error);
    std::string text =
        error ? std::filesystem::path(path).lexically_normal().string() : canonical.string();
    while (text.size() > 1 && text.back() == '/')
        text.pop_back();
    return text;
}

Result<std::optional<std::string>, SuiteFolderArgument::Problem> SuiteFolderArgument::resolve(
    const std::vector<std::string>& arguments, const std::string& temporaryRoot,
    const std::optional<std::string>& realFolder) {
    using Kind = Problem::Kind;
    auto option = std::find(arguments.begin(), arguments.end(), flag);
    if (option == arguments.end()) return std::optional<std::string>();
    if (option + 1 == arguments.end() || (option + 1)->starts_with("--"))
        return Problem{Kind::missingValue, ""};
    const std::string& value = *(option + 1);
    if (!value.starts_with("/")) return Problem{Kind::notAbsolute, value};
    const std::string folder = resolved(value);
    if (!isBelow(folder, resolved(temporaryRoot)))
        return Problem{Kind::outsideTemporaryFolder, value};
    if (realFolder) {
        const std::string real = resolved(*realFolder);
        if (folder == real || isBelow(folder, real) || isBelow(real, folder))
            return Problem{Kind::realSuiteFolder, value};
    }
    return std::optional<std::string>(folder);
}

std::string SuiteFolderArgument::temporaryRoot(
    const std::function<std::optional<std::string>(const char*)>& variable) {
    auto tmpdir = variable("TMPDIR");
    if (tmpdir && tmpdir->starts_with("/")) return *tmpdir;
    return "/tmp";
}

Result<SuiteFolderChoice, SuiteFolderArgument::Problem> chooseSuiteFolders(
    const std::vector<std::string>& arguments, const SuiteLocationFacts& facts,
    const std::string& temporaryRoot) {
    // A sandboxed process has no suite folder, but the user's real one must
    // still be kept out of a test's reach.
    SuiteLocationFacts unsandboxed = facts;
    unsandboxed.sandboxed = false;
    const auto real = SuiteFolder::reachable(unsandboxed);
    auto chosen = SuiteFolderArgument::resolve(
        arguments, temporaryRoot,
        real.empty() ? std::nullopt : std::optional<std::string>(real.front().path));
    if (!chosen) return chosen.error();
    if (chosen.value()) return SuiteFolderChoice{{SuiteFolder::at(*chosen.value())}, true};
    return SuiteFolderChoice{SuiteFolder::reachable(facts), false};
}

Result<SuiteFolderChoice, SuiteFolderArgument::Problem> liveSuiteFolders(
    const std::vector<std::string>& arguments) {
    const std::string root =
        SuiteFolderArgument::temporaryRoot([](const char* name) -> std::optional<std::string> {
            if (const char* value = std::getenv(name)) return std::string(value);
            return std::nullopt;
        });
    return chooseSuiteFolders(arguments, SuiteFolder::liveFacts(), root);
}

std::shared_ptr<SettingsStore> suitePreferences(const SuiteFolderChoice& choice,
                                                std::shared_ptr<SettingsStore> appSettings,
                                                const AppPaths& paths) {
    if (!choice.isTestFolder) return appSettings;
    return std::make_shared<SettingsFile>(parentFolder(paths.settingsFile) + "/" +
                                          kTestPreferencesFile);
}

std::optional<bool> SettingsPreferences::flag(std::string_view key) const {
    auto value = store_ ? store_->value(key) : std::nullopt;
    if (!value || !value->is_boolean()) return std::nullopt;
    return value->get<bool>();
}

std::optional<std::string> SettingsPreferences::setFlag(std::string_view key, bool value) {
    if (!store_) return std::nullopt;
    auto written = store_->set(key, value);
    if (written) return std::nullopt;
    return written.error().message();
}

nemarro::suite_ui::ParticipantSystem SuiteLink::liveSystem(
    EventLoop& loop, std::function<void(const std::string&)> log) {
    return nemarro::suite_ui::ParticipantSystem::live(
        loop, [log = std::move(log)](const std::string& message) {
            if (log) log(kLogPrefix + message);
        });
}

SuiteLink::SuiteLink(EventLoop& loop, AppModel& model, SuiteLinkParts parts)
    : loop_(loop), model_(model), diagnostics_(std::move(parts.diagnostics)) {
    ParticipantParts participant;
    participant.app = SuiteApp::wharfy;
    participant.folders = std::move(parts.folders);
    if (parts.preferences)
        participant.preferences = std::make_shared<SettingsPreferences>(parts.preferences);
    participant.host = std::move(parts.host);
    participant.observesSystem = true;
    participant.onOpen = std::move(parts.onOpen);
    participant.log = [log = std::move(parts.log)](const std::string& message) {
        if (log) log(kLogPrefix + message);
    };
    participant.system = std::move(parts.system);
    participant_ = std::make_unique<SuiteParticipant>(loop_, std::move(participant));
}

SuiteLink::~SuiteLink() {
    stop();
}

void SuiteLink::start() {
    if (started_ || stopped_) return;
    started_ = true;
    model_.didRefresh = [alive = std::weak_ptr<int>(alive_), this,
                         previous = std::move(model_.didRefresh)](const WharfyCounts& counts) {
        if (previous) previous(counts);
        if (alive.lock()) publish(counts);
    };
    scheduleWatchdog();
}

void SuiteLink::stop() {
    if (stopped_) return;
    stopped_ = true;
    if (watchdog_) loop_.cancel(*watchdog_);
    watchdog_.reset();
    hostedAtQuit_ = participant_->isHost();
    participant_->shutdown();
    if (diagnostics_) diagnostics_->setSuiteHost(suiteHost());
}

void SuiteLink::publish(const WharfyCounts& counts) {
    if (stopped_) return;
    lastRefresh_ = loop_.now();
    lastLevel_ = glanceLevel(WharfyGlance::level(counts));
    std::vector<GlanceMetric> metrics;
    for (const SuiteMetric& metric : WharfyGlance::metrics(counts))
        metrics.push_back(GlanceMetric{metric.id, metric.label, double(metric.value), "",
                                       glanceLevel(metric.level)});
    participant_->publish(lastLevel_, std::move(metrics), kTTL);
    if (diagnostics_) diagnostics_->setSuiteHost(suiteHost());
}

bool SuiteLink::suiteHost() const {
    return participant_->isHost() || hostedAtQuit_;
}

void SuiteLink::scheduleWatchdog() {
    watchdog_ = loop_.after(kWatchdogInterval, [this] { watchdog(); });
}

// A stalled refresh keeps the app in the suite at its last level, but its
// numbers would be stale, so they are withdrawn.
void SuiteLink::watchdog() {
    scheduleWatchdog();
    if (lastRefresh_ && loop_.now() - *lastRefresh_ > kStaleAfter)
        participant_->publish(lastLevel_, {}, kTTL);
}

}  // namespace wharfy::app
