#include "core/containers/engine_records.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace wharfy {
namespace {

using nlohmann::json;

/// Thrown inside the decoders only; the public functions turn it into a DecodeError.
struct Malformed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string where(const char* context, const char* key) {
    return std::string(context) + ": key \"" + key + "\"";
}

/// The value at `key`, or null when absent or JSON null (both mean "not given").
const json* field(const json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) return nullptr;
    return &*it;
}

const json& requireObject(const json& value, const char* context) {
    if (!value.is_object()) throw Malformed(std::string(context) + ": expected an object");
    return value;
}

const json& requireArray(const json& value, const char* context) {
    if (!value.is_array()) throw Malformed(std::string(context) + ": expected an array");
    return value;
}

std::string stringAt(const json& object, const char* key, const char* context, bool required) {
    const json* v = field(object, key);
    if (!v) {
        if (required) throw Malformed(where(context, key) + " is missing");
        return {};
    }
    if (!v->is_string()) throw Malformed(where(context, key) + " is not a string");
    return v->get<std::string>();
}

std::vector<std::string> stringsAt(const json& object, const char* key, const char* context) {
    std::vector<std::string> out;
    const json* v = field(object, key);
    if (!v) return out;
    if (!v->is_array()) throw Malformed(where(context, key) + " is not an array");
    for (const auto& item : *v) {
        if (!item.is_string()) throw Malformed(where(context, key) + " holds a non-string");
        out.push_back(item.get<std::string>());
    }
    return out;
}

std::optional<int64_t> integerAt(const json& object, const char* key, const char* context) {
    const json* v = field(object, key);
    if (!v) return std::nullopt;
    // Unsigned first: the JSON reader counts an unsigned number as an integer
    // too, and reading one above INT64_MAX as signed would wrap it negative.
    // Beyond the signed range a broken engine's figure is held at the largest
    // one instead.
    if (v->is_number_unsigned()) {
        const auto u = v->get<uint64_t>();
        constexpr auto kMax = std::numeric_limits<int64_t>::max();
        return u > static_cast<uint64_t>(kMax) ? kMax : static_cast<int64_t>(u);
    }
    if (v->is_number_integer()) return v->get<int64_t>();
    throw Malformed(where(context, key) + " is not an integer");
}

std::optional<uint16_t> portAt(const json& object, const char* key, const char* context) {
    auto v = integerAt(object, key, context);
    if (!v) return std::nullopt;
    if (*v < 0 || *v > 65535) throw Malformed(where(context, key) + " is not a port number");
    return static_cast<uint16_t>(*v);
}

bool boolAt(const json& object, const char* key, const char* context) {
    const json* v = field(object, key);
    if (!v) return false;
    if (!v->is_boolean()) throw Malformed(where(context, key) + " is not a boolean");
    return v->get<bool>();
}

PublishedPort decodePort(const json& value) {
    constexpr const char* ctx = "Ports[]";
    requireObject(value, ctx);
    PublishedPort port;
    const json* ip = field(value, "IP");
    if (ip) {
        if (!ip->is_string()) throw Malformed(where(ctx, "IP") + " is not a string");
        port.ip = ip->get<std::string>();
    }
    auto privatePort = portAt(value, "PrivatePort", ctx);
    if (!privatePort) throw Malformed(where(ctx, "PrivatePort") + " is missing");
    port.privatePort = *privatePort;
    port.publicPort = portAt(value, "PublicPort", ctx);
    port.type = stringAt(value, "Type", ctx, true);
    return port;
}

ContainerInfo decodeContainer(const json& value) {
    constexpr const char* ctx = "container";
    requireObject(value, ctx);
    ContainerInfo c;
    c.id = stringAt(value, "Id", ctx, true);
    c.names = stringsAt(value, "Names", ctx);
    c.image = stringAt(value, "Image", ctx, false);
    c.state = stringAt(value, "State", ctx, false);
    c.status = stringAt(value, "Status", ctx, false);
    if (const json* ports = field(value, "Ports")) {
        requireArray(*ports, "Ports");
        c.ports.reserve(ports->size());
        for (const auto& p : *ports)
            c.ports.push_back(decodePort(p));
    }
    return c;
}

