#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "suite/suite_app.h"

namespace nemarro::suite {

/// What a metric shows: a number, or one word of the closed state-word list.
using MetricValue = std::variant<double, StateWord>;

/// One value of an app's readout, such as "Servers: 12".
struct GlanceMetric {
    /// 1 to 24 of a-z, 0-9 and "-"; unique within a record.
    std::string id;
    /// 1 to 16 Unicode scalars.
    std::string label;
    /// A finite number with at most two decimals, or a state word.
    MetricValue value = 0.0;
    /// 0 to 6 Unicode scalars.
    std::string unit;
    GlanceLevel level = GlanceLevel::ok;

    bool operator==(const GlanceMetric&) const = default;
};

/// One app's readout as it publishes it into the suite folder.
struct GlanceRecord {
    /// The format version; 1 is the only one written and read.
    int64_t contract = 1;
    /// The writer.
    SuiteApp app = SuiteApp::wharfy;
    /// True while the writer holds the host lock and shows the shared readout.
    bool hosting = false;
    GlanceState state = GlanceState::running;
    /// When it was written, in seconds since 1970-01-01 UTC.
    double at = 0;
    /// Seconds for which the record counts as fresh, 3 to 60.
    int64_t ttl = 30;
    GlanceLevel level = GlanceLevel::ok;
    /// 0 to 4 metrics.
    std::vector<GlanceMetric> metrics;

    bool operator==(const GlanceRecord&) const = default;
};

/// A well-formed record of another format version, not read any further.
struct GlanceSkipped {
    int64_t contract = 0;
    bool operator==(const GlanceSkipped&) const = default;
};

/// A file that breaks a rule, rejected whole with one of the fixed reasons.
struct GlanceInvalid {
    std::string reason;
    bool operator==(const GlanceInvalid&) const = default;
};

/// The outcome of reading one glance file: the record, skipped or invalid.
using GlanceReadResult = std::variant<GlanceRecord, GlanceSkipped, GlanceInvalid>;

/// Why a record could not be written; `reason` is one of the fixed reasons.
struct GlanceValidationError {
    std::string reason;
    bool operator==(const GlanceValidationError&) const = default;
};

}  // namespace nemarro::suite
