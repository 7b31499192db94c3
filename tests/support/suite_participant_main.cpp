// Runs one suite participant for any app over a given folder, for the tests
// that run several apps of the suite side by side.
//
//   arguments: --app ID --folder DIR [--surface] [--scale K --epoch T]
//     --surface  the app has somewhere to show the shared readout, so a
//                host-capable app competes for the host lock;
//     --scale K  the participant's clock runs K times as fast from the moment
//                T (seconds since 1970, the same for every process of a test)
//                and its delays are K times shorter: the suite's 10 s and 60 s
//                pass in a tenth of that with K = 10.
//   stdout: a JSON line at start and after each change of what the
//           participant shows: {"now", "isActive", "isHost", "rows": [{"app",
//           "state": "running" or "notRunning", "hosting"}]}.
//   stdin:  "quit", end of input, SIGTERM or SIGINT shut the participant down
//           (final stopped record, lock released) and exit 0.
//   stderr: the participant's log.
// It publishes level ok with one metric and a ttl of 30, once. The program
// dies with its parent.
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/loop/asio_event_loop.h"
#include "suite_ui/suite_participant.h"

namespace {

using namespace nemarro::suite;
using namespace nemarro::suite_ui;
using wharfy::app::AsioEventLoop;
using wharfy::app::EventLoop;

/// The real loop on a faster clock that stands still during each task, so
/// that a state line carries the very time its evaluation used.
class ScaledLoop final : public EventLoop {
  public:
    ScaledLoop(AsioEventLoop& inner, double scale, double epoch)
        : inner_(inner),
          clock_(std::make_shared<Clock>(Clock{&inner, scale, epoch, std::nullopt})),
          mailbox_(std::make_shared<TurnMailbox>(inner.mailbox(), clock_)) {}
    std::shared_ptr<Mailbox> mailbox() override { return mailbox_; }
    void post(Task task) override { inner_.post(turn(clock_, std::move(task))); }
    TimerId after(double seconds, Task task) override {
        return inner_.after(seconds / clock_->scale, turn(clock_, std::move(task)));
    }
    void cancel(TimerId timer) override { inner_.cancel(timer); }
    void background(Task work) override { inner_.background(std::move(work)); }
    void watch(int fd, Task ready) override { inner_.watch(fd, turn(clock_, std::move(ready))); }
    void unwatch(int fd) override { inner_.unwatch(fd); }
    double now() const override { return clock_->now(); }

  private:
    struct Clock {
        AsioEventLoop* inner;
        double scale;
        double epoch;
        std::optional<double> frozen;
        double now() const { return frozen ? *frozen : epoch + (inner->now() - epoch) * scale; }
    };
    static Task turn(std::shared_ptr<Clock> clock, Task task) {
        return [clock = std::move(clock), task = std::move(task)] {
            const auto outer = clock->frozen;
            clock->frozen = clock->now();
            task();
            clock->frozen = outer;
        };
    }
    class TurnMailbox final : public Mailbox {
      public:
        TurnMailbox(std::shared_ptr<Mailbox> inner, std::shared_ptr<Clock> clock)
            : inner_(std::move(inner)), clock_(std::move(clock)) {}
        void post(Task task) override { inner_->post(turn(clock_, std::move(task))); }

      private:
        std::shared_ptr<Mailbox> inner_;
        std::shared_ptr<Clock> clock_;
    };

    AsioEventLoop& inner_;
    std::shared_ptr<Clock> clock_;
    std::shared_ptr<TurnMailbox> mailbox_;
};

/// Shows nothing: the state lines tell whether it exists.
struct NoReadout final : SuiteHost {
    void show(const SuiteReadout&) override {}
};

void printState(const EventLoop& loop, const SuiteParticipant& participant) {
    nlohmann::json rows = nlohmann::json::array();
    for (const SuiteRow& row : participant.rows()) {
        if (const auto* running = std::get_if<RunningRow>(&row)) {
            rows.push_back({{"app", std::string(id(running->record.app))},
                            {"state", "running"},
                            {"hosting", running->record.hosting}});
        } else {
            rows.push_back({{"app", std::string(id(std::get<NotRunningRow>(row).app))},
                            {"state", "notRunning"}});
        }
    }
    const nlohmann::json line{{"now", loop.now()},
                              {"isActive", participant.isActive()},
                              {"isHost", participant.isHost()},
                              {"rows", rows}};
    std::printf("%s\n", line.dump().c_str());
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::map<std::string, std::string> options;
    bool surface = false;
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--surface")
            surface = true;
        else if (i + 1 < argc)
            options[name] = argv[++i];
    }
    const auto app = suiteAppFromId(options["--app"]);
    if (!app || options["--folder"].empty()) {
        std::fprintf(stderr, "usage: --app ID --folder DIR [--surface] [--scale K --epoch T]\n");
        return 2;
    }
    const double scale = options.count("--scale") ? std::atof(options["--scale"].c_str()) : 1;
    const double epoch = options.count("--epoch") ? std::atof(options["--epoch"].c_str()) : 0;

    AsioEventLoop asio;
    ScaledLoop loop(asio, scale > 0 ? scale : 1, epoch);
    const Log log = [](const std::string& message) {
        std::fprintf(stderr, "%s\n", message.c_str());
    };
    ParticipantParts parts;
    parts.app = *app;
    parts.folders = {SuiteFolder::at(options["--folder"])};
    if (surface) parts.host = [](SuiteParticipant&) { return std::make_unique<NoReadout>(); };
    parts.observesSystem = false;
    parts.log = log;
    parts.system = ParticipantSystem::live(loop, log);
    parts.system.openRequests = nullptr;
    SuiteParticipant participant(loop, std::move(parts));
    participant.changed = [&] { printState(loop, participant); };

    bool finished = false;
    const auto finish = [&] {
        if (finished) return;
        finished = true;
        loop.unwatch(STDIN_FILENO);
        participant.shutdown();
        asio.stop();
    };
    std::string input;
    loop.watch(STDIN_FILENO, [&] {
        char chunk[256];
        const ssize_t n = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (n <= 0) return finish();
        input.append(chunk, size_t(n));
        for (auto end = input.find('\n'); end != std::string::npos; end = input.find('\n')) {
            const std::string line = input.substr(0, end);
            input.erase(0, end + 1);
            if (line == "quit") return finish();
        }
    });
    asio.onEndingSignal([&](int) { finish(); });

    loop.post([&] {
        participant.publish(GlanceLevel::ok, {GlanceMetric{"n", "N", 1.0, "", GlanceLevel::ok}},
                            30);
        printState(loop, participant);
    });
    asio.run();
    return 0;
}
