// The port scanner over the live machine: real listeners, real processes.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>
#include <tuple>

#include "live_scanner.h"
#include "printers.h"
#include "process/process_sampler.h"
#include "test_process.h"

namespace wharfy {
namespace {

using testing::LiveScanner;
using testing::on;
using testing::TempDir;
using testing::TestProcess;

/// Everything left to read on `fd`, which is then closed.
std::string readToEnd(int fd) {
    std::string text;
    char buf[4096];
    for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;)
        text.append(buf, static_cast<size_t>(n));
    ::close(fd);
    return text;
}

/// A port that is free on both loopbacks right now.
uint16_t freePort() {
    int fd = ::socket(AF_INET6, SOCK_STREAM, 0);
    int off = 0;
    ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    ::close(fd);
    return ntohs(a.sin6_port);
}

TEST(LivePorts, OwnListenerInAGitProjectUnderHome) {
    TempDir home;
    const std::string repo = home.path() + "/src/shop";
    std::filesystem::create_directories(repo + "/.git");
    std::filesystem::create_directories(repo + "/server");
    auto p = TestProcess::start({"--listen", "127.0.0.1:0"}, TestProcess::helperPath(),
                                repo + "/server");
    ASSERT_TRUE(p);

    nemarro::process::ProcessSampler sampler(
        std::make_unique<nemarro::process::LiveProcessSource>(),
        nemarro::process::TickClock::current(), &nemarro::process::ProcessSampler::monotonicNow);
    sampler.sample();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    CpuByProcess cpu;
    for (const auto& u : sampler.sample().processes)
        if (u.cpuPercent) cpu[u.identity] = *u.cpuPercent;

    LiveScanner scanner(home.path());
    auto rows = on(static_cast<uint16_t>(p->ports()[0]), scanner.scan(cpu));
    ASSERT_EQ(rows.size(), 1u);
    const PortRow& r = rows[0];
    EXPECT_EQ(r.pid, p->pid());
    EXPECT_EQ(r.role, (ListenerRole{ListenerRole::PlainProcess{}}));
    EXPECT_EQ(r.project, (ProjectInfo{"~/src/shop", true}));
    EXPECT_EQ(r.addressClass, AddressClass::thisMacOnly);
    EXPECT_TRUE(r.isOwnedByUser);
    EXPECT_TRUE(r.footprint && *r.footprint > 0);
    EXPECT_TRUE(r.cpuPercent.has_value());
    EXPECT_TRUE(r.startTime.has_value());
    EXPECT_EQ(r.executablePath, TestProcess::helperPath());
}

TEST(LivePorts, BothLoopbacksOnOnePortAreOneRow) {
    std::optional<TestProcess> p;
    uint16_t port = 0;
    for (int attempt = 0; attempt < 5 && !p; ++attempt) {
        port = freePort();
        p.reset();
        if (auto started = TestProcess::start({"--listen", "127.0.0.1:" + std::to_string(port),
                                               "--listen", "[::1]:" + std::to_string(port)}))
            p.emplace(std::move(*started));
    }
    ASSERT_TRUE(p) << "could not listen on one port on both loopbacks";
    LiveScanner scanner("/nonexistent-home");
    auto rows = on(port, scanner.scan());
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].addresses, (std::vector<std::string>{"127.0.0.1", "::1"}));
    EXPECT_EQ(rows[0].addressClass, AddressClass::thisMacOnly);
}

TEST(LivePorts, SharedSocketGivesARowPerProcessAndZombiesNone) {
    auto p = TestProcess::start({"--listen", "0.0.0.0:0", "--workers", "1", "--zombie"});
    ASSERT_TRUE(p);
    ASSERT_EQ(p->children().size(), 2u);
    LiveScanner scanner("/nonexistent-home");
    auto rows = on(static_cast<uint16_t>(p->ports()[0]), scanner.scan());
    ASSERT_EQ(rows.size(), 2u) << "the parent and its worker, not the zombie";
    EXPECT_EQ(rows[0].pid, p->pid());
    EXPECT_EQ(rows[1].pid, p->children()[0]);
    EXPECT_LT(rows[0].pid, rows[1].pid);
    EXPECT_EQ(rows[0].addressClass, AddressClass::allNetworks);
}

