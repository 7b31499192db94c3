#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "core/containers/http.h"
#include "hostile_engine.h"
#include "test_process.h"

namespace wharfy {
namespace {

using Kind = TransportError::Kind;

std::string okResponse(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// A unix-socket server thread that reads one request, then answers with
/// prepared bytes, then closes.
class PreparedServer {
  public:
    PreparedServer(const std::string& path, std::string answer) : answer_(std::move(answer)) {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.data(), path.size());
        bound_ = ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                 ::listen(fd_, 4) == 0;
        if (bound_) thread_ = std::thread([this] { serve(); });
    }
    ~PreparedServer() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        ::close(fd_);
    }
    bool bound() const { return bound_; }
    std::string request() {
        if (thread_.joinable()) thread_.join();
        return request_;
    }

  private:
    void serve() {
        pollfd p{fd_, POLLIN, 0};
        while (!stop_ && ::poll(&p, 1, 50) == 0) {
        }
        if (stop_) return;
        int client = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) return;
        char buffer[4096];
        while (request_.find("\r\n\r\n") == std::string::npos) {
            ssize_t n = ::read(client, buffer, sizeof buffer);
            if (n <= 0) break;
            request_.append(buffer, static_cast<size_t>(n));
        }
        ::send(client, answer_.data(), answer_.size(), MSG_NOSIGNAL);
        ::close(client);
    }

