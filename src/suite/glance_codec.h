#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/result.h"
#include "suite/glance_record.h"
#include "suite/json_value.h"

namespace nemarro::suite {

/// Reads and writes glance files. Pure: bytes in, result out, no file access.
/// The rules are a contract between separately shipped apps, so a file that
/// breaks one is rejected whole with a fixed reason and never repaired.
struct GlanceCodec {
    /// The largest glance file, in bytes, on both sides.
    static constexpr size_t kMaxFileSize = 2048;

    /// Validates and decodes the bytes of one file; `fileName` is its last
    /// path component ("wharfy.json"). Never fails: problems are `invalid`.
    static GlanceReadResult decode(std::string_view data, std::string_view fileName);

    /// Validates and serialises: compact, keys in byte order, numbers rounded
    /// to two decimals, at most kMaxFileSize bytes.
    static wharfy::Result<std::string, GlanceValidationError> encode(const GlanceRecord& record);

    /// The record rules shared by both directions, first failure wins; absent when valid.
    static std::optional<std::string> problem(const GlanceRecord& record);
    /// The rules of one metric, first failure wins; absent when valid.
    static std::optional<std::string> problem(const GlanceMetric& metric);
    /// The rules for free text (label, unit): `lo` to `hi` Unicode scalars, no
    /// slash or backslash, no control characters, no bidi formatting.
    /// Bytes that are not UTF-8 count as one scalar each.
    static std::optional<std::string> textProblem(std::string_view field, std::string_view text,
                                                  size_t lo, size_t hi);

    /// A JSON true or false; a number is never a boolean.
    static std::optional<bool> boolean(const JSONValue& value);
    /// A finite JSON number.
    static std::optional<double> number(const JSONValue& value);
    /// A finite JSON number without fraction and below 10^15 in magnitude
    /// (so 3.0 is 3, while 3.5 and 1e15 are no integers).
    static std::optional<int64_t> integer(const JSONValue& value);

    /// A metric number as written: rounded to two decimals, halves away from zero.
    static double roundedValue(double value);
};

}  // namespace nemarro::suite
