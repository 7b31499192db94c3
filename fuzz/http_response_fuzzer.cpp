// Raw engine responses: the parser must refuse or read any byte sequence,
// and what it reads must hold together.

#include <algorithm>
#include <string>

#include "core/containers/http.h"
#include "fuzz_check.h"

using wharfy::HTTPResponseParser;

namespace {

/// `body` sent again as a chunked response, in pieces of `piece` bytes.
std::string chunked(int status, const std::string& body, size_t piece) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out =
        "HTTP/1.1 " + std::to_string(status) + " OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (size_t at = 0; at < body.size(); at += piece) {
        const size_t n = std::min(piece, body.size() - at);
        std::string size;
        for (size_t v = n; v != 0; v >>= 4)
            size.insert(size.begin(), kHex[v & 0xF]);
        out += size + ";x=y\r\n" + body.substr(at, n) + "\r\n";
    }
    return out + "0\r\n\r\n";
}

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto bytes = wharfy::fuzz::asText(data, size);

    if (auto parsed = HTTPResponseParser::parse(bytes)) {
        const auto& response = parsed.value();
        for (const auto& [name, value] : response.headers) {
            FUZZ_CHECK(std::none_of(name.begin(), name.end(),
                                    [](char c) { return c >= 'A' && c <= 'Z'; }));
            FUZZ_CHECK(value.empty() || (!isBlank(value.front()) && !isBlank(value.back())));
        }
        FUZZ_CHECK(response.body.size() <= bytes.size());

        // Whatever was read survives a round through chunked encoding.
        const size_t piece = 1 + static_cast<size_t>(response.status & 0xFF);
        auto again = HTTPResponseParser::parse(chunked(response.status, response.body, piece));
        FUZZ_CHECK(again.ok());
        FUZZ_CHECK(again.value().status == response.status);
        FUZZ_CHECK(again.value().body == response.body);
    }

    if (auto decoded = HTTPResponseParser::decodeChunked(bytes))
        FUZZ_CHECK(decoded.value().size() <= bytes.size());
    return 0;
}
