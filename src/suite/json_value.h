#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace nemarro::suite {

/// A JSON value as the suite's files hold it. A number written without
/// fraction or exponent that fits 64 bits is an `integer`; every other number
/// is a `number` (a double, infinite when the text overflows).
struct JSONValue {
    using Array = std::vector<JSONValue>;
    /// Keys in byte order, which is also the order in which they are written.
    using Object = std::map<std::string, JSONValue>;
    using Storage = std::variant<bool, int64_t, double, std::string, Array, Object, std::nullptr_t>;

    Storage value = nullptr;

    JSONValue() = default;
    /// From anything one of the cases can be made from: true, int64_t{3}, 2.5, "text", nullptr.
    template <typename T, typename = std::enable_if_t<!std::is_same_v<std::decay_t<T>, JSONValue> &&
                                                      std::is_constructible_v<Storage, T>>>
    JSONValue(T&& v) : value(std::forward<T>(v)) {}  // NOLINT: implicit by design
    // Out of line: g++ 12 reports false "may be used uninitialized" warnings
    // when it inlines moves of this recursive variant.
    JSONValue(const JSONValue&);
    JSONValue(JSONValue&&) noexcept;
    JSONValue& operator=(const JSONValue&);
    JSONValue& operator=(JSONValue&&) noexcept;
    ~JSONValue();

    template <typename T>
    const T* as() const {
        return std::get_if<T>(&value);
    }

    bool operator==(const JSONValue&) const = default;
};

/// How deep arrays and objects may nest before a text is refused.
inline constexpr size_t kMaxJSONDepth = 512;

/// Reads exactly one JSON value (RFC 8259), with surrounding blanks and an
/// optional UTF-8 byte order mark. Absent for anything else: invalid UTF-8,
/// unpaired surrogate escapes, raw control characters in strings, a key that
/// appears twice in one object, nesting deeper than kMaxJSONDepth, trailing text.
std::optional<JSONValue> parseJSON(std::string_view text);

/// Compact JSON: no blanks, keys in byte order, "/" not escaped, non-ASCII
/// written as UTF-8 (bytes that are not UTF-8 become U+FFFD). A `number`
/// always keeps a fraction or exponent ("1.0") so it reads back as a number;
/// one that is not finite is written as null.
std::string writeJSON(const JSONValue& value);

}  // namespace nemarro::suite
