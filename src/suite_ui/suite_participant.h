#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/loop/event_loop.h"
#include "suite/glance_record.h"
#include "suite/host_lock.h"
#include "suite/suite_folder.h"
#include "suite/suite_settings.h"
#include "suite/suite_state_machine.h"
#include "suite_ui/folder_watch.h"
#include "suite_ui/open_requests.h"
#include "suite_ui/wake_detector.h"

namespace nemarro::suite_ui {

using suite::GlanceLevel;
using suite::GlanceMetric;
using suite::GlanceRecord;
using suite::MetricRef;
using suite::SuiteApp;
using suite::SuiteFolder;
using suite::SuiteRow;
using suite::SuiteSettings;

/// The records of every app read from `folders`, valid ones only. When two
/// folders hold a record of the same app, the one written later wins (the
/// earlier folder's on a tie).
std::map<SuiteApp, GlanceRecord> readSuiteRecords(const std::vector<SuiteFolder>& folders);

/// What the shared readout shows.
struct SuiteReadout {
    std::vector<SuiteRow> rows;
    GlanceLevel worstLevel = GlanceLevel::ok;
    std::vector<std::pair<MetricRef, GlanceMetric>> menuBarValues;
    SuiteSettings settings;

    bool operator==(const SuiteReadout&) const = default;
};

/// The shared readout of the whole suite, shown by the host on its surface.
/// It exists while its participant hosts and is destroyed when it stops.
class SuiteHost {
  public:
    virtual ~SuiteHost() = default;
    /// Shows `readout`; called once after creation and again at each change.
    virtual void show(const SuiteReadout& readout) = 0;
};

class SuiteParticipant;

/// Makes the shared readout on this app's surface; it hands settings the
/// user changed back through `SuiteParticipant::setSettings`. Null shows
/// nothing. An app without a surface has no factory at all.
using SuiteHostFactory = std::function<std::unique_ptr<SuiteHost>(SuiteParticipant& participant)>;

/// The app's own preferences, where a participant keeps the user's choices.
class PreferenceStore {
  public:
    virtual ~PreferenceStore() = default;
    virtual std::optional<bool> flag(std::string_view key) const = 0;
    /// Stores at once; the error's text when that failed.
    virtual std::optional<std::string> setFlag(std::string_view key, bool value) = 0;
};

/// How a participant reaches the machine. An empty factory leaves that part out.
struct ParticipantSystem {
    std::shared_ptr<suite::LockFiles> lockFiles;
    suite::HostLock::Options lockOptions;
    FolderWatchFactory watchFolders;
    OpenRequestsFactory openRequests;
    SystemClocks clocks;

    /// The real machine: lock files, inotify on `loop`, the session bus named
    /// by DBUS_SESSION_BUS_ADDRESS, and the boot and monotonic clocks.
    static ParticipantSystem live(wharfy::app::EventLoop& loop, Log log);
};

/// Everything a participant is made of.
struct ParticipantParts {
    SuiteApp app = SuiteApp::wharfy;
    std::vector<SuiteFolder> folders;
    /// May be null: the user's choices are then not kept.
    std::shared_ptr<PreferenceStore> preferences;
    /// Empty when the app has no surface to show the shared readout on: it
    /// then never competes for the host lock.
    SuiteHostFactory host;
    /// Whether to notice the machine waking from sleep.
    bool observesSystem = true;
    /// Another app asked this one to show its window.
    std::function<void()> onOpen;
    Log log;
    ParticipantSystem system;
};

/// The one object through which an app takes part in the suite: it publishes
/// the app's glance record on a schedule, reads everybody's records when the
/// folder changes and on a timer, runs the suite state machine, competes for
/// the host lock when the app can host and has a surface, and shows the
/// shared readout while it holds the lock and the suite is active. Lives on
/// the loop's thread; the lock thread and the folder watch only post to it.
class SuiteParticipant {
  public:
    /// Starts in this order: prepares the folders, reads the shared settings,
    /// starts the host lock, watches the folders, listens for open requests
    /// and, when asked to, for the machine waking.
    SuiteParticipant(wharfy::app::EventLoop& loop, ParticipantParts parts);
    /// Shuts down.
    ~SuiteParticipant();
    SuiteParticipant(const SuiteParticipant&) = delete;
    SuiteParticipant& operator=(const SuiteParticipant&) = delete;

