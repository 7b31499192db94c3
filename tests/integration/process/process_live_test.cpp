// The process layer against real processes and sockets of this machine.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>
#include <thread>

#include "process/identity.h"
#include "process/listening_sockets.h"
#include "process/process_reader.h"
#include "process/process_sampler.h"
#include "test_process.h"

namespace nemarro::process {
namespace {

using wharfy::testing::TestProcess;
using C = ListeningSocket::AddressClass;

std::vector<ListeningSocket> socketsOf(int32_t pid) {
    std::vector<ListeningSocket> out;
    for (auto& s : ListeningSockets::read())
        if (s.pid == pid) out.push_back(s);
    return out;
}

TEST(LiveSockets, EveryAddressKindAppearsWithPortAddressAndClass) {
    auto p =
        TestProcess::start({"--listen", "127.0.0.1:0", "--listen", "0.0.0.0:0", "--listen",
                            "[::]:0", "--listen", "[::1]:0", "--listen", "[::ffff:127.0.0.1]:0"});
    ASSERT_TRUE(p) << "helper did not start";
    struct Want {
        const char* address;
        C cls;
        int family;
    };
    const Want want[] = {{"127.0.0.1", C::loopback, AF_INET},
                         {"0.0.0.0", C::any, AF_INET},
                         {"::", C::any, AF_INET6},
                         {"::1", C::loopback, AF_INET6},
                         {"::ffff:127.0.0.1", C::loopback, AF_INET6}};
    auto sockets = ListeningSockets::read(p->pid());
    ASSERT_EQ(sockets.size(), 5u);
    EXPECT_EQ(sockets, socketsOf(p->pid())) << "per-process and machine-wide reads disagree";
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(sockets[i].port, p->ports()[i]);
        EXPECT_EQ(sockets[i].address, want[i].address);
        EXPECT_EQ(sockets[i].addressClass, want[i].cls) << want[i].address;
        EXPECT_EQ(sockets[i].family, want[i].family);
    }
    EXPECT_TRUE(std::is_sorted(sockets.begin(), sockets.end(),
                               [](auto& a, auto& b) { return a.fd < b.fd; }));
    // The machine-wide table knows every one of them with our uid.
    auto table = ListeningSockets::index(ListeningSockets::table());
    for (const auto& s : sockets) {
        auto it = table.find(s.socketID);
        ASSERT_NE(it, table.end());
        EXPECT_EQ(it->second.uid, ::geteuid());
        EXPECT_EQ(it->second.port, s.port);
    }
}

TEST(LiveSockets, WorkersSharingAnInheritedSocketListItWithOneSocketID) {
    auto p = TestProcess::start({"--listen", "127.0.0.1:0", "--workers", "2"});
    ASSERT_TRUE(p);
    ASSERT_EQ(p->children().size(), 2u);
    auto parent = socketsOf(p->pid());
    ASSERT_EQ(parent.size(), 1u);
    for (pid_t worker : p->children()) {
        auto mine = socketsOf(worker);
        ASSERT_EQ(mine.size(), 1u) << "worker " << worker;
        EXPECT_EQ(mine[0].socketID, parent[0].socketID);
        EXPECT_EQ(mine[0].port, parent[0].port);
    }
}

TEST(LiveSockets, UdpAndConnectedTcpSocketsNeverAppear) {
    auto p = TestProcess::start({"--udp", "127.0.0.1:0", "--connected"});
    ASSERT_TRUE(p);
    auto fds = ProcessReader::fileDescriptors(p->pid());
    ASSERT_TRUE(fds);
    EXPECT_GE(std::count_if(fds->begin(), fds->end(),
                            [](auto& d) { return d.type == FileDescriptor::kSocket; }),
              3)
        << "the helper should hold a UDP socket and a connected pair";
    EXPECT_TRUE(ListeningSockets::read(p->pid()).empty());
}

TEST(LiveProcess, ReadsOfARunningHelper) {
    wharfy::testing::TempDir dir;
    auto p = TestProcess::start({"--name", "wharfy-live"}, TestProcess::helperPath(), dir.path());
    ASSERT_TRUE(p);
    auto info = ProcessReader::bsdInfo(p->pid());
    ASSERT_TRUE(info);
    EXPECT_EQ(info->ppid, ::getpid());
    EXPECT_EQ(info->uid, ::geteuid());
    EXPECT_EQ(info->name, "wharfy-live");
    EXPECT_FALSE(info->isZombie());
    EXPECT_EQ(ProcessReader::executablePath(p->pid()), TestProcess::helperPath());
    EXPECT_EQ(ProcessReader::currentDirectory(p->pid()), dir.path());
    auto args = ProcessReader::arguments(p->pid());
    ASSERT_TRUE(args);
    EXPECT_EQ(*args,
              (std::vector<std::string>{TestProcess::helperPath(), "--name", "wharfy-live"}));
    std::vector<char> buffer;
    EXPECT_EQ(ProcessReader::arguments(p->pid(), buffer), args);
    EXPECT_GE(buffer.size(), ProcessReader::argumentsBufferSize());
    auto usage = ProcessReader::usage(p->pid());
    ASSERT_TRUE(usage);
    EXPECT_GT(usage->footprint, 0u);
    EXPECT_GT(ProcessReader::footprint(p->pid()), 0u);

    // The same process always yields the same start time, close to now.
    auto again = ProcessIdentity::current(p->pid());
    ASSERT_TRUE(again);
    EXPECT_EQ(again->startTime, info->startTime);
    const auto nowMicros =
        static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                  std::chrono::system_clock::now().time_since_epoch())
                                  .count());
    EXPECT_LT(nowMicros - info->startTime, 120'000'000u) << "start time not near now";
}

