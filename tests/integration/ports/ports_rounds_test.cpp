// The scanner kept for many refreshes, as the app keeps it, while listeners
// come and go and new processes take the pids of old ones. Every round must
// read exactly like a scanner that remembers nothing.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <thread>
#include <tuple>

#include "live_scanner.h"
#include "test_process.h"

namespace wharfy {
namespace {

using nemarro::process::ListeningSocket;
using nemarro::process::ListeningSockets;
using nemarro::process::ProcessReader;
using testing::LiveScanner;
using testing::TestProcess;

/// A listener with workers that share its socket; it forks another on SIGUSR1.
struct Server {
    TestProcess process;
    std::vector<pid_t> workers;
};

bool waitUntilGone(pid_t pid) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < deadline) {
        auto info = ProcessReader::bsdInfo(pid);
        if (!info || info->isZombie()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

/// The children of a single-threaded process.
std::vector<pid_t> childrenOf(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
    std::vector<pid_t> out;
    for (pid_t child; in >> child;)
        out.push_back(child);
    return out;
}

/// Asks the machine to give the next new process `pid`; false where it may not.
bool nextPidWillBe(pid_t pid) {
    int fd = ::open("/proc/sys/kernel/ns_last_pid", O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const std::string text = std::to_string(pid - 1);
    bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return ok;
}

/// Replaces `worker` of `server` by a new one, on the same pid where the
/// machine allows it. Returns the new worker's pid.
std::optional<pid_t> replaceWorker(Server& server, pid_t worker, bool forcePid) {
    ::kill(worker, SIGKILL);
    EXPECT_TRUE(waitUntilGone(worker));
    std::erase(server.workers, worker);
    if (forcePid) nextPidWillBe(worker);
    ::kill(server.process.pid(), SIGUSR1);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < deadline) {
        for (pid_t child : childrenOf(server.process.pid())) {
            if (std::find(server.workers.begin(), server.workers.end(), child) !=
                server.workers.end())
                continue;
            server.workers.push_back(child);
            return child;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ADD_FAILURE() << "no new worker";
    return std::nullopt;
}

using SocketKey = std::tuple<int32_t, int32_t, uint16_t, uint64_t>;
using RowKey = std::tuple<std::string, std::vector<std::string>, std::string, std::string>;

template <typename T>
bool hasDuplicates(std::vector<T> sorted) {
    return std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end();
}

TEST(LivePortRounds, EveryRoundReadsLikeAScannerThatRemembersNothing) {
    bool forcePid = ::geteuid() == 0 && ::access("/proc/sys/kernel/ns_last_pid", W_OK) == 0;
    std::mt19937 random(20240601);
    LiveScanner scanner("/nonexistent-home");
    std::vector<std::unique_ptr<Server>> servers;
    int reused = 0;
    // A listener of this very process: a socket that appears in a process the
    // scanner already knows, found only by reading known processes again.
    int own = -1;

    for (int round = 0; round < 40; ++round) {
        unsigned action = random() % 4;
        if (servers.size() < 2) action = 0;
        if (servers.size() >= 5) action = 1;
        if (action == 0) {
            const std::string workers = std::to_string(1 + random() % 2);
            auto started = TestProcess::start(
                {"--listen", "127.0.0.1:0", "--workers", workers, "--fork-on-usr1"});
            ASSERT_TRUE(started);
            std::vector<pid_t> children = started->children();
            servers.push_back(std::make_unique<Server>(Server{std::move(*started), children}));
        } else if (action == 1) {
            auto victim = servers.begin() + static_cast<long>(random() % servers.size());
            const std::vector<pid_t> workers = (*victim)->workers;
            ::kill((*victim)->process.pid(), SIGKILL);
            ASSERT_TRUE((*victim)->process.wait(5));
            for (pid_t w : workers)
                ASSERT_TRUE(waitUntilGone(w));
            servers.erase(victim);
        } else if (action == 3) {
            if (own >= 0) {
                ::close(own);
                own = -1;
            } else {
                own = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
                sockaddr_in loopback{};
                loopback.sin_family = AF_INET;
                loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                ASSERT_EQ(::bind(own, reinterpret_cast<sockaddr*>(&loopback), sizeof loopback), 0);
                ASSERT_EQ(::listen(own, 1), 0);
            }
        } else {
            // Another process may take the pid first; then try on the new one.
            Server& server = *servers[random() % servers.size()];
            pid_t worker = server.workers[random() % server.workers.size()];
            for (int attempt = 0; attempt < (forcePid ? 5 : 1); ++attempt) {
                auto next = replaceWorker(server, worker, forcePid);
                ASSERT_TRUE(next);
                if (*next == worker) {
                    ++reused;
                    break;
                }
                worker = *next;
            }
        }

        std::set<int32_t> ours;
        if (own >= 0) ours.insert(::getpid());
        for (const auto& s : servers) {
            ours.insert(s->process.pid());
            ours.insert(s->workers.begin(), s->workers.end());
        }
        auto socketsOf = [&](const std::vector<ListeningSocket>& all) {
            std::vector<SocketKey> out;
            for (const auto& s : all)
                if (ours.count(s.pid)) out.emplace_back(s.pid, s.fd, s.port, s.socketID);
            std::sort(out.begin(), out.end());
            return out;
        };
        auto rowsOf = [&](const std::vector<PortRow>& all) {
            std::vector<RowKey> out;
            for (const auto& r : all)
                if (ours.count(r.pid))
                    out.emplace_back(r.id(), r.addresses, r.role.rawValue(), r.processName);
            std::sort(out.begin(), out.end());
            return out;
        };

        const auto sockets = socketsOf(scanner.environment->listeningSockets());
        EXPECT_FALSE(hasDuplicates(sockets)) << "round " << round;
        EXPECT_EQ(sockets, socketsOf(ListeningSockets::read())) << "round " << round;
        const auto rows = rowsOf(scanner.scan());
        EXPECT_FALSE(hasDuplicates(rows)) << "round " << round;
        EXPECT_EQ(rows, rowsOf(LiveScanner("/nonexistent-home").scan())) << "round " << round;
        EXPECT_EQ(rows.size(), ours.size()) << "round " << round;
        if (::testing::Test::HasFailure()) break;
    }
    if (own >= 0) ::close(own);
    RecordProperty("reusedPids", reused);
    if (forcePid)
        EXPECT_GT(reused, 0) << "no worker got its predecessor's pid: the machine forked too often";
    else
        std::printf("pid reuse not forced: needs root and a writable ns_last_pid\n");
}

}  // namespace
}  // namespace wharfy
