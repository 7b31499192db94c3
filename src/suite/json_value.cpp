#include "suite/json_value.h"

#include <charconv>
#include <cmath>
#include <limits>

#include "common/text.h"

namespace nemarro::suite {

using wharfy::appendUtf8;
using wharfy::utf8Step;
using wharfy::Utf8Step;

namespace {

class Reader {
  public:
    explicit Reader(std::string_view text) : s_(text) {}

    std::optional<JSONValue> document() {
        if (s_.substr(0, 3) == "\xEF\xBB\xBF") i_ = 3;
        auto v = value(0);
        if (!v) return std::nullopt;
        skipBlanks();
        if (i_ != s_.size()) return std::nullopt;
        return v;
    }

  private:
    std::string_view s_;
    size_t i_ = 0;

    bool atEnd() const { return i_ >= s_.size(); }
    char peek() const { return s_[i_]; }

    void skipBlanks() {
        while (!atEnd() && (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r'))
            ++i_;
    }

    bool literal(std::string_view word) {
        if (s_.substr(i_, word.size()) != word) return false;
        i_ += word.size();
        return true;
    }

    std::optional<JSONValue> value(size_t depth) {
        skipBlanks();
        if (atEnd()) return std::nullopt;
        switch (peek()) {
            case '{':
                return object(depth + 1);
            case '[':
                return array(depth + 1);
            case '"': {
                std::string text;
                if (!string(text)) return std::nullopt;
                return JSONValue{std::move(text)};
            }
            case 't':
                if (literal("true")) return JSONValue{true};
                return std::nullopt;
            case 'f':
                if (literal("false")) return JSONValue{false};
                return std::nullopt;
            case 'n':
                if (literal("null")) return JSONValue{nullptr};
                return std::nullopt;
            default:
                return number();
        }
    }

    std::optional<JSONValue> object(size_t depth) {
        if (depth > kMaxJSONDepth) return std::nullopt;
        ++i_;
        JSONValue::Object members;
        skipBlanks();
        if (!atEnd() && peek() == '}') {
            ++i_;
            return JSONValue{std::move(members)};
        }
        for (;;) {
            skipBlanks();
            std::string key;
            if (atEnd() || peek() != '"' || !string(key)) return std::nullopt;
            skipBlanks();
            if (atEnd() || peek() != ':') return std::nullopt;
            ++i_;
            auto member = value(depth);
            if (!member) return std::nullopt;
            // A repeated key would let two readers see two different records.
            if (!members.emplace(std::move(key), std::move(*member)).second) return std::nullopt;
            skipBlanks();
            if (atEnd()) return std::nullopt;
            if (peek() == '}') {
                ++i_;
                return JSONValue{std::move(members)};
            }
            if (peek() != ',') return std::nullopt;
            ++i_;
        }
    }

    std::optional<JSONValue> array(size_t depth) {
        if (depth > kMaxJSONDepth) return std::nullopt;
        ++i_;
        JSONValue::Array elements;
        skipBlanks();
        if (!atEnd() && peek() == ']') {
            ++i_;
            return JSONValue{std::move(elements)};
        }
        for (;;) {
            auto element = value(depth);
            if (!element) return std::nullopt;
            elements.push_back(std::move(*element));
            skipBlanks();
            if (atEnd()) return std::nullopt;
            if (peek() == ']') {
                ++i_;
                return JSONValue{std::move(elements)};
            }
            if (peek() != ',') return std::nullopt;
            ++i_;
        }
    }

    bool escape(std::string& out) {
        auto used = wharfy::decodeJsonEscape(s_.substr(i_), out);
        if (!used) return false;
        i_ += *used;
        return true;
    }

    bool string(std::string& out) {
        ++i_;
        while (!atEnd()) {
            const auto c = static_cast<unsigned char>(peek());
            if (c == '"') {
                ++i_;
                return true;
            }
            if (c < 0x20) return false;
            if (c == '\\') {
                ++i_;
                if (!escape(out)) return false;
                continue;
            }
            auto step = utf8Step(s_, i_);
            if (!step.valid) return false;
            out.append(s_.substr(i_, step.length));
            i_ += step.length;
        }
        return false;
    }

    static bool isDigit(char c) { return c >= '0' && c <= '9'; }

    std::optional<JSONValue> number() {
        const size_t start = i_;
        if (!atEnd() && peek() == '-') ++i_;
        if (atEnd() || !isDigit(peek())) return std::nullopt;
        if (peek() == '0')
            ++i_;
        else
            while (!atEnd() && isDigit(peek()))
                ++i_;
        bool integral = true;
        if (!atEnd() && peek() == '.') {
            integral = false;
            ++i_;
            if (atEnd() || !isDigit(peek())) return std::nullopt;
            while (!atEnd() && isDigit(peek()))
                ++i_;
        }
        if (!atEnd() && (peek() == 'e' || peek() == 'E')) {
            integral = false;
            ++i_;
            if (!atEnd() && (peek() == '+' || peek() == '-')) ++i_;
            if (atEnd() || !isDigit(peek())) return std::nullopt;
            while (!atEnd() && isDigit(peek()))
                ++i_;
        }
        const std::string_view text = s_.substr(start, i_ - start);
        const char* first = text.data();
        const char* last = text.data() + text.size();
        if (integral) {
            int64_t v = 0;
            auto [end, ec] = std::from_chars(first, last, v);
            if (ec == std::errc() && end == last) return JSONValue{v};
        }
        double d = 0;
        auto [end, ec] = std::from_chars(first, last, d);
        if (ec == std::errc::result_out_of_range) return JSONValue{outOfRange(text)};
        if (ec != std::errc() || end != last) return std::nullopt;
        return JSONValue{d};
    }

    // from_chars leaves the value untouched when the text is beyond a double:
    // decide from the decimal exponent whether it overflowed (±infinity) or
    // underflowed (±0).
    static double outOfRange(std::string_view text) {
        const bool negative = text.front() == '-';
        int64_t magnitude = 0;  // decimal exponent of the first significant digit
        bool seenSignificant = false;
        bool afterPoint = false;
        size_t k = negative ? 1 : 0;
        for (; k < text.size() && text[k] != 'e' && text[k] != 'E'; ++k) {
            if (text[k] == '.') {
                afterPoint = true;
                continue;
            }
            if (!seenSignificant && text[k] != '0') {
                seenSignificant = true;
                if (afterPoint) --magnitude;
                continue;
            }
            if (!seenSignificant && afterPoint) --magnitude;
            if (seenSignificant && !afterPoint) ++magnitude;
        }
        int64_t exponent = 0;
        if (k < text.size()) {
            ++k;
            bool negativeExponent = false;
            if (text[k] == '+' || text[k] == '-') negativeExponent = text[k++] == '-';
            for (; k < text.size(); ++k)
                exponent = std::min<int64_t>(exponent * 10 + (text[k] - '0'), 1'000'000'000);
            if (negativeExponent) exponent = -exponent;
        }
        const double huge = std::numeric_limits<double>::infinity();
        const double result = magnitude + exponent > 0 ? huge : 0.0;
        return negative ? -result : result;
    }
};

void writeString(std::string& out, std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    out.push_back('"');
    for (size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c >= 0x80) {
            auto step = utf8Step(text, i);
            if (step.valid)
                out.append(text.substr(i, step.length));
            else
                appendUtf8(out, 0xFFFD);
            i += step.length;
            continue;
        }
        ++i;
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    out += "\\u00";
                    out.push_back(kHex[c >> 4]);
                    out.push_back(kHex[c & 0xF]);
                } else {
                    out.push_back(static_cast<char>(c));
                }
        }
    }
    out.push_back('"');
}

void writeDouble(std::string& out, double d) {
    if (!std::isfinite(d)) {
        out += "null";
        return;
    }
    char buffer[64];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, d);
    std::string_view text(buffer, static_cast<size_t>(end - buffer));
    out += text;
    if (text.find_first_of(".e") == std::string_view::npos) out += ".0";
}

void write(std::string& out, const JSONValue& value) {
    struct Visitor {
        std::string& out;
        void operator()(bool b) const { out += b ? "true" : "false"; }
        void operator()(int64_t i) const {
            char buffer[24];
            auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, i);
            out.append(buffer, end);
        }
        void operator()(double d) const { writeDouble(out, d); }
        void operator()(const std::string& s) const { writeString(out, s); }
        void operator()(const JSONValue::Array& a) const {
            out.push_back('[');
            for (size_t k = 0; k < a.size(); ++k) {
                if (k) out.push_back(',');
                write(out, a[k]);
            }
            out.push_back(']');
        }
        void operator()(const JSONValue::Object& o) const {
            out.push_back('{');
            bool first = true;
            for (const auto& [key, member] : o) {
                if (!first) out.push_back(',');
                first = false;
                writeString(out, key);
                out.push_back(':');
                write(out, member);
            }
            out.push_back('}');
        }
        void operator()(std::nullptr_t) const { out += "null"; }
    };
    std::visit(Visitor{out}, value.value);
}

}  // namespace

std::optional<JSONValue> parseJSON(std::string_view text) {
    return Reader(text).document();
}

std::string writeJSON(const JSONValue& value) {
    std::string out;
    write(out, value);
    return out;
}

}  // namespace nemarro::suite
