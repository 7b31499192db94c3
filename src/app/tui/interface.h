#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "app/loop/event_loop.h"
#include "app/model/app_model.h"
#include "app/tui/keys.h"
#include "app/tui/terminal.h"
#include "app/tui/view_data.h"
#include "app/tui/views.h"

namespace wharfy::app::tui {

/// The interface over one app model: it turns model changes into redraws,
/// input into model requests, and carries out the options that open a tab,
/// arm a confirmation or take snapshots. Lives on the loop's thread. Without
/// a terminal it only takes the snapshots.
class Interface {
  public:
    struct Settings {
        LaunchOptions options;
        /// The size of `--snapshot-size`.
        std::optional<std::pair<int, int>> snapshotSize;
        bool color = true;
        /// The user's home folder, for "~" in export paths.
        std::string home;
        /// A time of day as the user reads it ("14:03:21").
        std::function<std::string(double)> clock;
        /// The date and minute in file names ("2026-01-05-1403").
        std::function<std::string(double)> fileStamp;
    };

    /// `terminal` and `suite` may be null; `quit` ends the run.
    Interface(EventLoop& loop, AppModel& model, Terminal* terminal, Settings settings,
              const SuiteStripSource* suite, std::function<void()> quit,
              std::function<void(const std::string&)> log);
    ~Interface();
    Interface(const Interface&) = delete;
    Interface& operator=(const Interface&) = delete;

    /// Connects to the model and the terminal and draws the first screen.
    void start();
    /// Something the model does not announce changed (the primary lock,
    /// the suite): redraw soon.
    void refreshSoon();
    /// One input event, as the terminal reported it.
    void handle(const Key& key);

    const UiState& state() const { return state_; }
    const ViewData& data() const { return data_; }
    /// The window as it would be drawn at that size now.
    Screen screenAt(int cols, int rows) const;
    /// The size of the window snapshot: the option, the terminal, or 120 × 40.
    std::pair<int, int> snapshotSize() const;

    /// A notice of the interface's own (export, settings).
    void showNotice(std::string text, bool isError);

  private:
    void modelChanged();
    void update();
    void draw();
    void perform(const Action& action);
    void readInput();
    void armConfirmation();
    void scheduleSnapshots();
    void writeSnapshots();
    void exportTo(std::string path);
    void applySetting(int row, std::optional<double> value, int step);
    void watchNotice();
    void loadSizesOfNewRuntimes();
    KeyContext keyContext() const;
    std::string expandHome(const std::string& path) const;

    EventLoop& loop_;
    AppModel& model_;
    Terminal* terminal_;
    Settings settings_;
    const SuiteStripSource* suite_;
    std::function<void()> quit_;
    std::function<void(const std::string&)> log_;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);

    UiState state_;
    ViewData data_;
    Geometry geometry_;
    std::optional<Notice> ownNotice_;
    std::optional<Notice> shownNotice_;
    std::optional<EventLoop::TimerId> noticeTimer_;
    bool dirty_ = true;
    bool updatePosted_ = false;
    bool armed_ = false;
    bool snapshotsScheduled_ = false;
    bool containerActionRunning_ = false;
    std::optional<PendingAction> lastPending_;
    std::vector<int> watched_;
    std::set<std::string> sizesAsked_;
};

}  // namespace wharfy::app::tui
