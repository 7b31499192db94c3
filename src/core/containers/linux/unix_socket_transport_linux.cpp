#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>

#include "core/containers/http.h"

namespace wharfy {
namespace {

using Clock = UnixSocketTransport::Clock;
using Kind = TransportError::Kind;

class Socket {
  public:
    explicit Socket(int fd) : fd_(fd) {}
    ~Socket() {
        if (fd_ >= 0) ::close(fd_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int fd() const { return fd_; }

  private:
    int fd_;
};

TransportError failure(Kind kind, int err = 0) {
    return TransportError{kind, err};
}

/// Milliseconds left until `deadline`, rounded up so that a wait never ends
/// just short of it and spins.
int millisecondsLeft(Clock::time_point deadline) {
    const auto left = deadline - Clock::now();
    if (left <= Clock::duration::zero()) return 0;
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return static_cast<int>(std::min<int64_t>(ms, 60'000));
}

/// Waits until `fd` is ready for `events` or the deadline passes: 0 when
/// ready, ETIMEDOUT, or the errno of poll. Signals (a terminal resize, say)
/// only restart the wait.
int waitFor(int fd, short events, Clock::time_point deadline) {
    while (true) {
        const int left = millisecondsLeft(deadline);
        if (left == 0) return ETIMEDOUT;
        pollfd p{fd, events, 0};
        const int ready = ::poll(&p, 1, left);
        if (ready > 0) return 0;
        if (ready < 0 && errno != EINTR) return errno;
    }
}

/// connect() on a non-blocking socket. Linux answers a unix listener's full
/// backlog with EAGAIN and offers no readiness event for it, hence the short
/// naps until the deadline.
int connectBy(int fd, const sockaddr_un& address, Clock::time_point deadline) {
    while (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int err = errno;
        if (err == EISCONN) return 0;
        if (err == EINTR) continue;
        if (err == EINPROGRESS || err == EALREADY) {
            if (int waited = waitFor(fd, POLLOUT, deadline); waited != 0) return waited;
            int soError = 0;
            socklen_t length = sizeof soError;
            if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &length) != 0) return errno;
            return soError;
        }
        if (err != EAGAIN) return err;
        const int left = millisecondsLeft(deadline);
        if (left == 0) return ETIMEDOUT;
        ::poll(nullptr, 0, std::min(left, 10));
    }
    return 0;
}

/// Where the header section ends (just past its blank line) once it is in
/// `response`; `searchFrom` is where new bytes began.
size_t headerSectionEnd(const std::string& response, size_t searchFrom) {
    const size_t from = searchFrom >= 3 ? searchFrom - 3 : 0;
    const size_t at = response.find(HTTPResponseParser::headerEnd, from);
    return at == std::string::npos ? 0 : at + HTTPResponseParser::headerEnd.size();
}

}  // namespace

Result<std::string, TransportError> UnixSocketTransport::get(const std::string& path) const {
    if (!isValidTarget(path)) return failure(Kind::invalidPath);
    if (socketPath_.empty() || socketPath_.size() > kMaxSocketPathBytes)
        return failure(Kind::socketPathTooLong);
    if (socketPath_.find('\0') != std::string::npos) return failure(Kind::connectFailed, EINVAL);

    Clock::time_point deadline = Clock::now() + std::chrono::seconds(timeoutSeconds_);
    if (notAfter_) deadline = std::min(deadline, *notAfter_);
    if (Clock::now() >= deadline) return failure(Kind::timedOut);

    Socket socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket.fd() < 0) return failure(Kind::connectFailed, errno);

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socketPath_.data(), socketPath_.size());
    if (int err = connectBy(socket.fd(), address, deadline); err != 0)
        return err == ETIMEDOUT ? failure(Kind::timedOut) : failure(Kind::connectFailed, err);

    const std::string request = requestText(path);
    size_t sent = 0;
    while (sent < request.size()) {
        // MSG_NOSIGNAL: a peer that has gone away gives EPIPE, never SIGPIPE.
        const ssize_t n =
            ::send(socket.fd(), request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<size_t>(n);
        } else if (n == 0) {
            return failure(Kind::ioFailed, EPIPE);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (int err = waitFor(socket.fd(), POLLOUT, deadline); err != 0)
                return err == ETIMEDOUT ? failure(Kind::timedOut) : failure(Kind::ioFailed, err);
        } else if (errno != EINTR) {
            return failure(Kind::ioFailed, errno);
        }
    }

    std::string response;
    size_t headerEnd = 0;
    char buffer[65536];
    while (true) {
        const ssize_t n = ::recv(socket.fd(), buffer, sizeof buffer, 0);
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) return failure(Kind::ioFailed, errno);
            if (int err = waitFor(socket.fd(), POLLIN, deadline); err != 0)
                return err == ETIMEDOUT ? failure(Kind::timedOut) : failure(Kind::ioFailed, err);
            continue;
        }
        if (response.size() + static_cast<size_t>(n) > kMaxResponseBytes)
            return failure(Kind::responseTooLarge);
        const size_t before = response.size();
        response.append(buffer, static_cast<size_t>(n));
        if (headerEnd == 0) {
            headerEnd = headerSectionEnd(response, before);
            if (headerEnd > kMaxHeaderBytes ||
                (headerEnd == 0 && response.size() > kMaxHeaderBytes))
                return failure(Kind::headerTooLarge);
        }
        // A peer that always has a little more to send never lets recv wait.
        if (Clock::now() >= deadline) return failure(Kind::timedOut);
    }
    return response;
}

}  // namespace wharfy
