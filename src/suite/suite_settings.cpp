#include "suite/suite_settings.h"

#include <cmath>

#include "suite/glance_codec.h"
#include "suite/glance_store.h"

namespace nemarro::suite {

namespace {

std::optional<std::vector<MetricRef>> metricRefs(const JSONValue& value) {
    const auto* list = value.as<JSONValue::Array>();
    if (!list) return std::nullopt;
    std::vector<MetricRef> refs;
    for (const JSONValue& entry : *list) {
        const auto* object = entry.as<JSONValue::Object>();
        if (!object) continue;
        auto app = object->find("app");
        auto metric = object->find("metric");
        if (app == object->end() || metric == object->end()) continue;
        const auto* appId = app->second.as<std::string>();
        const auto* metricId = metric->second.as<std::string>();
        auto suiteApp = appId ? suiteAppFromId(*appId) : std::nullopt;
        if (!suiteApp || !metricId) continue;
        refs.push_back(MetricRef{*suiteApp, *metricId});
    }
    return refs;
}

std::optional<ScreenPoint> point(const JSONValue& value) {
    const auto* pair = value.as<JSONValue::Array>();
    if (!pair || pair->size() != 2) return std::nullopt;
    auto x = GlanceCodec::number((*pair)[0]);
    auto y = GlanceCodec::number((*pair)[1]);
    if (!x || !y) return std::nullopt;
    return ScreenPoint{*x, *y};
}

// Takes the known key out of `unknown` when its value has the expected form.
template <typename T, typename Read>
std::optional<T> take(JSONValue::Object& unknown, const std::string& key, Read read) {
    auto it = unknown.find(key);
    if (it == unknown.end()) return std::nullopt;
    std::optional<T> value = read(it->second);
    if (value) unknown.erase(it);
    return value;
}

}  // namespace

SuiteSettings SuiteSettings::parse(std::string_view bytes) {
    SuiteSettings settings;
    auto parsed = parseJSON(bytes);
    const auto* object = parsed ? parsed->as<JSONValue::Object>() : nullptr;
    if (!object) return settings;
    settings.unknown = *object;
    JSONValue::Object& rest = settings.unknown;
    settings.menuBarValues = take<std::vector<MetricRef>>(rest, "menuBarValues", metricRefs);
    settings.floatingVisible =
        take<bool>(rest, "floatingVisible", GlanceCodec::boolean).value_or(false);
    settings.floatingExpanded =
        take<bool>(rest, "floatingExpanded", GlanceCodec::boolean).value_or(false);
    settings.floatingTopLeft = take<ScreenPoint>(rest, "floatingTopLeft", point);
    settings.statusItemPosition = take<double>(rest, "statusItemPosition", GlanceCodec::number);
    return settings;
}

std::string SuiteSettings::serialise() const {
    JSONValue::Object out = unknown;
    // A field away from its default replaces whatever was kept under its key;
    // at its default it leaves a kept value alone.
    const auto set = [&out](const std::string& key, JSONValue value) {
        out[key] = std::move(value);
    };
    const auto setDefault = [&out](const std::string& key, bool value) {
        out.emplace(key, JSONValue{value});
    };
    if (menuBarValues) {
        JSONValue::Array refs;
        for (const MetricRef& ref : *menuBarValues)
            refs.push_back(JSONValue{JSONValue::Object{{"app", JSONValue{std::string(id(ref.app))}},
                                                       {"metric", JSONValue{ref.metric}}}});
        set("menuBarValues", JSONValue{std::move(refs)});
    }
    if (floatingVisible)
        set("floatingVisible", JSONValue{true});
    else
        setDefault("floatingVisible", false);
    if (floatingExpanded)
        set("floatingExpanded", JSONValue{true});
    else
        setDefault("floatingExpanded", false);
    if (floatingTopLeft)
        set("floatingTopLeft", JSONValue{JSONValue::Array{JSONValue{floatingTopLeft->x},
                                                          JSONValue{floatingTopLeft->y}}});
    if (statusItemPosition) set("statusItemPosition", JSONValue{*statusItemPosition});
    return writeJSON(JSONValue{std::move(out)});
}

SuiteSettings SuiteSettings::read(const SuiteFolder& folder) {
    SafeRead file = safeRead(folder.settingsPath(), kReadLimit);
    if (const auto* data = std::get_if<SafeReadData>(&file)) return parse(data->bytes);
    return SuiteSettings{};
}

wharfy::Result<wharfy::Ok, SuiteFileError> SuiteSettings::write(const SuiteFolder& folder) const {
    return writeFileAtomically(folder.path, kFileName, serialise());
}

}  // namespace nemarro::suite
