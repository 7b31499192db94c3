// The participant's machine parts against the real thing: inotify on real
// folders, and open requests on a private session bus.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>

#include "app/loop/asio_event_loop.h"
#include "line_child.h"
#include "spawned_process.h"
#include "suite/glance_store.h"
#include "suite/suite_settings.h"
#include "suite_ui/folder_watch.h"
#include "suite_ui/open_requests.h"
#include "test_process.h"

namespace nemarro::suite_ui {
namespace {

using wharfy::app::AsioEventLoop;
using wharfy::testing::LineChild;
using wharfy::testing::SpawnedProcess;
using wharfy::testing::TempDir;

constexpr const char* kDbusDaemon = "/usr/bin/dbus-daemon";
constexpr const char* kDbusSend = "/usr/bin/dbus-send";

/// Runs the loop until `done` holds; false after `seconds`.
bool runUntil(AsioEventLoop& loop, const std::function<bool()>& done, double seconds = 10,
              const std::function<void()>& meanwhile = {}) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    bool reached = false;
    std::function<void()> check = [&] {
        if (done()) {
            reached = true;
            return loop.stop();
        }
        if (std::chrono::steady_clock::now() >= deadline) return loop.stop();
        if (meanwhile) meanwhile();
        loop.after(0.02, check);
    };
    loop.post(check);
    loop.run();
    return reached;
}

/// Lets the loop run for a moment, for what should not happen.
void settle(AsioEventLoop& loop) {
    runUntil(
        loop, [] { return false; }, 0.3);
}

TEST(InotifyWatch, WritesRenamesAndDeletionsReachTheLoop) {
    TempDir dir;
    const suite::SuiteFolder folder = suite::SuiteFolder::at(dir.path());
    ASSERT_TRUE(folder.prepare());
    AsioEventLoop loop;
    std::vector<std::string> logged;
    int changes = 0;
    auto watch = watchWithInotify(
        loop, {folder.path, folder.glancesPath(), dir.path() + "/missing"}, [&] { ++changes; },
        [&](const std::string& message) { logged.push_back(message); });
    ASSERT_TRUE(watch);
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_TRUE(logged[0].starts_with("suite folder not watched: " + dir.path() + "/missing: "));

    suite::GlanceRecord record;
    record.at = 1;
    const std::vector<std::pair<const char*, std::function<void()>>> steps{
        {"atomic write of a glance file",
         [&] { ASSERT_TRUE(suite::GlanceStore{folder}.write(record)); }},
        {"deletion", [&] { ::unlink((folder.glancesPath() + "/wharfy.json").c_str()); }},
        {"settings in the folder itself",
         [&] { ASSERT_TRUE(suite::SuiteSettings{}.write(folder)); }},
        {"a plain write", [&] { std::ofstream(folder.glancesPath() + "/kobble.json") << "{}"; }},
    };
    for (const auto& [what, step] : steps) {
        changes = 0;
        step();
        EXPECT_TRUE(runUntil(loop, [&] { return changes > 0; })) << what;
    }

    watch.reset();
    changes = 0;
    ASSERT_TRUE(suite::GlanceStore{folder}.write(record));
    settle(loop);
    EXPECT_EQ(changes, 0) << "nothing after the watch is gone";
    EXPECT_EQ(watchWithInotify(loop, {dir.path() + "/missing"}, [] {}, {}), nullptr);
}

TEST(DBusOpenRequests, WithoutASessionBusRequestsAreUnavailableAndToldOnce) {
    AsioEventLoop loop;
    std::vector<std::string> logged;
    auto requests = openRequestsOverDBus(
        loop, std::nullopt, suite::SuiteApp::wharfy, [] {},
        [&](const std::string& m) { logged.push_back(m); });
    requests->requestOpen(suite::SuiteApp::kobble);
    requests->requestOpen(suite::SuiteApp::kobble);
    EXPECT_EQ(logged, std::vector<std::string>{"suite open requests unavailable: no session bus"});
}

/// A session bus of the test's own, with nothing that starts on demand.
struct PrivateBus {
    TempDir dir;
    std::unique_ptr<SpawnedProcess> daemon;
    std::string address;

