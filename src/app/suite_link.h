#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/app_paths.h"
#include "app/loop/event_loop.h"
#include "app/model/app_model.h"
#include "app/settings_store.h"
#include "common/result.h"
#include "suite/suite_folder.h"
#include "suite_ui/suite_participant.h"

namespace wharfy::app {

/// An app's level as the suite shows it, ordered ok < notice < alert.
enum class SuiteLevel { ok, notice, alert };

/// One of the app's numbers for the suite.
struct SuiteMetric {
    std::string id;
    std::string label;
    int value = 0;
    SuiteLevel level = SuiteLevel::ok;

    bool operator==(const SuiteMetric&) const = default;
};

/// What Wharfy tells the suite about itself.
struct WharfyGlance {
    /// Servers, open to network, containers (only once a runtime was read)
    /// and busy agents, which alert while a session runs away.
    static std::vector<SuiteMetric> metrics(const WharfyCounts& counts);
    /// Alert while a session runs away; notice while alerts are unseen; else ok.
    static SuiteLevel level(const WharfyCounts& counts);
};

/// The option that points a test run at a private suite folder, and its rules:
/// the folder must lie inside the temporary folder and apart from the real
/// suite folder, so a test can never touch what the user's other apps share.
struct SuiteFolderArgument {
    static constexpr const char* flag = "--suite-folder";

    /// What is wrong with the option's value.
    struct Problem {
        enum class Kind { notAbsolute, outsideTemporaryFolder, realSuiteFolder, missingValue };
        Kind kind = Kind::missingValue;
        /// The value as given.
        std::string path;

        bool operator==(const Problem&) const = default;
        /// The one line written to standard error.
        std::string message() const;
    };

    /// The folder the option names, resolved; absent without the option.
    /// `realFolder` is absent when this user has no real suite folder.
    static Result<std::optional<std::string>, Problem> resolve(
        const std::vector<std::string>& arguments, const std::string& temporaryRoot,
        const std::optional<std::string>& realFolder);
    /// `path` tidied, with the symbolic links of its existing part resolved.
    static std::string resolved(const std::string& path);
    /// TMPDIR when it is an absolute path, else "/tmp". `variable` answers an
    /// environment variable, absent when unset.
    static std::string temporaryRoot(
        const std::function<std::optional<std::string>(const char*)>& variable);
};

/// The suite folders of a run.
struct SuiteFolderChoice {
    std::vector<nemarro::suite::SuiteFolder> folders;
    /// The folder came from --suite-folder.
    bool isTestFolder = false;

    bool operator==(const SuiteFolderChoice&) const = default;
};

/// The folder --suite-folder names, else the real ones that `facts` give.
Result<SuiteFolderChoice, SuiteFolderArgument::Problem> chooseSuiteFolders(
    const std::vector<std::string>& arguments, const nemarro::suite::SuiteLocationFacts& facts,
    const std::string& temporaryRoot);
/// The same from this process's password database and environment.
Result<SuiteFolderChoice, SuiteFolderArgument::Problem> liveSuiteFolders(
    const std::vector<std::string>& arguments);

/// Where the suite keeps the user's choices: the app's own settings, or for a
/// test folder the file "com.nemarro.wharfy.qa-suite.json" beside them, so a
/// test run leaves the user's choices alone.
std::shared_ptr<SettingsStore> suitePreferences(const SuiteFolderChoice& choice,
                                                std::shared_ptr<SettingsStore> appSettings,
                                                const AppPaths& paths);

/// A participant's preferences kept in one of the app's settings stores.
class SettingsPreferences final : public nemarro::suite_ui::PreferenceStore {
  public:
    explicit SettingsPreferences(std::shared_ptr<SettingsStore> store) : store_(std::move(store)) {}
    std::optional<bool> flag(std::string_view key) const override;
    std::optional<std::string> setFlag(std::string_view key, bool value) override;

  private:
    std::shared_ptr<SettingsStore> store_;
};

/// What the link is made of.
struct SuiteLinkParts {
    std::vector<nemarro::suite::SuiteFolder> folders;
    /// Where the suite keeps the user's choices (see suitePreferences); may be null.
    std::shared_ptr<SettingsStore> preferences;
    /// The shared readout on this process's surface; empty when it has none.
    nemarro::suite_ui::SuiteHostFactory host;
    /// Another app asked Wharfy to show its window.
    std::function<void()> onOpen;
    /// Where the suite's messages go.
    std::function<void(const std::string&)> log;
    /// Told whether this app hosts; may be null.
    std::shared_ptr<Diagnostics> diagnostics;
    /// The machine as the participant reaches it (SuiteLink::liveSystem).
    nemarro::suite_ui::ParticipantSystem system;
};

/// Joins Wharfy to the suite: turns every refresh of the model into the app's
/// glance record, keeps the record alive while refreshes stall, and leaves the
/// suite when the app quits. Lives on the loop's thread.
class SuiteLink {
  public:
    /// The ttl of Wharfy's record.
    static constexpr int64_t kTTL = 30;
    /// The watchdog's period, and the silence after which it publishes
    /// without numbers.
    static constexpr double kWatchdogInterval = 30;
    static constexpr double kStaleAfter = 150;
    /// The subsystem and category the suite's messages are logged under.
    static constexpr const char* kLogPrefix = "com.nemarro.suite participant: ";

    /// The machine as the participant reaches it, with its messages logged
    /// like the participant's own.
    static nemarro::suite_ui::ParticipantSystem liveSystem(
        EventLoop& loop, std::function<void(const std::string&)> log);

    /// Creates the participant for "wharfy" (which joins the suite at once).
    SuiteLink(EventLoop& loop, AppModel& model, SuiteLinkParts parts);
    /// Stops.
    ~SuiteLink();
    SuiteLink(const SuiteLink&) = delete;
    SuiteLink& operator=(const SuiteLink&) = delete;

    /// Publishes after every refresh of the model and starts the watchdog.
    void start();
    /// Leaves the suite: remembers whether this app hosted, withdraws the
    /// record and releases the host lock. Once.
    void stop();

    /// One publication of the app's counts.
    void publish(const WharfyCounts& counts);
    /// Whether this app hosts the shared readout, or did when it stopped.
    bool suiteHost() const;
    bool hostedAtQuit() const { return hostedAtQuit_; }

    nemarro::suite_ui::SuiteParticipant& participant() { return *participant_; }

  private:
    void scheduleWatchdog();
    void watchdog();

    EventLoop& loop_;
    AppModel& model_;
    std::shared_ptr<Diagnostics> diagnostics_;
    std::unique_ptr<nemarro::suite_ui::SuiteParticipant> participant_;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
    std::optional<double> lastRefresh_;
    nemarro::suite::GlanceLevel lastLevel_ = nemarro::suite::GlanceLevel::ok;
    bool hostedAtQuit_ = false;
    std::optional<EventLoop::TimerId> watchdog_;
    bool started_ = false;
    bool stopped_ = false;
};

}  // namespace wharfy::app