TEST(LiveProcess, KernelCutNamesAreCompletedFromTheExecutable) {
    wharfy::testing::TempDir dir;
    const std::string exe = dir.path() + "/a-very-long-server-name";
    ASSERT_TRUE(wharfy::testing::copyExecutable(TestProcess::helperPath(), exe));
    auto p = TestProcess::start({}, exe);
    ASSERT_TRUE(p);
    auto info = ProcessReader::bsdInfo(p->pid());
    ASSERT_TRUE(info);
    EXPECT_EQ(info->name, "a-very-long-server-name");
}

TEST(LiveProcess, ZombieReadsAsZombieAndExitedProcessReadsAbsent) {
    auto p = TestProcess::start({"--zombie"});
    ASSERT_TRUE(p);
    ASSERT_EQ(p->children().size(), 1u);
    const pid_t zombie = p->children()[0];
    std::optional<BSDInfo> info;
    for (int i = 0; i < 200 && !(info && info->isZombie()); ++i) {
        info = ProcessReader::bsdInfo(zombie);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_TRUE(info);
    EXPECT_TRUE(info->isZombie());

    const pid_t pid = p->pid();
    ::kill(pid, SIGKILL);
    ASSERT_TRUE(p->wait(5));
    EXPECT_FALSE(ProcessReader::bsdInfo(pid));
    EXPECT_FALSE(ProcessIdentity::current(pid));
    EXPECT_FALSE(ProcessReader::usage(pid));
    EXPECT_FALSE(ProcessReader::footprint(pid));
    EXPECT_FALSE(ProcessReader::arguments(pid));
    EXPECT_FALSE(ProcessReader::fileDescriptors(pid));
    EXPECT_TRUE(ListeningSockets::read(pid).empty());
}

TEST(LiveProcess, AllPidsArePositiveAndIncludeThisProcess) {
    auto pids = ProcessReader::allPIDs();
    EXPECT_TRUE(std::all_of(pids.begin(), pids.end(), [](int32_t p) { return p >= 1; }));
    EXPECT_NE(std::find(pids.begin(), pids.end(), ::getpid()), pids.end());
}

std::optional<uint64_t> serialOf(int32_t pid) {
    for (const auto& e : ProcessReader::pidEntries())
        if (e.pid == pid) return e.serial;
    return std::nullopt;
}

/// A child that waits to be killed.
pid_t pausingChild() {
    pid_t pid = ::fork();
    if (pid == 0) {
        ::pause();
        _exit(0);
    }
    return pid;
}

// The port scan trusts an unchanged serial to mean the same process, so a
// pid given to a new process must show a new one, even within the clock
// tick that makes both start times equal.
TEST(LiveProcess, AReusedPidShowsANewSerialAndTheSameProcessKeepsItsSerial) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to choose the next pid";
    EXPECT_EQ(serialOf(::getpid()), serialOf(::getpid()));
    for (int attempt = 0; attempt < 20; ++attempt) {
        const pid_t first = pausingChild();
        ASSERT_GT(first, 0);
        const auto serial = serialOf(first);
        ASSERT_TRUE(serial);
        ::kill(first, SIGKILL);
        ::waitpid(first, nullptr, 0);
        FILE* last = std::fopen("/proc/sys/kernel/ns_last_pid", "w");
        if (!last) GTEST_SKIP() << "the next pid cannot be chosen here";
        std::fprintf(last, "%d", first - 1);
        std::fclose(last);
        const pid_t second = pausingChild();
        ASSERT_GT(second, 0);
        const auto reusedSerial = serialOf(second);
        ::kill(second, SIGKILL);
        ::waitpid(second, nullptr, 0);
        if (second != first) continue;  // another process took the pid first
        EXPECT_NE(reusedSerial, serial);
        return;
    }
    GTEST_SKIP() << "other processes took the pid every time";
}

TEST(LiveProcess, ControlGroupsListTheHierarchiesOfThisProcess) {
    auto groups = ProcessReader::controlGroups(::getpid());
    ASSERT_TRUE(groups);
    EXPECT_NE(groups->find(":/"), std::string::npos) << *groups;
    EXPECT_FALSE(ProcessReader::controlGroups(0));
}

TEST(LiveSampler, BusyProcessShowsCpuOnTheSecondSample) {
    auto p = TestProcess::start({"--busy"});
    ASSERT_TRUE(p);
    ProcessSampler sampler(std::make_unique<LiveProcessSource>(), TickClock::current(),
                           &ProcessSampler::monotonicNow);
    auto first = sampler.sample();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    auto second = sampler.sample();
    auto find = [&](const ProcessSampler::Result& r) -> const ProcessUsage* {
        for (const auto& u : r.processes)
            if (u.identity.pid == p->pid()) return &u;
        return nullptr;
    };
    ASSERT_TRUE(find(first) && find(second));
    EXPECT_FALSE(find(first)->cpuPercent);
    ASSERT_TRUE(find(second)->cpuPercent);
    EXPECT_GT(*find(second)->cpuPercent, 20.0);
    EXPECT_TRUE(find(second)->diskReadPerSecond) << "own processes expose disk counters";
}

}  // namespace
}  // namespace nemarro::process
