#include "app/tui/run_interface.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "app/app_paths.h"
#include "app/command_line.h"
#include "app/diagnostics.h"
#include "app/launch_options.h"
#include "app/live_parts.h"
#include "app/loop/asio_event_loop.h"
#include "app/model/app_model.h"
#include "app/primary_lock.h"
#include "app/suite_link.h"
#include "app/tui/interface.h"
#include "app/tui/ncurses_terminal.h"
#include "system/private_files.h"

namespace wharfy::app::tui {
namespace {

constexpr off_t kLogLimit = 4 * 1024 * 1024;

std::tm localParts(double time) {
    const auto seconds = static_cast<std::time_t>(time);
    std::tm tm{};
    ::localtime_r(&seconds, &tm);
    return tm;
}

std::string clockText(double time) {
    const std::tm tm = localParts(time);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%02d:%02d:%02d", tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buf;
}

std::string dateText(double time) {
    const std::tm tm = localParts(time);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
    return buf;
}

std::string fileStamp(double time) {
    const std::tm tm = localParts(time);
    char buf[16];
    std::snprintf(buf, sizeof buf, "-%02d%02d", tm.tm_hour, tm.tm_min);
    return dateText(time) + buf;
}

/// Appends one line to the log file; never to the terminal the interface
/// draws on. Safe from any thread: each line is one append.
std::function<void(const std::string&)> fileLog(const AppPaths& paths) {
    return [file = paths.logFile, folder = paths.stateFolder](const std::string& message) {
        if (!makePrivateFolder(folder)) return;
        const int fd =
            ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd < 0) return;
        struct stat st {};
        if (::fstat(fd, &st) == 0 && st.st_size < kLogLimit) {
            const double now =
                std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
                    .count();
            const std::string line =
                dateText(now) + " " + clockText(now) + " " + "interface: " + message + "\n";
            [[maybe_unused]] const ssize_t n = ::write(fd, line.data(), line.size());
        }
        ::close(fd);
    };
}

std::optional<std::string> environment(const char* name) {
    if (const char* value = std::getenv(name)) return std::string(value);
    return std::nullopt;
}

}  // namespace

TerminalFacts TerminalFacts::current() {
    return {::isatty(STDIN_FILENO) == 1, ::isatty(STDOUT_FILENO) == 1, environment("TERM")};
}

StartMode startMode(const std::vector<std::string>& arguments, const TerminalFacts& facts) {
    const bool snapshots = hasOption("--snapshot", arguments) ||
                           hasOption("--snapshot-popover", arguments) ||
                           hasOption("--snapshot-suite-popover", arguments);
    const bool terminal = facts.stdinIsTerminal && facts.stdoutIsTerminal && facts.term &&
                          !facts.term->empty() && *facts.term != "dumb";
    if (terminal && !hasOption("--once", arguments)) return StartMode::interface;
    return snapshots ? StartMode::snapshots : StartMode::report;
}

std::optional<std::pair<int, int>> parseSnapshotSize(std::string_view text) {
    const auto x = text.find('x');
    if (x == std::string_view::npos) return std::nullopt;
    auto number = [](std::string_view digits) -> std::optional<int> {
        if (digits.empty() || digits.size() > 4) return std::nullopt;
        int value = 0;
        for (char c : digits) {
            if (c < '0' || c > '9') return std::nullopt;
            value = value * 10 + (c - '0');
        }
        if (value < 20 || value > 1000) return std::nullopt;
        return value;
    };
    auto cols = number(text.substr(0, x));
    auto rows = number(text.substr(x + 1));
    if (!cols || !rows) return std::nullopt;
    return std::pair{*cols, *rows};
}

/// The suite's shared readout while this process hosts it: the latest the
/// participant showed, read by the header's strip.
class StripHost final : public SuiteStripSource {
  public:
    explicit StripHost(Interface*& ui) : ui_(ui) {}
    std::optional<SuiteStrip> strip() const override { return strip_; }

    nemarro::suite_ui::SuiteHostFactory factory() {
        return
            [this](nemarro::suite_ui::SuiteParticipant&) { return std::make_unique<Shown>(*this); };
    }