    /// Where the user's "Show my own menu bar icon" is kept.
    static constexpr const char* kShowOwnIconKey = "NemarroSuite.showOwnIcon";
    /// The ttl of the record this participant counts itself with before its
    /// first publication.
    static constexpr int64_t kDefaultTTL = 10;
    /// Re-checks after a change of host, and their spacing in seconds.
    static constexpr int kHostingRechecks = 2;
    static constexpr double kHostingRecheckSpacing = 1;
    /// How long settings changes are gathered before they are saved.
    static constexpr double kPersistDelay = 1;

    /// Seconds between timer ticks for a record of `ttl`: min(clamp(ttl, 3,
    /// 60) / 2 - 0.5, 5), so an unchanged record is rewritten well before
    /// half its ttl has passed.
    static double timerInterval(int64_t ttl);

    /// The app's current readout; written at once when it changed, otherwise
    /// every half ttl.
    void publish(GlanceLevel level, std::vector<GlanceMetric> metrics, int64_t ttl);
    /// Asks another app of the suite to show its window.
    void requestOpen(SuiteApp app);

    const SuiteSettings& settings() const { return settings_; }
    /// Takes the user's change of the shared settings; saved shortly after.
    void setSettings(SuiteSettings settings);
    void floatingBarMoved(suite::ScreenPoint topLeft);
    /// Whether this app should show its own icon: the suite is inactive, the
    /// user opted in, or the suite's host has been missing for a while.
    bool showsOwnIcon() const;
    bool showOwnIconSetting() const { return showOwnIcon_; }
    void setShowOwnIconSetting(bool show);

    /// Stops taking part, once: the shared readout goes away, a final stopped
    /// record without metrics is written, pending settings are saved, and the
    /// host lock is released so that the next app takes over at once.
    void shutdown();

    // What the views read; `changed` tells when any of it changed.
    SuiteApp app() const { return parts_.app; }
    bool isActive() const { return isActive_; }
    bool isHost() const { return isHost_; }
    const std::vector<SuiteRow>& rows() const { return rows_; }
    GlanceLevel worstLevel() const { return worstLevel_; }
    const std::vector<std::pair<MetricRef, GlanceMetric>>& menuBarValues() const {
        return menuBarValues_;
    }
    /// Whether the rules (and the user's choice) say this app shows its own icon.
    bool ownIconByRules() const { return ownIconByRules_; }
    /// The folders in use: those that could be prepared.
    const std::vector<SuiteFolder>& folders() const { return folders_; }

    /// Called on the loop after something the views read has changed.
    std::function<void()> changed;

  private:
    struct Publication {
        GlanceLevel level = GlanceLevel::ok;
        std::vector<GlanceMetric> metrics;
        int64_t ttl = kDefaultTTL;
    };

    void startTimer(int64_t ttl);
    void tick();
    void onFolderChanged();
    void evaluate();
    void writeIfDue(double margin);
    void writeEverywhere(const GlanceRecord& record, bool remember);
    void updateObservables();
    void reconcileHost();
    void showReadout();
    void hostingChanged();
    void recheckHosting();
    void syncSettings();
    void persistSoon();
    void saveSettings();
    void logOnce(const std::string& key, const std::string& message);
    void tellChanged();
    template <typename T>
    void assign(T& field, T value);

    wharfy::app::EventLoop& loop_;
    ParticipantParts parts_;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);

    bool isActive_ = false;
    bool isHost_ = false;
    std::vector<SuiteRow> rows_;
    GlanceLevel worstLevel_ = GlanceLevel::ok;
    std::vector<std::pair<MetricRef, GlanceMetric>> menuBarValues_;
    SuiteSettings settings_;
    bool showOwnIcon_ = false;
    bool ownIconByRules_ = true;

    std::vector<SuiteFolder> folders_;
    suite::SuiteStateMachine machine_;
    bool lastWriteFailed_ = false;
    suite::PublishSchedule schedule_;
    std::optional<Publication> last_;
    std::unique_ptr<suite::HostLock> lock_;
    std::unique_ptr<SuiteHost> host_;
    std::optional<SuiteReadout> shownReadout_;
    bool showing_ = false;
    std::unique_ptr<FolderWatch> watch_;
    std::optional<wharfy::app::EventLoop::TimerId> timer_;
    std::optional<int64_t> timerTTL_;
    std::unique_ptr<OpenRequests> openRequests_;
    std::optional<WakeDetector> wake_;
    std::optional<wharfy::app::EventLoop::TimerId> persistTask_;
    std::optional<wharfy::app::EventLoop::TimerId> hostingRecheck_;
    int hostingRechecksLeft_ = 0;
    std::set<std::string> loggedProblems_;
    bool didShutdown_ = false;
    bool dirty_ = false;
};

}  // namespace nemarro::suite_ui