/// The list under the older top-level key, else under the newer key's "Items".
const json* usageList(const json& root, const char* olderKey, const char* newerKey) {
    if (const json* older = field(root, olderKey)) return &requireArray(*older, olderKey);
    if (const json* newer = field(root, newerKey)) {
        requireObject(*newer, newerKey);
        if (const json* items = field(*newer, "Items")) return &requireArray(*items, newerKey);
    }
    return nullptr;
}

DiskUsage decodeDiskUsage(const json& root) {
    requireObject(root, "disk usage");
    DiskUsage usage;
    if (const json* list = usageList(root, "Images", "ImageUsage")) {
        for (const auto& item : *list) {
            requireObject(item, "image");
            usage.images.push_back({stringAt(item, "Id", "image", true),
                                    stringsAt(item, "RepoTags", "image"),
                                    integerAt(item, "Size", "image").value_or(0),
                                    integerAt(item, "Containers", "image").value_or(0)});
        }
    }
    if (const json* list = usageList(root, "Containers", "ContainerUsage")) {
        for (const auto& item : *list) {
            requireObject(item, "container");
            usage.containers.push_back({stringAt(item, "Id", "container", true),
                                        stringsAt(item, "Names", "container"),
                                        stringAt(item, "State", "container", false),
                                        integerAt(item, "SizeRw", "container").value_or(0)});
        }
    }
    if (const json* list = usageList(root, "Volumes", "VolumeUsage")) {
        for (const auto& item : *list) {
            requireObject(item, "volume");
            DiskUsage::Volume volume{stringAt(item, "Name", "volume", true), std::nullopt, 0};
            if (const json* data = field(item, "UsageData")) {
                requireObject(*data, "UsageData");
                volume.refCount = integerAt(*data, "RefCount", "UsageData");
                volume.size = integerAt(*data, "Size", "UsageData").value_or(0);
            }
            usage.volumes.push_back(std::move(volume));
        }
    }
    if (const json* list = usageList(root, "BuildCache", "BuildCacheUsage")) {
        for (const auto& item : *list) {
            requireObject(item, "build cache entry");
            usage.buildCache.push_back({stringAt(item, "ID", "build cache entry", true),
                                        integerAt(item, "Size", "build cache entry").value_or(0),
                                        boolAt(item, "InUse", "build cache entry")});
        }
    }
    return usage;
}

/// Counts a body's values without building anything; stops past the limit.
class ValueCounter final : public nlohmann::json_sax<json> {
  public:
    size_t values = 0;

    bool null() override { return count(); }
    bool boolean(bool) override { return count(); }
    bool number_integer(number_integer_t) override { return count(); }
    bool number_unsigned(number_unsigned_t) override { return count(); }
    bool number_float(number_float_t, const string_t&) override { return count(); }
    bool string(string_t&) override { return count(); }
    bool binary(binary_t&) override { return count(); }
    bool start_object(std::size_t) override { return count(); }
    bool key(string_t&) override { return true; }
    bool end_object() override { return true; }
    bool start_array(std::size_t) override { return count(); }
    bool end_array() override { return true; }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }

  private:
    bool count() { return ++values <= EngineDecoder::kMaxJsonValues; }
};

/// The body as a JSON tree, refused when it holds more than kMaxJsonValues
/// values: a tree costs tens of bytes per value, so 32 MiB of "{}," would
/// otherwise take most of a gigabyte. The count runs first, on its own.
json parseBounded(std::string_view body) {
    ValueCounter counter;
    json::sax_parse(body.begin(), body.end(), &counter);
    if (counter.values > EngineDecoder::kMaxJsonValues)
        throw Malformed("more than " + std::to_string(EngineDecoder::kMaxJsonValues) + " values");
    return json::parse(body.begin(), body.end());
}

template <typename T, typename F>
Result<T, DecodeError> decodeWith(std::string_view body, F&& decode) {
    try {
        return decode(parseBounded(body));
    } catch (const Malformed& e) {
        return DecodeError{e.what()};
    } catch (const json::exception& e) {
        return DecodeError{e.what()};
    }
}