  private:
    class Shown final : public nemarro::suite_ui::SuiteHost {
      public:
        explicit Shown(StripHost& owner) : owner_(owner) {}
        ~Shown() override { owner_.set(std::nullopt); }
        void show(const nemarro::suite_ui::SuiteReadout& readout) override {
            owner_.set(SuiteStrip{readout.rows, readout.worstLevel, readout.menuBarValues});
        }

      private:
        StripHost& owner_;
    };
    void set(std::optional<SuiteStrip> strip) {
        strip_ = std::move(strip);
        if (ui_) ui_->refreshSoon();
    }

    Interface*& ui_;
    std::optional<SuiteStrip> strip_;
};

int runInterface(const std::vector<std::string>& arguments, const UserContext& user, StartMode mode,
                 const SuiteFolderChoice& suiteFolders) {
    const AppPaths paths = AppPaths::live(user.home);
    auto log = fileLog(paths);
    const LaunchOptions options(arguments);

    AsioEventLoop loop(log);
    auto alive = std::make_shared<int>(0);
    AppModelParts parts = liveModelParts(user, paths, options, log);
    std::shared_ptr<Diagnostics> diagnostics;
    std::unique_ptr<Watchdog> watchdog;
    if (options.diagnosticsPath) {
        diagnostics = std::make_shared<Diagnostics>();
        parts.diagnostics = diagnostics;
        watchdog = std::make_unique<Watchdog>(loop, diagnostics);
    }
    parts.quit = [&loop] { loop.stop(); };
    const auto appSettings = parts.settings;
    AppModel model(loop, std::move(parts));
    Interface* shownOn = nullptr;
    StripHost strip(shownOn);
    std::unique_ptr<SuiteLink> suite;
    model.setPrimary(false);

    std::unique_ptr<NcursesTerminal> terminal;
    const bool color = !environment("NO_COLOR").has_value();
    if (mode == StartMode::interface) {
        std::string error;
        terminal = NcursesTerminal::open(color, error);
        if (!terminal) {
            std::fprintf(stderr, "wharfy: cannot open the interface (%s); try --once.\n",
                         error.c_str());
            return 1;
        }
    }

    Interface::Settings settings;
    settings.options = options;
    if (auto size = valueAfter("--snapshot-size", arguments)) {
        settings.snapshotSize = parseSnapshotSize(*size);
        if (!settings.snapshotSize) log("--snapshot-size wants COLSxROWS, such as 120x40");
    }
    settings.color = color;
    settings.home = user.home;
    settings.clock = clockText;
    settings.fileStamp = fileStamp;
    auto ui = std::make_unique<Interface>(
        loop, model, terminal.get(), settings, &strip, [&loop] { loop.stop(); }, log);
    shownOn = ui.get();

    // The primary instance records, notifies and takes part in the suite,
    // where the interface is a surface that may host the shared readout.
    auto becomePrimary = [&] {
        model.setPrimary(true);
        SuiteLinkParts link;
        link.folders = suiteFolders.folders;
        link.preferences = suitePreferences(suiteFolders, appSettings, paths);
        link.host = strip.factory();
        link.log = log;
        link.diagnostics = diagnostics;
        link.system = SuiteLink::liveSystem(loop, log);
        suite = std::make_unique<SuiteLink>(loop, model, std::move(link));
        suite->start();
        ui->refreshSoon();
    };
    PrimaryLock lock(paths.primaryLock, log);
    lock.start([mailbox = loop.mailbox(), weak = std::weak_ptr<int>(alive), &becomePrimary] {
        mailbox->post([weak, &becomePrimary] {
            if (weak.lock()) becomePrimary();
        });
    });

    loop.onEndingSignal([&loop](int) { loop.stop(); });
    ui->start();
    model.start();
    if (terminal) model.setVisible(true);
    loop.run();

    alive.reset();
    if (suite) suite->stop();
    model.stop();
    suite.reset();
    shownOn = nullptr;
    ui.reset();
    terminal.reset();
    lock.release();
    watchdog.reset();
    if (diagnostics && options.diagnosticsPath) {
        const std::string text = diagnostics->json(ProcessCost::current()).dump(2) + "\n";
        if (auto written =
                writePrivateFile(*options.diagnosticsPath, text, FolderPolicy::mustExist);
            !written)
            std::fprintf(stderr, "wharfy: %s\n", written.error().message().c_str());
    }
    loop.shutdownWorkers(std::chrono::milliseconds(2000));
    return 0;
}

}  // namespace wharfy::app::tui