TEST(LivePorts, RepeatedScansFollowProcessesThatComeAndGo) {
    LiveScanner scanner("/nonexistent-home");
    auto a = TestProcess::start({"--listen", "127.0.0.1:0"});
    ASSERT_TRUE(a);
    const auto portA = static_cast<uint16_t>(a->ports()[0]);
    ASSERT_EQ(on(portA, scanner.scan()).size(), 1u);

    auto b = TestProcess::start({"--listen", "127.0.0.1:0", "--workers", "1"});
    ASSERT_TRUE(b);
    const auto portB = static_cast<uint16_t>(b->ports()[0]);
    // A socket opened by a process the scanner already knows is found only
    // by going through that owner's processes again, remembered holders too.
    auto c = TestProcess::start({"--listen", "127.0.0.1:0"});
    ASSERT_TRUE(c);
    ASSERT_EQ(on(static_cast<uint16_t>(c->ports()[0]), scanner.scan()).size(), 1u);
    const int own = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in loopback{};
    loopback.sin_family = AF_INET;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(own, reinterpret_cast<sockaddr*>(&loopback), sizeof loopback), 0);
    ASSERT_EQ(::listen(own, 1), 0);

    auto rows = scanner.scan();
    EXPECT_EQ(on(portA, rows).size(), 1u);
    EXPECT_EQ(on(portB, rows).size(), 2u);
    ::kill(a->pid(), SIGKILL);
    ASSERT_TRUE(a->wait(5));
    rows = scanner.scan();
    EXPECT_TRUE(on(portA, rows).empty());
    EXPECT_EQ(on(portB, rows).size(), 2u);

    // The remembered holders list each descriptor once and agree with a full,
    // uncached reading. Only this test's processes count: other tests start
    // and stop listeners meanwhile.
    const std::set<int32_t> ours{b->pid(), b->children()[0], c->pid(), ::getpid()};
    auto listed = [&](std::vector<nemarro::process::ListeningSocket> sockets) {
        std::vector<std::tuple<int32_t, int32_t, uint16_t>> out;
        for (const auto& s : sockets)
            if (ours.count(s.pid)) out.emplace_back(s.pid, s.fd, s.port);
        std::sort(out.begin(), out.end());
        return out;
    };
    auto cached = listed(scanner.environment->listeningSockets());
    EXPECT_EQ(cached, listed(nemarro::process::ListeningSockets::read()));
    EXPECT_EQ(cached.size(), 4u);
    ::close(own);
}

TEST(LivePorts, UnprivilegedScanShowsRootListenersAsOtherUserRows) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to start a root listener and drop to nobody";
    auto p = TestProcess::start({"--listen", "127.0.0.1:0"});
    ASSERT_TRUE(p);
    const auto port = static_cast<uint16_t>(p->ports()[0]);

    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(fds[0]);
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) _exit(3);
        LiveScanner scanner("/nonexistent");
        nlohmann::json out = nlohmann::json::array();
        for (const auto& r : on(port, scanner.scan()))
            out.push_back({{"pid", r.pid},
                           {"name", r.processName},
                           {"role", r.role.rawValue()},
                           {"owned", r.isOwnedByUser},
                           {"startTime", r.startTime.has_value()},
                           {"footprint", r.footprint.has_value()},
                           {"cpu", r.cpuPercent.has_value()},
                           {"project", r.project.has_value()},
                           {"addresses", r.addresses}});
        std::string text = out.dump();
        if (::write(fds[1], text.data(), text.size()) < 0) _exit(4);
        _exit(0);
    }
    ::close(fds[1]);
    const std::string text = readToEnd(fds[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    auto rows = nlohmann::json::parse(text);
    ASSERT_EQ(rows.size(), 1u) << text;
    EXPECT_EQ(rows[0]["pid"], 0);
    EXPECT_EQ(rows[0]["name"], "(root)");
    EXPECT_EQ(rows[0]["role"], "otherUser");
    EXPECT_EQ(rows[0]["owned"], false);
    EXPECT_EQ(rows[0]["addresses"], nlohmann::json::array({"127.0.0.1"}));
    for (const char* absent : {"startTime", "footprint", "cpu", "project"})
        EXPECT_EQ(rows[0][absent], false) << absent;
}

TEST(LivePorts, PortsJsonCommandPrintsTheRows) {
    auto p = TestProcess::start({"--listen", "[::]:0"});
    ASSERT_TRUE(p);
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    std::string exe = WHARFY_EXE;
    char* argv[] = {exe.data(), const_cast<char*>("--ports-json"),
                    const_cast<char*>("--containers-json"), nullptr};
    pid_t pid = -1;
    ASSERT_EQ(::posix_spawn(&pid, exe.c_str(), &actions, nullptr, argv, environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    const std::string text = readToEnd(fds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\n');
    auto json = nlohmann::json::parse(text);
    ASSERT_TRUE(json.contains("ports")) << "only the ports command runs";
    EXPECT_FALSE(json.contains("runtimes"));
    bool found = false;
    for (const auto& row : json["ports"]) {
        if (row["port"] != p->ports()[0]) continue;
        found = true;
        EXPECT_EQ(row["pid"], p->pid());
        EXPECT_EQ(row["owned"], true);
        EXPECT_EQ(row["addressClass"], "allNetworks");
        EXPECT_EQ(row["addresses"], nlohmann::json::array({"::"}));
        EXPECT_EQ(row["role"], "plainProcess");
        EXPECT_EQ(row.size(), 7u) << row.dump();
    }
    EXPECT_TRUE(found) << text;
}

}  // namespace
}  // namespace wharfy
