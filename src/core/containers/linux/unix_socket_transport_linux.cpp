#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
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

TransportError failure(TransportError::Kind kind, int err) {
    return TransportError{kind, err};
}

// connect() on a unix socket blocks while the listener's backlog is full.
// It runs non-blocking instead and is retried until the same time-out as the
// reads and writes: a wedged engine can cost a refresh a few seconds, never
// forever. Linux answers a full backlog with EAGAIN rather than EINPROGRESS,
// and there is no readiness event to wait for, hence the short naps.
int connectWithin(int fd, const sockaddr_un& address, int timeoutSeconds) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) return errno;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
    while (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        if (errno == EINPROGRESS) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd p{fd, POLLOUT, 0};
            int ready = ::poll(&p, 1, static_cast<int>(std::max<int64_t>(0, left.count())));
            if (ready == 0) return ETIMEDOUT;
            if (ready < 0) return errno;
            int soError = 0;
            socklen_t len = sizeof soError;
            if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &len) != 0) return errno;
            if (soError != 0) return soError;
            break;
        }
        if (errno != EAGAIN) return errno;
        if (std::chrono::steady_clock::now() >= deadline) return ETIMEDOUT;
        ::poll(nullptr, 0, 10);
    }
    if (::fcntl(fd, F_SETFL, flags) < 0) return errno;
    return 0;
}

}  // namespace

Result<std::string, TransportError> UnixSocketTransport::get(const std::string& path) const {
    using Kind = TransportError::Kind;
    if (!isValidTarget(path)) return failure(Kind::invalidPath, 0);
    if (socketPath_.empty() || socketPath_.size() > kMaxSocketPathBytes)
        return failure(Kind::socketPathTooLong, 0);
    if (socketPath_.find('\0') != std::string::npos) return failure(Kind::connectFailed, EINVAL);

    Socket socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket.fd() < 0) return failure(Kind::connectFailed, errno);

    timeval timeout{};
    timeout.tv_sec = timeoutSeconds_;
    ::setsockopt(socket.fd(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(socket.fd(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socketPath_.data(), socketPath_.size());
    if (int err = connectWithin(socket.fd(), address, timeoutSeconds_); err != 0)
        return failure(Kind::connectFailed, err);

    const std::string request = requestText(path);
    size_t sent = 0;
    while (sent < request.size()) {
        // MSG_NOSIGNAL: a peer that has gone away gives EPIPE, never SIGPIPE.
        ssize_t n = ::send(socket.fd(), request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n < 1) return failure(Kind::ioFailed, n < 0 ? errno : EPIPE);
        sent += static_cast<size_t>(n);
    }

    std::string response;
    char buffer[65536];
    while (true) {
        ssize_t n = ::read(socket.fd(), buffer, sizeof buffer);
        if (n == 0) break;
        if (n < 0) return failure(Kind::ioFailed, errno);
        response.append(buffer, static_cast<size_t>(n));
    }
    return response;
}

}  // namespace wharfy
