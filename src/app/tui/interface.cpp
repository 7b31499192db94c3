#include "app/tui/interface.h"

#include <algorithm>
#include <cmath>

#include "app/export_command.h"
#include "app/terminal_text.h"
#include "core/ports/port_scanner.h"
#include "system/private_files.h"

namespace wharfy::app::tui {
namespace {

constexpr double kNoticeSeconds = 10;

ExportSnapshot snapshotOf(const AppModel& model, double now) {
    std::vector<RuntimeReport> runtimes;
    for (const auto& r : model.runtimes())
        runtimes.push_back({r.info, r.containers, r.sizes, r.diskFiles, r.error, std::nullopt});
    AgentsReport agents;
    agents.sessions = model.sessions();
    agents.statuses = model.statuses();
    return exportSnapshot(now, model.ports(), runtimes, agents);
}

}  // namespace

Interface::Interface(EventLoop& loop, AppModel& model, Terminal* terminal, Settings settings,
                     const SuiteStripSource* suite, std::function<void()> quit,
                     std::function<void(const std::string&)> log)
    : loop_(loop),
      model_(model),
      terminal_(terminal),
      settings_(std::move(settings)),
      suite_(suite),
      quit_(std::move(quit)),
      log_(std::move(log)) {
    if (settings_.options.openSettings)
        state_.tab = ViewTab::settings;
    else if (settings_.options.openTab)
        state_.tab = static_cast<ViewTab>(*settings_.options.openTab);
}

Interface::~Interface() {
    model_.changed = nullptr;
    model_.firstRuntimesRead = nullptr;
    if (noticeTimer_) loop_.cancel(*noticeTimer_);
    for (int fd : watched_)
        loop_.unwatch(fd);
}

void Interface::start() {
    model_.changed = [this] { modelChanged(); };
    model_.firstRuntimesRead = [this] { scheduleSnapshots(); };
    if (terminal_) watched_ = terminal_->descriptors();
    for (int fd : watched_)
        loop_.watch(fd, [this] { readInput(); });
    update();
}

void Interface::refreshSoon() {
    modelChanged();
}

void Interface::modelChanged() {
    dirty_ = true;
    if (updatePosted_) return;
    updatePosted_ = true;
    // Many changes of one tick become one redraw.
    loop_.post([this, alive = std::weak_ptr<int>(alive_)] {
        if (!alive.lock()) return;
        updatePosted_ = false;
        update();
    });
}

void Interface::update() {
    if (dirty_) {
        dirty_ = false;
        ViewData next = ViewData::from(model_);
        next.color = settings_.color;
        next.clock = settings_.clock;
        if (suite_) next.suite = suite_->strip();
        if (ownNotice_ && (!next.notice || next.notice->at <= ownNotice_->at))
            next.notice = ownNotice_;
        for (ViewTab tab : {ViewTab::ports, ViewTab::containers, ViewTab::agents}) {
            const auto before = listIds(data_, tab);
            const auto after = listIds(next, tab);
            if (state_.selected[slot(tab)].empty() && !after.empty())
                state_.selected[slot(tab)] = after.front();
            if (before == after) continue;
            const std::string selected = state_.selected[slot(tab)];
            state_ = keepSelection(state_, tab, before, after, itemLabel(data_, tab, selected));
            // A row the search hides is not gone.
            if (tab == ViewTab::ports &&
                std::any_of(model_.ports().begin(), model_.ports().end(),
                            [&](const PortRow& r) { return r.id() == selected; }))
                state_.gone.reset();
        }
        if (next.pending != lastPending_) {
            // A new confirmation always starts on Cancel.
            state_.focusOnConfirm = false;
            lastPending_ = next.pending;
        }
        if (containerActionRunning_ && !next.isWorking) {
            containerActionRunning_ = false;
            if (next.lastContainerReport) state_.overlay = Overlay::report;
        }
        data_ = std::move(next);
        loadSizesOfNewRuntimes();
        watchNotice();
        armConfirmation();
    }
    draw();
}

void Interface::loadSizesOfNewRuntimes() {
    // Runtimes are found after the tab may have opened: each one found while
    // the tab shows gets its disk figures read once.
    if (state_.tab != ViewTab::containers) {
        sizesAsked_.clear();
        return;
    }
    bool ask = false;
    for (const auto& r : data_.runtimes)
        if (r.info.isMeasurable() && sizesAsked_.insert(r.info.id()).second) ask = true;
    if (ask) model_.loadSizes(false);
}

void Interface::draw() {
    if (!terminal_) return;
    Rendered rendered = renderWindow(data_, state_, terminal_->cols(), terminal_->rows());
    state_.top[slot(state_.tab)] = rendered.top;
    geometry_ = rendered.geometry;
    terminal_->draw(rendered.screen);
}

Screen Interface::screenAt(int cols, int rows) const {
    return renderWindow(data_, state_, cols, rows).screen;
}

std::pair<int, int> Interface::snapshotSize() const {
    if (settings_.snapshotSize) return *settings_.snapshotSize;
    if (terminal_) return {terminal_->cols(), terminal_->rows()};
    return {120, 40};
}

void Interface::watchNotice() {
    if (data_.notice == shownNotice_) return;
    shownNotice_ = data_.notice;
    if (noticeTimer_) loop_.cancel(*noticeTimer_);
    noticeTimer_.reset();
    if (!shownNotice_) return;
    const double left = std::max(0.0, shownNotice_->at + kNoticeSeconds - loop_.now());
    noticeTimer_ = loop_.after(left, [this, notice = *shownNotice_] {
        noticeTimer_.reset();
        if (model_.notice() == notice) model_.clearNotice();
        if (ownNotice_ == notice) ownNotice_.reset();
        modelChanged();
    });
}

void Interface::showNotice(std::string text, bool isError) {
    ownNotice_ = Notice{std::move(text), isError, loop_.now()};
    modelChanged();
}

void Interface::armConfirmation() {
    const auto port = settings_.options.confirmStopPort;
    if (armed_ || !port || !data_.lastRefresh) return;
    armed_ = true;
    const auto rows = PortScanner::rows(*port, model_.ports());
    if (rows.empty()) {
        showNotice("Nothing listens on port " + std::to_string(*port) + ".", true);
        return;
    }
    auto row =
        std::find_if(rows.begin(), rows.end(), [](const PortRow& r) { return r.isOwnedByUser; });
    if (row == rows.end()) row = rows.begin();
    state_.tab = ViewTab::ports;
    state_.selected[slot(ViewTab::ports)] = row->id();
    model_.setTab(Tab::ports);
    model_.requestStop(*row);
}

KeyContext Interface::keyContext() const {
    KeyContext context;
    context.ids = listIds(data_, state_.tab);
    context.confirming = data_.pending.has_value();
    if (const RuntimeState* runtime = runtimeOf(data_, state_.selected[slot(ViewTab::containers)]))
        context.menuSize = static_cast<int>(cleanupMenu(*runtime).entries.size());
    if (state_.tab == ViewTab::history)
        context.historyLines = historyLineCount(data_, state_.historySearch);
    if (settings_.fileStamp)
        context.exportDefault = "~/wharfy-" + settings_.fileStamp(loop_.now()) + ".md";
    for (int row = 0; row < kSettingRows; ++row)
        context.settingTexts[static_cast<size_t>(row)] = settingText(data_, row);
    context.geometry = geometry_;
    return context;
}

void Interface::readInput() {
    if (!terminal_) return;
    for (const Key& key : terminal_->read())
        handle(key);
}

void Interface::handle(const Key& key) {
    if (dirty_) update();
    const KeyStep step = handleKey(state_, key, keyContext());
    const bool isPress = key.kind != Key::Kind::focusIn && key.kind != Key::Kind::focusOut &&
                         key.kind != Key::Kind::resize;
    // A notice stays until the next key press.
    if (isPress && (data_.notice || ownNotice_)) {
        ownNotice_.reset();
        model_.clearNotice();
        dirty_ = true;
    }
    state_ = step.state;
    perform(step.action);
    update();
}

void Interface::perform(const Action& action) {
    using A = Action::Kind;
    switch (action.kind) {
        case A::none:
        case A::dismiss:
        case A::redraw:
            return;
        case A::quit:
            if (quit_) quit_();
            return;
        case A::focusGained:
            model_.setVisible(true);
            return;
        case A::focusLost:
            model_.setVisible(false);
            return;
        case A::showTab:
            if (action.index < 4) model_.setTab(static_cast<Tab>(action.index));
            if (static_cast<ViewTab>(action.index) == ViewTab::containers) {
                sizesAsked_.clear();
                dirty_ = true;
            }
            return;
        case A::setPortSearch:
            model_.setPortSearch(action.text);
            return;
        case A::openCleanup:
            model_.loadSizes(false);
            return;
        case A::chooseCleanup: {
            const RuntimeState* runtime =
                runtimeOf(data_, state_.selected[slot(ViewTab::containers)]);
            if (!runtime) return;
            // The entries as drawn: the action names exactly the ids shown.
            const CleanupMenu menu = cleanupMenu(*runtime);
            if (action.index < 0 || action.index >= static_cast<int>(menu.entries.size())) return;
            model_.requestContainerAction(runtime->info,
                                          menu.entries[static_cast<size_t>(action.index)].action);
            return;
        }
        case A::stop: {
            if (state_.tab == ViewTab::ports) {
                for (const auto& row : data_.ports)
                    if (row.id() == action.text) return model_.requestStop(row);
            } else if (state_.tab == ViewTab::agents) {
                for (const auto& s : data_.sessions)
                    if (s.id() == action.text) return model_.requestStop(s);
            } else if (state_.tab == ViewTab::containers) {
                const RuntimeState* runtime = runtimeOf(data_, action.text);
                auto container = containerOf(data_, action.text);
                if (!runtime || !container)
                    return showNotice("Select a container to stop it, or press c to clean up.",
                                      false);
                if (!container->isRunning())
                    return showNotice("That container is not running.", false);
                model_.requestContainerAction(runtime->info,
                                              {ContainerAction::StopContainer{container->id}});
            }
            return;
        }
        case A::confirm:
            containerActionRunning_ =
                data_.pending && data_.pending->as<PendingAction::Container>() != nullptr;
            model_.confirm();
            return;
        case A::cancel:
            model_.cancelPending();
            return;
        case A::exportTo:
            exportTo(action.text);
            return;
        case A::toggleSetting: {
            AlertSettings s = model_.alertSettings();
            if (action.index == runawayAlert) s.runawaySession = !s.runawaySession;
            if (action.index == storageAlert) s.containerStorage = !s.containerStorage;
            if (action.index == publicListenerAlert) s.publicListener = !s.publicListener;
            model_.setAlertSettings(s);
            return;
        }
        case A::adjustSetting:
            applySetting(action.index, std::nullopt, action.step);
            return;
        case A::setSetting:
            applySetting(action.index, parseSeconds(action.text), 0);
            return;
    }
}

void Interface::applySetting(int row, std::optional<double> value, int step) {
    constexpr double kMaxGiB = 1024 * 1024;
    if (row == memoryThreshold) {
        double gib = value.value_or(model_.memoryThresholdGB() + 0.5 * step);
        if (!(gib > 0 && gib <= kMaxGiB))
            return showNotice("The memory threshold is a number of GiB above 0.", true);
        if (!value) gib = std::max(0.5, std::round(gib * 2) / 2);
        model_.setMemoryThresholdGB(gib);
    } else if (row == storageThreshold) {
        const double current =
            static_cast<double>(model_.alertSettings().storageThresholdBytes) / 1e9;
        double gb = value.value_or(std::round(current) + step);
        if (!(gb >= 1 && gb <= 1e6))
            return showNotice("The storage threshold is a number of GB, 1 or more.", true);
        AlertSettings s = model_.alertSettings();
        s.storageThresholdBytes = static_cast<uint64_t>(std::llround(gb * 1e9));
        model_.setAlertSettings(s);
    }
}

std::string Interface::expandHome(const std::string& path) const {
    if (path == "~") return settings_.home;
    if (path.starts_with("~/")) return settings_.home + path.substr(1);
    return path;
}

void Interface::exportTo(std::string typed) {
    while (!typed.empty() && typed.back() == ' ')
        typed.pop_back();
    if (typed.empty()) return showNotice("No file name: nothing was exported.", true);
    const std::string path = expandHome(typed);
    const ExportSnapshot snapshot = snapshotOf(model_, loop_.now());
    runInBackground(
        loop_, alive_,
        [path, snapshot] {
            const ExportRenderer renderer(&localeDateText);
            const std::string bytes = exportFormat(path) == ExportFormat::json
                                          ? renderer.json(snapshot)
                                          : renderer.markdown(snapshot) + "\n";
            return writePrivateFile(path, bytes, FolderPolicy::mustExist);
        },
        [this, path](Result<Ok, FileError> written) {
            if (written)
                showNotice("Exported to " + path + ".", false);
            else
                showNotice(exportFailure(written.error()), true);
        });
}

void Interface::scheduleSnapshots() {
    const auto& o = settings_.options;
    if (snapshotsScheduled_ || (!o.snapshotPath && !o.popoverSnapshotPath && !o.suiteSnapshotPath))
        return;
    snapshotsScheduled_ = true;
    loop_.after(std::max(0.0, o.snapshotDelay.value_or(0)),
                [this, alive = std::weak_ptr<int>(alive_)] {
                    if (alive.lock()) writeSnapshots();
                });
}

void Interface::writeSnapshots() {
    if (dirty_) update();
    const auto& o = settings_.options;
    std::vector<std::pair<std::string, std::string>> files;
    if (o.snapshotPath) {
        const auto [cols, rows] = snapshotSize();
        files.emplace_back(*o.snapshotPath, screenAt(cols, rows).text());
    }
    if (o.popoverSnapshotPath)
        files.emplace_back(*o.popoverSnapshotPath, renderPopover(data_).text());
    if (o.suiteSnapshotPath)
        files.emplace_back(*o.suiteSnapshotPath, renderSuitePopover(data_.suite).text());
    runInBackground(
        loop_, alive_,
        [files] {
            std::vector<std::string> failures;
            for (const auto& [path, text] : files)
                if (auto written = writePrivateFile(path, text, FolderPolicy::mustExist); !written)
                    failures.push_back(written.error().message());
            return failures;
        },
        [this](std::vector<std::string> failures) {
            for (const auto& f : failures) {
                if (log_) log_("snapshot not written: " + f);
                showNotice(f, true);
            }
            if (settings_.options.quitAfterSnapshot && quit_) quit_();
        });
}

}  // namespace wharfy::app::tui
