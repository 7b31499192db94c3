#pragma once

#include <map>
#include <string>
#include <vector>

#include "core/containers/http.h"

namespace wharfy::testing {

/// EngineTransport that answers from a table of path → raw response and
/// records every path asked for. Unknown paths fail with connectFailed(ECONNREFUSED).
class FakeEngineTransport final : public EngineTransport {
  public:
    std::map<std::string, Result<std::string, TransportError>> answers;
    mutable std::vector<std::string> requests;

    Result<std::string, TransportError> get(const std::string& path) const override {
        requests.push_back(path);
        auto it = answers.find(path);
        if (it == answers.end()) return TransportError{TransportError::Kind::connectFailed, 111};
        return it->second;
    }

    /// A complete HTTP/1.1 response with a content length.
    static std::string response(int status, const std::string& body) {
        return "HTTP/1.1 " + std::to_string(status) + " X\r\nContent-Type: application/json\r\n" +
               "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }
};

}  // namespace wharfy::testing
