#pragma once

#include <type_traits>
#include <utility>
#include <variant>

namespace wharfy {

struct Ok {
    bool operator==(const Ok&) const = default;
};

/// The outcome of an operation the user asked for: a value, or a typed error
/// that carries the errno, status or offending text. Every user-requested
/// operation in Wharfy returns one of these; nothing throws.
template <typename T, typename E>
class [[nodiscard]] Result {
  public:
    Result(T value) : v_(std::in_place_index<0>, std::move(value)) {}  // NOLINT: implicit by design
    Result(E error) : v_(std::in_place_index<1>, std::move(error)) {}  // NOLINT

    bool ok() const { return v_.index() == 0; }
    explicit operator bool() const { return ok(); }

    const T& value() const& { return std::get<0>(v_); }
    T& value() & { return std::get<0>(v_); }
    T&& value() && { return std::get<0>(std::move(v_)); }
    const E& error() const& { return std::get<1>(v_); }

    bool operator==(const Result&) const = default;

  private:
    static_assert(!std::is_same_v<T, E>, "value and error types must differ");
    std::variant<T, E> v_;
};

}  // namespace wharfy