    int fd_ = -1;
    bool bound_ = false;
    std::string answer_;
    std::string request_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class UnixSocketTransportTest : public ::testing::Test {
  protected:
    testing::TempDir dir;
    std::string socketPath() const { return dir.path() + "/engine.sock"; }
    /// A path in the folder, padded to exactly `length` bytes.
    std::string pathOfLength(size_t length) const {
        const std::string prefix = dir.path() + "/";
        return prefix + std::string(length - prefix.size(), 's');
    }
};

TEST_F(UnixSocketTransportTest, SendsOneFixedRequestAndReadsUntilClose) {
    const std::string big(300'000, 'x');
    struct Case {
        const char* what;
        std::string answer;
        Result<std::string, HTTPError> body;
    };
    const Case cases[] = {
        {"chunked",
         "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
         "4;ext=1\r\n{\"a\"\r\n3\r\n:1}\r\n0\r\n\r\n",
         std::string("{\"a\":1}")},
        {"larger than one read", okResponse(big), big},
        {"closed without a byte", "", HTTPError{HTTPError::Kind::malformed, "no header end"}},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case& c = cases[i];
        const std::string socket = dir.path() + "/" + std::to_string(i) + ".sock";
        PreparedServer server(socket, c.answer);
        ASSERT_TRUE(server.bound()) << c.what;
        auto raw = UnixSocketTransport(socket, 5).get("/v1.41/containers/json?all=1");
        ASSERT_TRUE(raw.ok()) << c.what << ": " << raw.error().description();
        EXPECT_EQ(raw.value(), c.answer) << c.what;
        EXPECT_EQ(
            server.request(),
            "GET /v1.41/containers/json?all=1 HTTP/1.1\r\nHost: docker\r\n"
            "Accept: application/json\r\nUser-Agent: NemarroWharfy\r\nConnection: close\r\n\r\n")
            << c.what;
        auto parsed = HTTPResponseParser::parse(raw.value());
        const Result<std::string, HTTPError> body =
            parsed.ok() ? Result<std::string, HTTPError>(parsed.value().body) : parsed.error();
        EXPECT_EQ(body, c.body) << c.what;
    }
}

TEST_F(UnixSocketTransportTest, HostileEnginesEndWithinTheDeadlineAndTheLimits) {
    // Each engine would keep a per-read time-out busy for its whole --for (or
    // hold 200 MB, or grow headers without end); one deadline per request and
    // the size limits end them early.
    struct Case {
        std::vector<std::string> engine;
        int timeoutSeconds;
        Kind expected;
    };
    const Case cases[] = {
        {{"--mode", "drip", "--interval-ms", "200", "--for", "60"}, 1, Kind::timedOut},
        {{"--mode", "silent", "--for", "60"}, 1, Kind::timedOut},
        {{"--mode", "headers", "--for", "60"}, 5, Kind::headerTooLarge},
        {{"--mode", "huge"}, 5, Kind::responseTooLarge},
    };
    for (const auto& c : cases) {
        const std::string mode = c.engine[1];
        auto engine = testing::startHostileEngine(socketPath(), c.engine);
        ASSERT_TRUE(engine.has_value()) << mode;
        const auto start = std::chrono::steady_clock::now();
        auto raw = UnixSocketTransport(socketPath(), c.timeoutSeconds).get("/_ping");
        ASSERT_FALSE(raw.ok()) << mode;
        EXPECT_EQ(raw.error(), (TransportError{c.expected, 0})) << mode;
        EXPECT_LT(secondsSince(start), 10.0) << mode;
    }
}

void ignoreSignal(int) {}

TEST_F(UnixSocketTransportTest, SignalsDuringTheRequestDoNotFailIt) {
    // A handler installed without SA_RESTART, as a terminal interface's
    // SIGWINCH handler may be: every wait is interrupted again and again.
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = ignoreSignal;
    sigemptyset(&action.sa_mask);
    ASSERT_EQ(::sigaction(SIGWINCH, &action, &previous), 0);
    auto engine = testing::startHostileEngine(socketPath(), {"--delay-ms", "500"});
    ASSERT_TRUE(engine.has_value());

    const pthread_t requester = ::pthread_self();
    std::atomic<bool> done{false};
    std::thread signaller([&] {
        while (!done) {
            ::pthread_kill(requester, SIGWINCH);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    auto raw = UnixSocketTransport(socketPath(), 5).get("/_ping");
    done = true;
    signaller.join();
    ::sigaction(SIGWINCH, &previous, nullptr);
    ASSERT_TRUE(raw.ok()) << raw.error().description();
    auto parsed = HTTPResponseParser::parse(raw.value());
    ASSERT_TRUE(parsed.ok());
    EXPECT_EQ(parsed.value().body, "OK");
}

TEST_F(UnixSocketTransportTest, ASocketThisUserMayNotUseIsPermissionDenied) {
    auto engine = testing::startHostileEngine(socketPath(), {});
    ASSERT_TRUE(engine.has_value());
    ASSERT_EQ(::chmod(socketPath().c_str(), 0600), 0);
    if (::geteuid() != 0) {
        ASSERT_EQ(::chmod(socketPath().c_str(), 0), 0);
        auto r = UnixSocketTransport(socketPath(), 5).get("/_ping");
        ASSERT_FALSE(r.ok());
        EXPECT_EQ(r.error(), (TransportError{Kind::connectFailed, EACCES}));
        return;
    }
    // Root may connect to anything: ask from a child that is nobody. Only the
    // socket's own mode stands in its way.
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) _exit(3);
        auto r = UnixSocketTransport(socketPath(), 5).get("/_ping");
        _exit(!r.ok() && r.error() == TransportError{Kind::connectFailed, EACCES} ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "3: could not become nobody; 1: not EACCES";
}

TEST_F(UnixSocketTransportTest, ConnectToAFullBacklogIsBounded) {
    // A listener that never accepts: once its backlog is full, connect blocks
    // unless the transport bounds it.
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socketPath().data(), socketPath().size());
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(fd, 0), 0);
    std::vector<int> fillers;
    for (int i = 0; i < 8; ++i) {
        int c = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        ::connect(c, reinterpret_cast<sockaddr*>(&address), sizeof address);
        fillers.push_back(c);
    }
    auto start = std::chrono::steady_clock::now();
    auto raw = UnixSocketTransport(socketPath(), 1).get("/_ping");
    const double seconds = secondsSince(start);
    for (int c : fillers)
        ::close(c);
    ::close(fd);
    ASSERT_FALSE(raw.ok());
    EXPECT_EQ(raw.error().kind, Kind::timedOut);
    EXPECT_LT(seconds, 10.0);
}

TEST_F(UnixSocketTransportTest, SocketPathLengthLimit) {
    const std::string at103 = pathOfLength(103);
    ASSERT_EQ(at103.size(), 103u);
    PreparedServer server(at103, okResponse("OK"));
    ASSERT_TRUE(server.bound());
    EXPECT_TRUE(UnixSocketTransport(at103, 5).get("/_ping").ok());
}

TEST_F(UnixSocketTransportTest, RequestsThatCannotBeSentNameTheirCause) {
    // The socket does not exist, so a bad target that reached connect would
    // give connectFailed instead of invalidPath.
    struct Case {
        const char* what;
        std::string socket;
        const char* target;
        TransportError expected;
    };
    const Case cases[] = {
        {"missing socket", socketPath(), "/_ping", {Kind::connectFailed, ENOENT}},
        {"path of 104 bytes", pathOfLength(104), "/_ping", {Kind::socketPathTooLong, 0}},
        {"empty path", "", "/_ping", {Kind::socketPathTooLong, 0}},
        {"relative target", socketPath(), "containers/json", {Kind::invalidPath, 0}},
        {"blank in target", socketPath(), "/a b", {Kind::invalidPath, 0}},
        {"CR in target", socketPath(), "/a\rb", {Kind::invalidPath, 0}},
        {"LF in target", socketPath(), "/a\nb", {Kind::invalidPath, 0}},
        {"empty target", socketPath(), "", {Kind::invalidPath, 0}},
    };
    for (const auto& c : cases) {
        auto r = UnixSocketTransport(c.socket, 5).get(c.target);
        ASSERT_FALSE(r.ok()) << c.what;
        EXPECT_EQ(r.error(), c.expected) << c.what;
    }
}

}  // namespace
}  // namespace wharfy