    bool start() {
        const std::string config = dir.path() + "/bus.conf";
        std::ofstream(config)
            << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration "
               "1.0//EN\"\n"
               " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
               "<busconfig><type>session</type><listen>unix:path="
            << dir.path()
            << "/bus</listen><auth>EXTERNAL</auth><policy context=\"default\">"
               "<allow send_destination=\"*\"/><allow receive_sender=\"*\"/><allow own=\"*\"/>"
               "</policy></busconfig>\n";
        daemon = SpawnedProcess::start(
            {kDbusDaemon, "--config-file=" + config, "--nofork", "--print-address"}, {},
            dir.path() + "/dbus.log");
        auto line = daemon ? daemon->readLine(10) : std::nullopt;
        if (!line || line->empty()) return false;
        address = *line;
        return true;
    }
};

TEST(DBusOpenRequests, ARequestReachesOnlyTheAppItNames) {
    if (::access(kDbusDaemon, X_OK) != 0 || ::access(kDbusSend, X_OK) != 0)
        GTEST_SKIP() << "dbus-daemon and dbus-send are needed (scripts/install-deps --test)";
    PrivateBus bus;
    ASSERT_TRUE(bus.start()) << wharfy::testing::readTextFile(bus.dir.path() + "/dbus.log");
    AsioEventLoop loop;
    std::vector<std::string> logged;
    const Log log = [&](const std::string& m) { logged.push_back(m); };
    int wharfyOpened = 0;
    int kobbleOpened = 0;
    auto wharfy = openRequestsOverDBus(
        loop, bus.address, suite::SuiteApp::wharfy, [&] { ++wharfyOpened; }, log);
    auto kobble = openRequestsOverDBus(
        loop, bus.address, suite::SuiteApp::kobble, [&] { ++kobbleOpened; }, log);
    // A sender of the test's own shows that the signal is the agreed one.
    const auto sendToKobble = [&] {
        auto sender = LineChild::start(
            kDbusSend, {"--bus=" + bus.address, "--type=signal", "/com/nemarro/suite",
                        "com.nemarro.suite.Open", "string:kobble"});
        if (sender) sender->wait(5);
    };
    // The listeners set up their matches in the background: a request sent
    // before is lost, so it is repeated, but only after a second of silence.
    const auto everySecond = [](std::function<void()> send) {
        return [send, last = std::chrono::steady_clock::time_point()]() mutable {
            if (std::chrono::steady_clock::now() - last < std::chrono::seconds(1)) return;
            last = std::chrono::steady_clock::now();
            send();
        };
    };
    ASSERT_TRUE(runUntil(
        loop, [&] { return kobbleOpened > 0; }, 10, everySecond(sendToKobble)))
        << (logged.empty() ? "nothing logged" : logged.front());
    ASSERT_TRUE(runUntil(
        loop, [&] { return wharfyOpened > 0; }, 10,
        everySecond([&] { kobble->requestOpen(suite::SuiteApp::wharfy); })));
    settle(loop);

    kobbleOpened = 0;
    wharfyOpened = 0;
    wharfy->requestOpen(suite::SuiteApp::tessik);
    kobble->requestOpen(suite::SuiteApp::wharfy);
    EXPECT_TRUE(runUntil(loop, [&] { return wharfyOpened > 0; }));
    settle(loop);
    EXPECT_EQ(kobbleOpened, 0) << "requests to wharfy and tessik do not reach kobble";
    EXPECT_TRUE(logged.empty()) << logged.front();

    bus.daemon.reset();
    EXPECT_TRUE(runUntil(loop, [&] { return logged.size() == 2; }))
        << "both listeners tell that the bus went away";
    for (const auto& message : logged)
        EXPECT_TRUE(message.starts_with("suite open requests stopped: ")) << message;
}

}  // namespace
}  // namespace nemarro::suite_ui
