// `wharfy --background` as a real process: history, the primary lock, a clean
// end, a second instance taking over, and a notification through a real
// notification server.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "notification_desktop.h"
#include "spawned_process.h"
#include "suite/glance_codec.h"
#include "test_process.h"

namespace wharfy {
namespace {

using namespace std::chrono_literals;
using testing::SpawnedProcess;
using testing::TempDir;
using testing::TestProcess;
namespace fs = std::filesystem;

/// A user's folders under one temporary folder.
struct UserFolders {
    TempDir dir;
    std::map<std::string, std::string> environment() const {
        return {{"HOME", dir.path()},
                {"XDG_STATE_HOME", dir.path() + "/state"},
                {"XDG_CONFIG_HOME", dir.path() + "/config"},
                {"XDG_RUNTIME_DIR", dir.path() + "/run"},
                {"TMPDIR", dir.path()},
                {"PATH", "/usr/bin:/bin"}};
    }
    /// The suite folder of the test's own, so that the user's real one is never touched.
    std::string suiteFolder() const { return dir.path() + "/suite"; }
    std::string lockPath() const { return dir.path() + "/run/wharfy/primary.lock"; }
    /// History lines written so far.
    size_t historyLines() const {
        size_t lines = 0;
        const fs::path folder = dir.path() + "/state/wharfy/history";
        std::error_code error;
        for (const auto& file : fs::directory_iterator(folder, error)) {
            std::ifstream in(file.path());
            for (std::string line; std::getline(in, line);)
                ++lines;
        }
        return lines;
    }
};

template <typename Pred>
bool within(std::chrono::milliseconds limit, Pred done) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

/// Whether another process holds the lock file.
bool lockedElsewhere(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    const bool busy = ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd);
    return busy;
}

std::unique_ptr<SpawnedProcess> startBackground(const UserFolders& user,
                                                const std::map<std::string, std::string>& env,
                                                const std::string& log) {
    return SpawnedProcess::start({WHARFY_EXE, "--background", "--suite-folder", user.suiteFolder()},
                                 env, log);
}

TEST(Background, RecordsHoldsThePrimaryLockAndEndsCleanlyOnSigterm) {
    UserFolders user;
    auto wharfy = startBackground(user, user.environment(), user.dir.path() + "/log");
    ASSERT_TRUE(wharfy);
    ASSERT_TRUE(within(20s, [&] { return user.historyLines() == 1; }))
        << "no history line after the first tick; log: "
        << testing::readTextFile(user.dir.path() + "/log");
    EXPECT_TRUE(lockedElsewhere(user.lockPath()));

    const auto asked = std::chrono::steady_clock::now();
    ::kill(wharfy->pid(), SIGTERM);
    const auto status = wharfy->waitExit(10);
    ASSERT_TRUE(status) << "still running 10 s after SIGTERM";
    EXPECT_EQ(*status, 0);
    EXPECT_LT(std::chrono::steady_clock::now() - asked, 5s);
    EXPECT_FALSE(lockedElsewhere(user.lockPath())) << "the lock outlived the process";
}

TEST(Background, ASecondInstanceWaitsAndTakesOverWhenTheFirstEnds) {
    UserFolders user;
    auto first = startBackground(user, user.environment(), user.dir.path() + "/first.log");
    ASSERT_TRUE(first);
    ASSERT_TRUE(within(20s, [&] { return user.historyLines() == 1; }));
    const std::string secondLog = user.dir.path() + "/second.log";
    auto second = startBackground(user, user.environment(), secondLog);
    ASSERT_TRUE(second);
    ASSERT_TRUE(within(10s, [&] {
        return testing::readTextFile(secondLog).find("another Wharfy is already running") !=
               std::string::npos;
    }));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(user.historyLines(), 1u) << "the waiting instance must not record";

    ::kill(first->pid(), SIGTERM);
    ASSERT_TRUE(first->waitExit(10));
    EXPECT_TRUE(within(20s, [&] { return user.historyLines() == 2; }))
        << "the second instance did not take over; log: " << testing::readTextFile(secondLog);
    EXPECT_TRUE(lockedElsewhere(user.lockPath()));
    const std::string said = testing::readTextFile(secondLog);
    EXPECT_EQ(said.find("another Wharfy"), said.rfind("another Wharfy")) << "said more than once";
}

TEST(Background, PublishesAValidSuiteRecordAndLeavesWithAStoppedOne) {
    UserFolders user;
    const std::string folder = user.dir.path() + "/suite";
    const std::string record = folder + "/glances/wharfy.json";
    auto env = user.environment();
    env["TMPDIR"] = user.dir.path();
    auto wharfy = SpawnedProcess::start({WHARFY_EXE, "--background", "--suite-folder", folder}, env,
                                        user.dir.path() + "/log");
    ASSERT_TRUE(wharfy);
    auto read = [&]() -> std::optional<nemarro::suite::GlanceRecord> {
        auto result =
            nemarro::suite::GlanceCodec::decode(testing::readTextFile(record), "wharfy.json");
        if (auto* valid = std::get_if<nemarro::suite::GlanceRecord>(&result)) return *valid;
        return std::nullopt;
    };
    ASSERT_TRUE(within(20s,
                       [&] {
                           auto r = read();
                           return r && r->state == nemarro::suite::GlanceState::running &&
                                  !r->metrics.empty();
                       }))
        << testing::readTextFile(record) << testing::readTextFile(user.dir.path() + "/log");
    EXPECT_EQ(read()->ttl, 30);
    EXPECT_FALSE(read()->hosting) << "the background has no surface to host on";

    ::kill(wharfy->pid(), SIGTERM);
    ASSERT_TRUE(wharfy->waitExit(10));
    auto last = read();
    ASSERT_TRUE(last) << testing::readTextFile(record);
    EXPECT_EQ(last->state, nemarro::suite::GlanceState::stopped);
    EXPECT_TRUE(last->metrics.empty());
}

TEST(Background, APublicListenerAfterTheFirstTickIsExactlyOneNotification) {
    std::string whyNot;
    auto bus = testing::PrivateBus::start(whyNot);
    if (!bus) GTEST_SKIP() << "no private session bus: " << whyNot;
    auto desktop = testing::DunstDesktop::start(*bus, whyNot);
    if (!desktop) GTEST_SKIP() << "no notification server: " << whyNot;

    UserFolders user;
    auto env = bus->environment();
    for (const auto& [key, value] : user.environment())
        if (key != "XDG_RUNTIME_DIR" && key != "XDG_CONFIG_HOME") env[key] = value;
    const std::string log = user.dir.path() + "/log";
    auto wharfy = startBackground(user, env, log);
    ASSERT_TRUE(wharfy);
    ASSERT_TRUE(within(20s, [&] { return user.historyLines() == 1; }))
        << testing::readTextFile(log);

    auto listener = TestProcess::start({"--listen", "0.0.0.0:0"});
    ASSERT_TRUE(listener);
    const std::string body = "wharfy_test_process is now listening on port " +
                             std::to_string(listener->ports()[0]) +
                             ", reachable from every network.";
    auto mine = [&] {
        size_t count = 0;
        for (const auto& n : desktop->received().value_or(std::vector<nlohmann::json>{}))
            count += n.dump().find(std::to_string(listener->ports()[0])) != std::string::npos;
        return count;
    };
    ::kill(wharfy->pid(), SIGUSR1);  // refresh now rather than in a minute
    ASSERT_TRUE(within(20s, [&] { return mine() == 1; })) << testing::readTextFile(log);
    ::kill(wharfy->pid(), SIGUSR1);
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(mine(), 1u) << "the same listener alerted twice";
    const auto received = desktop->received();
    ASSERT_TRUE(received);
    const nlohmann::json* alert = nullptr;
    for (const auto& n : *received)
        if (n.dump().find(body) != std::string::npos) alert = &n;
    ASSERT_TRUE(alert) << "no notification with the body: " << body;
    EXPECT_NE(alert->dump().find("A new listener on all networks"), std::string::npos) << *alert;
    EXPECT_NE(alert->dump().find("\"Wharfy\""), std::string::npos) << *alert;
}

}  // namespace
}  // namespace wharfy