std::vector<ContainerInfo> decodeContainerList(const json& root) {
    requireArray(root, "container list");
    std::vector<ContainerInfo> out;
    out.reserve(root.size());
    for (const auto& item : root)
        out.push_back(decodeContainer(item));
    return out;
}

/// `total` plus `size`, a negative size counted as 0, held at the largest
/// value instead of overflowing.
int64_t addSize(int64_t total, int64_t size) {
    constexpr auto kMax = std::numeric_limits<int64_t>::max();
    if (size <= 0) return total;
    return size > kMax - total ? kMax : total + size;
}

/// Digits and dots, as "1.41": the text goes into every request path.
bool isApiVersion(const std::string& text) {
    if (text.empty() || text.size() > 16 || text.front() < '0' || text.front() > '9') return false;
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return (c >= '0' && c <= '9') || c == '.'; });
}

bool isStoppedState(const std::string& state) {
    return state == "exited" || state == "created" || state == "dead";
}

}  // namespace

std::string ContainerInfo::name() const {
    if (names.empty()) return id.substr(0, 12);
    const std::string& first = names.front();
    return first.starts_with('/') ? first.substr(1) : first;
}

bool ContainerInfo::isStopped() const {
    return isStoppedState(state);
}

std::vector<DiskUsage::Container> DiskUsage::stoppedContainers() const {
    std::vector<Container> out;
    for (const auto& c : containers)
        if (isStoppedState(c.state)) out.push_back(c);
    return out;
}

std::vector<DiskUsage::Volume> DiskUsage::unusedVolumes() const {
    std::vector<Volume> out;
    for (const auto& v : volumes)
        if (v.refCount == 0) out.push_back(v);
    return out;
}

int64_t DiskUsage::reclaimableBuildCache() const {
    int64_t total = 0;
    for (const auto& b : buildCache)
        if (!b.inUse) total = addSize(total, b.size);
    return total;
}

int64_t DiskUsage::imagesSize() const {
    int64_t total = 0;
    for (const auto& i : images)
        total = addSize(total, i.size);
    return total;
}

int64_t DiskUsage::volumesSize() const {
    int64_t total = 0;
    for (const auto& v : volumes)
        total = addSize(total, v.size);
    return total;
}

Result<EngineVersion, DecodeError> EngineDecoder::version(std::string_view body) {
    return decodeWith<EngineVersion>(body, [](const json& root) {
        requireObject(root, "version");
        EngineVersion v{stringAt(root, "Version", "version", true),
                        stringAt(root, "ApiVersion", "version", true)};
        if (!isApiVersion(v.apiVersion))
            throw Malformed(where("version", "ApiVersion") + " is not a version number");
        return v;
    });
}

Result<std::vector<ContainerInfo>, DecodeError> EngineDecoder::containers(std::string_view body) {
    return decodeWith<std::vector<ContainerInfo>>(
        body, [](const json& root) { return decodeContainerList(root); });
}

Result<DiskUsage, DecodeError> EngineDecoder::diskUsage(std::string_view body) {
    return decodeWith<DiskUsage>(body, [](const json& root) { return decodeDiskUsage(root); });
}

Result<std::vector<std::string>, DecodeError> EngineDecoder::imageIDs(std::string_view body) {
    return decodeWith<std::vector<std::string>>(body, [](const json& root) {
        requireArray(root, "image list");
        std::vector<std::string> out;
        for (const auto& item : root) {
            requireObject(item, "image");
            out.push_back(stringAt(item, "Id", "image", true));
        }
        return out;
    });
}

Result<std::string, DecodeError> EngineDecoder::inspectedState(std::string_view body) {
    return decodeWith<std::string>(body, [](const json& root) {
        requireObject(root, "container inspection");
        const json* state = field(root, "State");
        if (!state) throw Malformed("container inspection: key \"State\" is missing");
        requireObject(*state, "State");
        return stringAt(*state, "Status", "State", true);
    });
}

}  // namespace wharfy
