#include "core/containers/engine_client.h"

namespace wharfy {
namespace {

template <typename T>
Result<T, EngineError> decoded(Result<T, DecodeError> r) {
    if (!r) return EngineError{r.error()};
    return std::move(r).value();
}

std::string percentEncoded(std::string_view text) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                          (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_' || c == '~';
        if (unreserved) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 0xF]);
        }
    }
    return out;
}

}  // namespace

std::string EngineError::description() const {
    struct Describe {
        std::string operator()(const TransportError& e) const { return e.description(); }
        std::string operator()(const HTTPError& e) const { return e.description(); }
        std::string operator()(const Status& e) const {
            return "the engine answered with HTTP status " + std::to_string(e.status);
        }
        std::string operator()(const DecodeError&) const {
            return "the engine's answer was not the expected JSON";
        }
    };
    return std::visit(Describe{}, value);
}

EngineClient::EngineClient(const std::string& socketPath, int timeoutSeconds)
    : transport_(std::make_shared<UnixSocketTransport>(socketPath, timeoutSeconds)) {}

std::string EngineClient::danglingFilterQuery() {
    return "filters=" + percentEncoded(R"({"dangling":["true"]})");
}

Result<std::string, EngineError> EngineClient::body(const std::string& path) const {
    auto raw = transport_->get(path);
    if (!raw) return EngineError{raw.error()};
    auto response = HTTPResponseParser::parse(raw.value());
    if (!response) return EngineError{response.error()};
    if (response.value().status != 200)
        return EngineError{EngineError::Status{response.value().status}};
    return std::move(response.value().body);
}

Result<std::string, EngineError> EngineClient::apiVersion() const {
    auto v = version();
    if (!v) return v.error();
    return std::move(v.value().apiVersion);
}

Result<EngineVersion, EngineError> EngineClient::version() const {
    auto b = body("/version");
    if (!b) return b.error();
    return decoded(EngineDecoder::version(b.value()));
}

Result<std::vector<ContainerInfo>, EngineError> EngineClient::containers(
    const std::string& apiVersion) const {
    auto b = body("/v" + apiVersion + "/containers/json?all=1");
    if (!b) return b.error();
    return decoded(EngineDecoder::containers(b.value()));
}

Result<DiskUsage, EngineError> EngineClient::diskUsage(const std::string& apiVersion) const {
    auto b = body("/v" + apiVersion + "/system/df");
    if (!b) return b.error();
    return decoded(EngineDecoder::diskUsage(b.value()));
}

Result<std::vector<std::string>, EngineError> EngineClient::danglingImageIDs(
    const std::string& apiVersion) const {
    auto b = body("/v" + apiVersion + "/images/json?" + danglingFilterQuery());
    if (!b) return b.error();
    return decoded(EngineDecoder::imageIDs(b.value()));
}

Result<std::optional<std::string>, EngineError> EngineClient::containerState(
    const std::string& id, const std::string& apiVersion) const {
    auto raw = transport_->get("/v" + apiVersion + "/containers/" + id + "/json");
    if (!raw) return EngineError{raw.error()};
    auto response = HTTPResponseParser::parse(raw.value());
    if (!response) return EngineError{response.error()};
    if (response.value().status == 404) return std::optional<std::string>();
    if (response.value().status != 200)
        return EngineError{EngineError::Status{response.value().status}};
    auto state = EngineDecoder::inspectedState(response.value().body);
    if (!state) return EngineError{state.error()};
    return std::optional<std::string>(std::move(state).value());
}

Result<std::vector<ContainerInfo>, EngineError> EngineClient::containers() const {
    auto api = apiVersion();
    if (!api) return api.error();
    return containers(api.value());
}

Result<DiskUsage, EngineError> EngineClient::diskUsage() const {
    auto api = apiVersion();
    if (!api) return api.error();
    return diskUsage(api.value());
}

Result<std::vector<std::string>, EngineError> EngineClient::danglingImageIDs() const {
    auto api = apiVersion();
    if (!api) return api.error();
    return danglingImageIDs(api.value());
}

Result<std::optional<std::string>, EngineError> EngineClient::containerState(
    const std::string& id) const {
    auto api = apiVersion();
    if (!api) return api.error();
    return containerState(id, api.value());
}

}  // namespace wharfy
