#include "app/background.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "app/app_paths.h"
#include "app/diagnostics.h"
#include "app/live_parts.h"
#include "app/loop/asio_event_loop.h"
#include "app/model/app_model.h"
#include "app/primary_lock.h"
#include "system/private_files.h"

namespace wharfy::app {

namespace {

void logLine(const std::string& message) {
    std::fprintf(stderr, "wharfy: %s\n", message.c_str());
    std::fflush(stderr);
}

}  // namespace

int runBackground(const UserContext& user, const LaunchOptions& options,
                  const SuiteFolderChoice& suiteFolders) {
    AsioEventLoop loop;
    const AppPaths paths = AppPaths::live(user.home);
    std::shared_ptr<Diagnostics> diagnostics;
    std::unique_ptr<Watchdog> watchdog;
    if (options.diagnosticsPath) {
        diagnostics = std::make_shared<Diagnostics>();
        watchdog = std::make_unique<Watchdog>(loop, diagnostics);
    }

    AppModelParts parts = liveModelParts(user, paths, options, &logLine);
    parts.diagnostics = diagnostics;
    const auto settings = parts.settings;
    AppModel model(loop, std::move(parts));
    model.setLoadsSizesEachTick(true);
    std::unique_ptr<SuiteLink> suite;

    PrimaryLock lock(paths.primaryLock, &logLine);
    bool finished = false;
    auto finish = [&] {
        if (finished) return;
        finished = true;
        if (suite) suite->stop();
        model.stop();
        if (diagnostics && options.diagnosticsPath) {
            diagnostics->mark("quit");
            const auto text = diagnostics->json(ProcessCost::current()).dump(2) + "\n";
            if (auto written =
                    writePrivateFile(*options.diagnosticsPath, text, FolderPolicy::mustExist);
                !written)
                logLine(written.error().message());
        }
        lock.release();
        loop.stop();
    };
    loop.onEndingSignal([&](int) { finish(); });
    loop.onRefreshSignal([&] {
        if (lock.isHeld() && !finished) model.restartLoop();
    });
    if (options.quitAfter) loop.after(*options.quitAfter, finish);

    auto alive = std::make_shared<int>(0);
    auto mailbox = loop.mailbox();
    auto becomePrimary = [&] {
        if (finished) return;
        if (diagnostics) diagnostics->mark("primary");
        SuiteLinkParts link;
        link.folders = suiteFolders.folders;
        link.preferences = suitePreferences(suiteFolders, settings, paths);
        link.log = &logLine;
        link.diagnostics = diagnostics;
        link.system = SuiteLink::liveSystem(loop, &logLine);
        suite = std::make_unique<SuiteLink>(loop, model, std::move(link));
        suite->start();
        model.askForNotificationPermissionOnce();
        model.start();
    };
    lock.start([mailbox, weak = std::weak_ptr<int>(alive), &becomePrimary] {
        mailbox->post([weak, &becomePrimary] {
            if (weak.lock()) becomePrimary();
        });
    });
    // A lock taken at once needs no word; one still waited for after a
    // moment belongs to another instance.
    loop.after(0.5, [&] {
        if (!lock.isHeld() && !finished)
            logLine(
                "another Wharfy is already running in the background; this one waits "
                "and takes over when it ends.");
    });

    loop.run();
    alive.reset();
    // Reads still running (an engine up to its deadline) are not waited for:
    // they write nothing, and the lock is already free.
    if (!loop.shutdownWorkers(std::chrono::milliseconds(1000))) {
        std::fflush(nullptr);
        std::_Exit(0);
    }
    return 0;
}

}  // namespace wharfy::app
