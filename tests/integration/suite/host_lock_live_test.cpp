#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "fake_lock_files.h"
#include "host_lock_probe.h"
#include "line_child.h"
#include "suite/host_lock.h"
#include "test_process.h"

using namespace nemarro::suite;
using Probe = wharfy::testing::HostLockProbe;
using wharfy::testing::FakeLockFiles;
using wharfy::testing::LineChild;
using wharfy::testing::TempDir;

namespace {

/// A descriptor of `path` (created if needed) holding its lock, as another host would.
int holdLock(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

/// Whether some open file description other than ours holds the lock of `path`.
bool isLocked(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool locked = ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd);
    return locked;
}

constexpr HostLock::Options kQuick{0.01};

TEST(HostLockLive, ReleasedBeforeAcquiringClosesTheLateLock) {
    TempDir tmp;
    const std::string path = tmp.path() + "/host.lock";
    int other = holdLock(path);
    ASSERT_GE(other, 0);
    auto files = std::make_shared<FakeLockFiles>(liveLockFiles());
    Probe probe;
    HostLock lock({path}, files, probe.log(), kQuick);
    lock.start(probe.onAcquire());
    ASSERT_TRUE(files->waitForCall("lock "));
    lock.release();
    ::close(other);
    ASSERT_TRUE(probe.waitThreadEnded());
    EXPECT_EQ(probe.acquired(), 0);
    EXPECT_FALSE(lock.isHeld());
    EXPECT_FALSE(isLocked(path)) << "the late lock was closed at once";
}

TEST(HostLockLive, ALockFileReplacedDuringTheWaitIsLockedAnew) {
    TempDir tmp;
    const std::string path = tmp.path() + "/host.lock";
    int other = holdLock(path);
    ASSERT_GE(other, 0);
    int oldFile = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    auto files = std::make_shared<FakeLockFiles>(liveLockFiles());
    Probe probe;
    HostLock lock({path}, files, probe.log(), kQuick);
    lock.start(probe.onAcquire());
    ASSERT_TRUE(files->waitForCall("lock "));
    ASSERT_EQ(::unlink(path.c_str()), 0);
    int newFile = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(newFile, 0);
    ::close(other);
    ASSERT_TRUE(probe.waitAcquired());
    EXPECT_TRUE(lock.isHeld());
    const auto calls = files->calls();
    EXPECT_TRUE(std::any_of(calls.begin(), calls.end(), [](const std::string& c) {
        return c.find(" stale") != std::string::npos;
    })) << "the stale file was noticed";
    EXPECT_EQ(::flock(oldFile, LOCK_EX | LOCK_NB), 0) << "the stale file is not held";
    EXPECT_NE(::flock(newFile, LOCK_EX | LOCK_NB), 0) << "the new file is held";
    lock.release();
    EXPECT_EQ(::flock(newFile, LOCK_EX | LOCK_NB), 0) << "released";
    ::close(oldFile);
    ::close(newFile);
    EXPECT_TRUE(probe.waitThreadEnded());
}

TEST(HostLockLive, TheSameFolderListedTwiceIsLockedOnce) {
    TempDir tmp;
    Probe probe;
    HostLock lock(
        {tmp.path() + "/host.lock", tmp.path() + "/./host.lock", tmp.path() + "//host.lock"},
        liveLockFiles(), probe.log(), kQuick);
    EXPECT_EQ(lock.paths().size(), 1u);
    lock.start(probe.onAcquire());
    ASSERT_TRUE(probe.waitAcquired()) << "a second lock on the same file would wait forever";
    EXPECT_TRUE(isLocked(tmp.path() + "/host.lock"));
    EXPECT_TRUE(probe.waitThreadEnded());
}

TEST(HostLockLive, NeverFollowsALinkAndCreatesThePrivateFile) {
    TempDir tmp;
    const std::string path = tmp.path() + "/host.lock";
    const std::string target = tmp.path() + "/target";
    ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0);
    auto files = std::make_shared<FakeLockFiles>(liveLockFiles());
    Probe probe;
    HostLock lock({path}, files, probe.log(), kQuick);
    lock.start(probe.onAcquire());
    ASSERT_TRUE(files->waitForCall("open " + path + " failed", 3));
    EXPECT_FALSE(std::filesystem::exists(target));
    ASSERT_EQ(::unlink(path.c_str()), 0);
    ASSERT_TRUE(probe.waitAcquired());
    EXPECT_EQ(probe.messages(),
              std::vector<std::string>{"cannot open " + path + ": errno " + std::to_string(ELOOP) +
                                       "; retrying every 5 s"});
    struct stat st {};
    ASSERT_EQ(::lstat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_TRUE(probe.waitThreadEnded());
}

TEST(HostLockLive, WaitsOnANamedLowPriorityThread) {
    TempDir tmp;
    const std::string path = tmp.path() + "/host.lock";
    int other = holdLock(path);
    ASSERT_GE(other, 0);
    auto files = std::make_shared<FakeLockFiles>(liveLockFiles());
    Probe probe;
    HostLock lock({path}, files, probe.log(), kQuick);
    lock.start(probe.onAcquire());
    ASSERT_TRUE(files->waitForCall("lock "));
    std::optional<int> nice;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        std::getline(comm, name);
        if (name != HostLock::kThreadName) continue;
        std::ifstream stat(task.path() / "stat");
        std::string text((std::istreambuf_iterator<char>(stat)), {});
        // Field 19 is the nice value; fields after the ")" of the name are plain.
        std::istringstream rest(text.substr(text.rfind(')') + 2));
        std::string field;
        for (int i = 3; i <= 19 && rest >> field; ++i)
            if (i == 19) nice = std::stoi(field);
    }
    ASSERT_TRUE(nice) << "no thread named " << HostLock::kThreadName;
    EXPECT_GE(*nice, 10);
    lock.release();
    ::close(other);
    EXPECT_TRUE(probe.waitThreadEnded());
}

// Two processes compete for one lock: the second gets it as soon as the
// first lets go, however it lets go.
TEST(HostLockLive, ASecondProcessTakesOverWhenTheHostGoes) {
    for (const std::string how : {"release", "exit", "SIGKILL"}) {
        TempDir tmp;
        const std::string path = tmp.path() + "/host.lock";
        auto first = LineChild::start(WHARFY_SUITE_LOCK_HOLDER, {path});
        ASSERT_TRUE(first) << how;
        ASSERT_TRUE(first->waitForLine("acquired")) << how;
        auto second = LineChild::start(WHARFY_SUITE_LOCK_HOLDER, {path});
        ASSERT_TRUE(second) << how;
        ASSERT_TRUE(second->waitForLine("waiting")) << how;
        EXPECT_TRUE(isLocked(path)) << how;
        EXPECT_EQ(second->readLine(0), std::nullopt) << how << ": acquired while the host held it";

        const auto letGo = std::chrono::steady_clock::now();
        if (how == "release") {
            first->send("release");
            ASSERT_TRUE(first->waitForLine("released")) << how;
        } else if (how == "exit") {
            first->closeInput();
        } else {
            first->kill(SIGKILL);
        }
        ASSERT_TRUE(second->waitForLine("acquired")) << how;
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - letGo).count();
        ASSERT_TRUE(first->wait(20)) << how;
        RecordProperty("takeover_after_" + how + "_ms", std::to_string(int(seconds * 1000)));
        std::printf("takeover after %s: %.1f ms\n", how.c_str(), seconds * 1000);
        EXPECT_TRUE(isLocked(path)) << how;
    }
}

}  // namespace
