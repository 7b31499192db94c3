#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "common/result.h"

namespace wharfy {

/// Why a request to an engine's socket failed before a whole response was read.
struct TransportError {
    enum class Kind {
        connectFailed,
        ioFailed,
        invalidPath,
        socketPathTooLong,
        /// The request's deadline passed: connect, send and the whole response
        /// share one deadline.
        timedOut,
        /// The response passed kMaxResponseBytes.
        responseTooLarge,
        /// The response's header section passed kMaxHeaderBytes.
        headerTooLarge,
    };
    Kind kind = Kind::connectFailed;
    /// errno of the failing call for connectFailed and ioFailed; 0 otherwise.
    int errnoValue = 0;

    bool operator==(const TransportError&) const = default;
    /// A short cause for the user, such as "the engine did not answer in time".
    std::string description() const;
};

/// The most a response may hold in all, headers included.
inline constexpr size_t kMaxResponseBytes = 32u << 20;
/// The most a response's header section may hold, the blank line included.
inline constexpr size_t kMaxHeaderBytes = 64u << 10;

/// Sends one request to a container engine and returns the raw response.
class EngineTransport {
  public:
    virtual ~EngineTransport() = default;
    /// One GET of `path` (must begin with "/"): the complete response bytes.
    virtual Result<std::string, TransportError> get(const std::string& path) const = 0;
};

/// The longest unix socket path accepted, in bytes (the smallest sun_path of
/// the platforms we run on, less the terminating zero).
inline constexpr size_t kMaxSocketPathBytes = 103;

/// HTTP/1.1 GET over a unix stream socket: one connection per request, read
/// until the engine closes it. Each request has one deadline for connect,
/// send and the whole response, and a bounded size.
class UnixSocketTransport final : public EngineTransport {
  public:
    using Clock = std::chrono::steady_clock;

    /// Each request ends `timeoutSeconds` after it starts, or at `notAfter`
    /// if that comes first.
    UnixSocketTransport(std::string socketPath, int timeoutSeconds,
                        std::optional<Clock::time_point> notAfter = std::nullopt)
        : socketPath_(std::move(socketPath)),
          timeoutSeconds_(timeoutSeconds),
          notAfter_(notAfter) {}

    Result<std::string, TransportError> get(const std::string& path) const override;

    const std::string& socketPath() const { return socketPath_; }
    int timeoutSeconds() const { return timeoutSeconds_; }

    /// The exact request bytes sent for `path`.
    static std::string requestText(std::string_view path);
    /// Whether `path` may be sent: begins with "/" and holds no blank, CR or LF.
    static bool isValidTarget(std::string_view path);

  private:
    std::string socketPath_;
    int timeoutSeconds_;
    std::optional<Clock::time_point> notAfter_;
};

/// A parsed HTTP response.
struct HTTPResponse {
    int status = 0;
    /// Lower-case names; values trimmed; the last of a repeated name wins.
    std::map<std::string, std::string> headers;
    /// After transfer decoding.
    std::string body;

    bool operator==(const HTTPResponse&) const = default;
};

/// Why response bytes could not be read as HTTP.
struct HTTPError {
    enum class Kind { malformed, incompleteBody };
    Kind kind = Kind::malformed;
    /// For malformed: "no header end", "bad status line" or "bad chunk size".
    std::string reason;

    bool operator==(const HTTPError&) const = default;
    /// A short cause for the user, such as "the engine's answer was cut short".
    std::string description() const;
};

/// Reads raw HTTP/1.x response bytes; never touches a socket.
struct HTTPResponseParser {
    static Result<HTTPResponse, HTTPError> parse(std::string_view data);
    /// The data bytes of a chunked body; trailers and anything after the last
    /// chunk are ignored.
    static Result<std::string, HTTPError> decodeChunked(std::string_view data);

    static constexpr std::string_view crlf = "\r\n";
    static constexpr std::string_view headerEnd = "\r\n\r\n";
};

}  // namespace wharfy
