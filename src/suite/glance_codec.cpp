#include "suite/glance_codec.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "common/text.h"

namespace nemarro::suite {

using wharfy::appendUtf8;
using wharfy::utf8Step;
using wharfy::Utf8Step;

namespace {

constexpr double kIntegerLimit = 1e15;

bool isBidiFormatting(char32_t s) {
    static constexpr std::array<char32_t, 12> kBidi{0x061C, 0x200E, 0x200F, 0x202A, 0x202B, 0x202C,
                                                    0x202D, 0x202E, 0x2066, 0x2067, 0x2068, 0x2069};
    return std::find(kBidi.begin(), kBidi.end(), s) != kBidi.end();
}

bool isControl(char32_t s) {
    return s < 0x20 || (s >= 0x7F && s <= 0x9F);
}

size_t scalarCount(std::string_view text) {
    size_t count = 0;
    for (size_t i = 0; i < text.size(); i += utf8Step(text, i).length)
        ++count;
    return count;
}

const JSONValue* member(const JSONValue::Object& object, const std::string& key) {
    auto it = object.find(key);
    return it == object.end() ? nullptr : &it->second;
}

const std::string* stringMember(const JSONValue::Object& object, const std::string& key) {
    const JSONValue* v = member(object, key);
    return v ? v->as<std::string>() : nullptr;
}

std::optional<GlanceLevel> levelMember(const JSONValue::Object& object) {
    const std::string* text = stringMember(object, "level");
    return text ? glanceLevelFromWord(*text) : std::nullopt;
}

// One metric element: its presence and type checks, in their fixed order.
// Ranges and character rules are left to the record check.
std::variant<GlanceMetric, GlanceInvalid> decodeMetric(const JSONValue& element) {
    const auto* object = element.as<JSONValue::Object>();
    if (!object) return GlanceInvalid{"metric: an object"};
    GlanceMetric metric;
    const std::string* id = stringMember(*object, "id");
    if (!id) return GlanceInvalid{"metric id length"};
    const std::string* label = stringMember(*object, "label");
    if (!label) return GlanceInvalid{"label: 1-16 scalars"};
    const std::string* unit = stringMember(*object, "unit");
    if (!unit) return GlanceInvalid{"unit: 0-6 scalars"};
    auto level = levelMember(*object);
    if (!level) return GlanceInvalid{"level"};
    const JSONValue* value = member(*object, "value");
    if (const auto* text = value ? value->as<std::string>() : nullptr) {
        auto stateWord = stateWordFromWord(*text);
        if (!stateWord) return GlanceInvalid{"value: closed state-word list"};
        metric.value = *stateWord;
    } else {
        auto n = value ? GlanceCodec::number(*value) : std::nullopt;
        if (!n) return GlanceInvalid{"value: finite number"};
        metric.value = *n;
    }
    metric.id = *id;
    metric.label = *label;
    metric.unit = *unit;
    metric.level = *level;
    return metric;
}

// Integral values below the integer limit are written without a fraction,
// as in "value":12; everything else keeps its shortest exact form.
JSONValue wireNumber(double d) {
    if (std::trunc(d) == d && std::fabs(d) < kIntegerLimit) return JSONValue{int64_t(d)};
    return JSONValue{d};
}

}  // namespace

std::optional<bool> GlanceCodec::boolean(const JSONValue& value) {
    if (const bool* b = value.as<bool>()) return *b;
    return std::nullopt;
}

std::optional<double> GlanceCodec::number(const JSONValue& value) {
    if (const int64_t* i = value.as<int64_t>()) return static_cast<double>(*i);
    if (const double* d = value.as<double>(); d && std::isfinite(*d)) return *d;
    return std::nullopt;
}

std::optional<int64_t> GlanceCodec::integer(const JSONValue& value) {
    auto d = number(value);
    if (!d || std::trunc(*d) != *d || std::fabs(*d) >= kIntegerLimit) return std::nullopt;
    return static_cast<int64_t>(*d);
}

double GlanceCodec::roundedValue(double value) {
    return std::round(value * 100) / 100;
}

std::optional<std::string> GlanceCodec::textProblem(std::string_view field, std::string_view text,
                                                    size_t lo, size_t hi) {
    const std::string name(field);
    const size_t count = scalarCount(text);
    if (count < lo || count > hi)
        return name + ": " + std::to_string(lo) + "-" + std::to_string(hi) + " scalars";
    for (size_t i = 0; i < text.size();) {
        const Utf8Step step = utf8Step(text, i);
        i += step.length;
        if (step.scalar == U'/' || step.scalar == U'\\') return name + ": no / or \\";
        if (isControl(step.scalar)) return name + ": no control characters";
        if (isBidiFormatting(step.scalar)) return name + ": no bidi formatting";
    }
    return std::nullopt;
}

std::optional<std::string> GlanceCodec::problem(const GlanceMetric& metric) {
    const size_t idLength = scalarCount(metric.id);
    if (idLength < 1 || idLength > 24) return "metric id length";
    for (char c : metric.id)
        if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-'))
            return "metric id charset";
    if (auto p = textProblem("label", metric.label, 1, 16)) return p;
    if (auto p = textProblem("unit", metric.unit, 0, 6)) return p;
    if (const double* n = std::get_if<double>(&metric.value)) {
        if (!std::isfinite(*n)) return "value: finite number";
        const double cents = *n * 100;
        // Written as !(x < limit) so that an overflowing product (NaN) fails too.
        if (!(std::fabs(cents - std::round(cents)) < 1e-6)) return "value: at most 2 decimals";
    }
    return std::nullopt;
}

std::optional<std::string> GlanceCodec::problem(const GlanceRecord& record) {
    if (record.contract < 1) return "contract: integer >= 1";
    if (record.ttl < 3 || record.ttl > 60) return "ttl: 3-60";
    if (!std::isfinite(record.at)) return "at: required number";
    if (record.metrics.size() > 4) return "metrics: 0-4";
    for (size_t i = 0; i < record.metrics.size(); ++i) {
        if (auto p = problem(record.metrics[i])) return p;
        for (size_t k = 0; k < i; ++k)
            if (record.metrics[k].id == record.metrics[i].id) return "metric ids unique";
    }
    return std::nullopt;
}

GlanceReadResult GlanceCodec::decode(std::string_view data, std::string_view fileName) {
    if (data.size() > kMaxFileSize) return GlanceInvalid{"size: at most 2,048 bytes"};
    auto parsed = parseJSON(data);
    if (!parsed) return GlanceInvalid{"JSON"};
    const auto* object = parsed->as<JSONValue::Object>();
    if (!object) return GlanceInvalid{"an object"};

    const JSONValue* contractValue = member(*object, "contract");
    auto contract = contractValue ? integer(*contractValue) : std::nullopt;
    if (!contract || *contract < 1) return GlanceInvalid{"contract: integer >= 1"};
    if (*contract != 1) return GlanceSkipped{*contract};

    GlanceRecord record;
    const std::string* appId = stringMember(*object, "app");
    auto app = appId ? suiteAppFromId(*appId) : std::nullopt;
    if (!app) return GlanceInvalid{"app: catalog id"};
    if (glanceFileName(*app) != fileName) return GlanceInvalid{"app equals file name"};
    record.app = *app;

    const JSONValue* hostingValue = member(*object, "hosting");
    auto hosting = hostingValue ? boolean(*hostingValue) : std::nullopt;
    if (!hosting) return GlanceInvalid{"hosting: boolean"};
    record.hosting = *hosting;

    const std::string* stateText = stringMember(*object, "state");
    auto state = stateText ? glanceStateFromWord(*stateText) : std::nullopt;
    if (!state) return GlanceInvalid{"state"};
    record.state = *state;

    const JSONValue* atValue = member(*object, "at");
    auto at = atValue ? number(*atValue) : std::nullopt;
    if (!at) return GlanceInvalid{"at: required number"};
    record.at = *at;

    const JSONValue* ttlValue = member(*object, "ttl");
    auto ttl = ttlValue ? number(*ttlValue) : std::nullopt;
    if (!ttl) return GlanceInvalid{"ttl: 3-60"};
    if (std::trunc(*ttl) != *ttl) return GlanceInvalid{"ttl: integer"};

    auto level = levelMember(*object);
    if (!level) return GlanceInvalid{"level"};
    record.level = *level;

    const JSONValue* metricsValue = member(*object, "metrics");
    const auto* metrics = metricsValue ? metricsValue->as<JSONValue::Array>() : nullptr;
    if (!metrics || metrics->size() > 4) return GlanceInvalid{"metrics: 0-4"};
    for (const JSONValue& element : *metrics) {
        auto metric = decodeMetric(element);
        if (auto* invalid = std::get_if<GlanceInvalid>(&metric)) return std::move(*invalid);
        record.metrics.push_back(std::move(std::get<GlanceMetric>(metric)));
    }

    // 2^63 itself is the first magnitude that no longer fits.
    if (*ttl < -9223372036854775808.0 || *ttl >= 9223372036854775808.0)
        return GlanceInvalid{"ttl: 3-60"};
    record.ttl = static_cast<int64_t>(*ttl);

    if (auto p = problem(record)) return GlanceInvalid{*p};
    return record;
}

wharfy::Result<std::string, GlanceValidationError> GlanceCodec::encode(const GlanceRecord& record) {
    if (auto p = problem(record)) return GlanceValidationError{*p};
    JSONValue::Array metrics;
    for (const GlanceMetric& metric : record.metrics) {
        JSONValue value;
        if (const double* n = std::get_if<double>(&metric.value))
            value = wireNumber(roundedValue(*n));
        else
            value = JSONValue{std::string(word(std::get<StateWord>(metric.value)))};
        metrics.push_back(JSONValue{JSONValue::Object{
            {"id", JSONValue{metric.id}},
            {"label", JSONValue{metric.label}},
            {"value", std::move(value)},
            {"unit", JSONValue{metric.unit}},
            {"level", JSONValue{std::string(word(metric.level))}},
        }});
    }
    const JSONValue wire{JSONValue::Object{
        {"contract", JSONValue{record.contract}},
        {"app", JSONValue{std::string(id(record.app))}},
        {"hosting", JSONValue{record.hosting}},
        {"state", JSONValue{std::string(word(record.state))}},
        {"at", wireNumber(record.at)},
        {"ttl", JSONValue{record.ttl}},
        {"level", JSONValue{std::string(word(record.level))}},
        {"metrics", JSONValue{std::move(metrics)}},
    }};
    std::string bytes = writeJSON(wire);
    if (bytes.size() > kMaxFileSize) return GlanceValidationError{"size: at most 2,048 bytes"};
    return bytes;
}

}  // namespace nemarro::suite
