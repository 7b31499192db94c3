#include "core/containers/http.h"

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <limits>
#include <optional>
#include <system_error>

namespace wharfy {
namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && isBlank(s.front()))
        s.remove_prefix(1);
    while (!s.empty() && isBlank(s.back()))
        s.remove_suffix(1);
    return s;
}

std::string lowered(std::string_view s) {
    std::string out(s);
    for (char& c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
}

/// The whole of `text` as an integer in `base`, with an optional sign.
std::optional<int64_t> readInteger(std::string_view text, int base) {
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty()) return std::nullopt;
    uint64_t magnitude = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
    if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    if (magnitude > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return std::nullopt;
    auto value = static_cast<int64_t>(magnitude);
    return negative ? -value : value;
}

std::string_view nextPiece(std::string_view& rest) {
    while (!rest.empty() && rest.front() == ' ')
        rest.remove_prefix(1);
    size_t end = rest.find(' ');
    std::string_view piece = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end);
    return piece;
}

/// The system's words for `err`, starting lower-case: "connection reset by peer".
std::string errnoText(int err) {
    std::string text = std::generic_category().message(err);
    if (!text.empty() && text.front() >= 'A' && text.front() <= 'Z')
        text.front() = static_cast<char>(text.front() - 'A' + 'a');
    return text;
}

HTTPError malformed(const char* reason) {
    return HTTPError{HTTPError::Kind::malformed, reason};
}
HTTPError incomplete() {
    return HTTPError{HTTPError::Kind::incompleteBody, {}};
}

}  // namespace

std::string TransportError::description() const {
    switch (kind) {
        case Kind::connectFailed:
            if (errnoValue == EACCES || errnoValue == EPERM)
                return "permission denied on the engine's socket";
            if (errnoValue == ENOENT) return "the engine's socket does not exist";
            if (errnoValue == ECONNREFUSED) return "the engine refused the connection";
            return "could not connect to the engine: " + errnoText(errnoValue);
        case Kind::ioFailed:
            return "the connection to the engine failed: " + errnoText(errnoValue);
        case Kind::invalidPath:
            return "the request was not valid";
        case Kind::socketPathTooLong:
            return "the socket path is too long";
        case Kind::timedOut:
            return "the engine did not answer in time";
        case Kind::responseTooLarge:
            return "the engine's answer was larger than 32 MiB";
        case Kind::headerTooLarge:
            return "the engine's answer had more than 64 KiB of headers";
    }
    return "the request failed";
}

std::string HTTPError::description() const {
    if (kind == Kind::incompleteBody) return "the engine's answer was cut short";
    if (reason == "no header end") return "the engine's answer ended before its headers did";
    if (reason == "bad chunk size") return "the engine's answer had a broken chunk";
    return "the engine's answer was not HTTP";
}

Result<HTTPResponse, HTTPError> HTTPResponseParser::parse(std::string_view data) {
    const size_t headEnd = data.find(headerEnd);
    if (headEnd == std::string_view::npos) return malformed("no header end");
    std::string_view head = data.substr(0, headEnd);

    size_t lineEnd = head.find(crlf);
    std::string_view statusLine = head.substr(0, lineEnd);
    std::string_view rest = statusLine;
    std::string_view protocol = nextPiece(rest);
    std::string_view code = nextPiece(rest);
    if (!protocol.starts_with("HTTP/1.") || code.empty()) return malformed("bad status line");
    auto status = readInteger(code, 10);
    if (!status || *status < std::numeric_limits<int>::min() ||
        *status > std::numeric_limits<int>::max())
        return malformed("bad status line");

    HTTPResponse response;
    response.status = static_cast<int>(*status);
    while (lineEnd != std::string_view::npos) {
        size_t start = lineEnd + crlf.size();
        lineEnd = head.find(crlf, start);
        std::string_view line = head.substr(
            start, lineEnd == std::string_view::npos ? std::string_view::npos : lineEnd - start);
        size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        response.headers[lowered(line.substr(0, colon))] =
            std::string(trim(line.substr(colon + 1)));
    }

    std::string_view body = data.substr(headEnd + headerEnd.size());
    if (auto te = response.headers.find("transfer-encoding");
        te != response.headers.end() && lowered(te->second).find("chunked") != std::string::npos) {
        auto decoded = decodeChunked(body);
        if (!decoded) return decoded.error();
        response.body = std::move(decoded).value();
        return response;
    }
    if (auto cl = response.headers.find("content-length"); cl != response.headers.end()) {
        if (auto length = readInteger(cl->second, 10); length && *length >= 0) {
            if (body.size() < static_cast<uint64_t>(*length)) return incomplete();
            body = body.substr(0, static_cast<size_t>(*length));
        }
    }
    response.body = std::string(body);
    return response;
}

Result<std::string, HTTPError> HTTPResponseParser::decodeChunked(std::string_view data) {
    std::string out;
    size_t position = 0;
    while (true) {
        size_t lineEnd = data.find(crlf, position);
        if (lineEnd == std::string_view::npos) return incomplete();
        std::string_view sizeLine = data.substr(position, lineEnd - position);
        sizeLine = trim(sizeLine.substr(0, sizeLine.find(';')));
        auto size = readInteger(sizeLine, 16);
        if (!size || *size < 0) return malformed("bad chunk size");
        if (*size == 0) return out;
        const size_t dataStart = lineEnd + crlf.size();
        const auto chunk = static_cast<uint64_t>(*size);
        if (data.size() - dataStart < chunk + 2) return incomplete();
        out.append(data.substr(dataStart, chunk));
        // The two bytes after a chunk are skipped unchecked: engines that end
        // chunks sloppily still get read.
        position = dataStart + chunk + 2;
    }
}

}  // namespace wharfy
