#include "suite/json_value.h"

namespace nemarro::suite {

// Kept apart from the reader and writer so that g++ never inlines these moves
// there (see the declarations).
JSONValue::JSONValue(const JSONValue&) = default;
JSONValue::JSONValue(JSONValue&&) noexcept = default;
JSONValue& JSONValue::operator=(const JSONValue&) = default;
JSONValue& JSONValue::operator=(JSONValue&&) noexcept = default;
JSONValue::~JSONValue() = default;

}  // namespace nemarro::suite
