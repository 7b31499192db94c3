#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

#include "fake_lock_files.h"
#include "host_lock_probe.h"
#include "suite/host_lock.h"

using namespace nemarro::suite;
using wharfy::testing::FakeLockFiles;
using Probe = wharfy::testing::HostLockProbe;

namespace {

constexpr HostLock::Options kQuick{0.001};

TEST(HostLock, TakesPathsTidiedUniqueAndSorted) {
    EXPECT_EQ(HostLock::standardized({"/s/b/host.lock", "/s/a/host.lock", "/s/a//host.lock",
                                      "/s/a/./host.lock", "/s/c/../a/host.lock"}),
              (std::vector<std::string>{"/s/a/host.lock", "/s/b/host.lock"}));
}

TEST(HostLock, RetriesAndLogsEachProblemOncePerWait) {
    auto files = std::make_shared<FakeLockFiles>();
    files->openErrors = {ENOENT, EACCES, 0, 0, 0, 0};
    files->lockResults = {ENOLCK, EINTR, EINTR, ENOLCK, 0, 0, 0};
    files->named = {false, true};
    Probe probe;
    {
        HostLock lock({"/s/b/host.lock", "/s/a/host.lock"}, files, probe.log(), kQuick);
        lock.start(probe.onAcquire());
        ASSERT_TRUE(probe.waitAcquired());
        EXPECT_TRUE(lock.isHeld());
        EXPECT_EQ(files->calls(), (std::vector<std::string>{
                                      "open /s/a/host.lock failed",
                                      "open /s/a/host.lock failed",
                                      "open /s/a/host.lock 3",
                                      "lock 3",  // ENOLCK
                                      "close 3",
                                      "open /s/a/host.lock 4",
                                      "lock 4",  // EINTR: repeated at once
                                      "lock 4",  // EINTR
                                      "lock 4",  // ENOLCK
                                      "close 4",
                                      "open /s/a/host.lock 5",
                                      "lock 5",
                                      "named 5 stale",  // replaced meanwhile
                                      "close 5",
                                      "open /s/a/host.lock 6",
                                      "lock 6",
                                      "named 6",
                                      "open /s/b/host.lock 7",
                                      "lock 7",
                                      "named 7",
                                  }));
        EXPECT_EQ(
            probe.messages(),
            (std::vector<std::string>{"cannot open /s/a/host.lock: errno 2; retrying every 5 s",
                                      "cannot lock /s/a/host.lock: errno 37; retrying every 5 s"}));
        EXPECT_EQ(files->openDescriptors(), (std::set<int>{6, 7}));
        lock.release();
        EXPECT_FALSE(lock.isHeld());
        EXPECT_TRUE(files->openDescriptors().empty());
    }
    EXPECT_TRUE(probe.waitThreadEnded());
    EXPECT_EQ(probe.acquired(), 1);
}

TEST(HostLock, EachWaitLogsItsOwnProblems) {
    auto files = std::make_shared<FakeLockFiles>();
    files->openErrors = {EACCES, 0, EACCES, 0};
    Probe probe;
    HostLock lock({"/s/a/host.lock", "/s/b/host.lock"}, files, probe.log(), kQuick);
    lock.start(probe.onAcquire());
    ASSERT_TRUE(probe.waitAcquired());
    EXPECT_EQ(probe.messages(), (std::vector<std::string>{
                                    "cannot open /s/a/host.lock: errno 13; retrying every 5 s",
                                    "cannot open /s/b/host.lock: errno 13; retrying every 5 s"}));
    EXPECT_TRUE(probe.waitThreadEnded());
}

TEST(HostLock, ReleaseEndsARetryPauseAtOnce) {
    auto files = std::make_shared<FakeLockFiles>();
    files->openErrors = {EACCES};
    Probe probe;
    HostLock lock({"/s/host.lock"}, files, probe.log(), HostLock::Options{3600});
    lock.start(probe.onAcquire());
    ASSERT_TRUE(files->waitForCall("open /s/host.lock failed"));
    lock.release();
    EXPECT_TRUE(probe.waitThreadEnded()) << "still pausing after release";
    EXPECT_EQ(probe.acquired(), 0);
    EXPECT_EQ(files->calls().size(), 1u);
}

TEST(HostLock, ReleaseWhileBlockedClosesWhatIsAcquiredLater) {
    struct Row {
        const char* name;
        std::vector<std::string> paths;
        int blockedFd;
        std::vector<std::string> closes;
    };
    // With two files, the first is held when the release comes: the release
    // closes it, the thread closes the second once it gets it.
    const std::vector<Row> rows = {
        {"one file", {"/s/host.lock"}, 3, {"close 3"}},
        {"second of two files", {"/s/a/host.lock", "/s/b/host.lock"}, 4, {"close 3", "close 4"}},
    };
    for (const Row& row : rows) {
        auto files = std::make_shared<FakeLockFiles>();
        files->block(row.blockedFd);
        Probe probe;
        HostLock lock(row.paths, files, probe.log(), kQuick);
        lock.start(probe.onAcquire());
        ASSERT_TRUE(files->waitForCall("lock " + std::to_string(row.blockedFd))) << row.name;
        lock.release();
        files->unblock();
        ASSERT_TRUE(probe.waitThreadEnded()) << row.name;
        EXPECT_EQ(probe.acquired(), 0) << row.name;
        EXPECT_FALSE(lock.isHeld()) << row.name;
        EXPECT_TRUE(files->openDescriptors().empty()) << row.name;
        std::vector<std::string> closes;
        for (const auto& call : files->calls())
            if (call.rfind("close", 0) == 0) closes.push_back(call);
        EXPECT_EQ(closes, row.closes) << row.name;
    }
}

TEST(HostLock, StartsOnceAndNeverWithoutPaths) {
    auto files = std::make_shared<FakeLockFiles>();
    Probe probe;
    Probe second;
    HostLock lock({"/s/host.lock"}, files, probe.log(), kQuick);
    lock.start(probe.onAcquire());
    ASSERT_TRUE(probe.waitAcquired());
    lock.start(second.onAcquire());
    lock.release();
    EXPECT_TRUE(probe.waitThreadEnded());
    EXPECT_TRUE(second.waitThreadEnded());
    EXPECT_EQ(second.acquired(), 0);
    EXPECT_EQ(files->calls().front(), "open /s/host.lock 3");
    EXPECT_EQ(files->calls().size(), 4u);  // open, lock, named, close

    auto none = std::make_shared<FakeLockFiles>();
    HostLock empty({}, none, probe.log(), kQuick);
    Probe third;
    empty.start(third.onAcquire());
    EXPECT_TRUE(third.waitThreadEnded());
    EXPECT_FALSE(empty.isHeld());
    EXPECT_TRUE(none->calls().empty());
}

TEST(HostLock, ReleaseBeforeStartNeverTouchesAFile) {
    auto files = std::make_shared<FakeLockFiles>();
    Probe probe;
    HostLock lock({"/s/host.lock"}, files, probe.log(), kQuick);
    lock.release();
    lock.start(probe.onAcquire());
    EXPECT_TRUE(probe.waitThreadEnded());
    EXPECT_EQ(probe.acquired(), 0);
    EXPECT_TRUE(files->calls().empty());
}

}  // namespace
