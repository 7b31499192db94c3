#pragma once

#include <ostream>

#include "suite/glance_codec.h"
#include "suite/json_value.h"

namespace nemarro::suite {

/// Readable records, results and values in test failures.
inline void PrintTo(const JSONValue& value, std::ostream* os) {
    *os << writeJSON(value);
}

inline void PrintTo(const GlanceRecord& record, std::ostream* os) {
    GlanceRecord shown = record;
    auto bytes = GlanceCodec::encode(shown);
    if (bytes) {
        *os << bytes.value();
        return;
    }
    *os << "record of " << id(record.app) << " at " << record.at << " (" << bytes.error().reason
        << ")";
}

inline void PrintTo(const GlanceReadResult& result, std::ostream* os) {
    if (const auto* record = std::get_if<GlanceRecord>(&result)) {
        *os << "valid ";
        PrintTo(*record, os);
    } else if (const auto* skipped = std::get_if<GlanceSkipped>(&result)) {
        *os << "skipped(contract " << skipped->contract << ")";
    } else {
        *os << "invalid(\"" << std::get<GlanceInvalid>(result).reason << "\")";
    }
}

}  // namespace nemarro::suite
