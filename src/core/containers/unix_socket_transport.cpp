#include "core/containers/http.h"

namespace wharfy {

bool UnixSocketTransport::isValidTarget(std::string_view path) {
    if (!path.starts_with('/')) return false;
    return path.find_first_of(" \r\n") == std::string_view::npos;
}

std::string UnixSocketTransport::requestText(std::string_view path) {
    static constexpr std::string_view kTail =
        " HTTP/1.1\r\nHost: docker\r\nAccept: application/json\r\nUser-Agent: NemarroWharfy\r\n"
        "Connection: close\r\n\r\n";
    std::string request;
    request.reserve(4 + path.size() + kTail.size());
    request.append("GET ").append(path).append(kTail);
    return request;
}

}  // namespace wharfy
