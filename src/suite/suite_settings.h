#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/result.h"
#include "suite/json_value.h"
#include "suite/suite_folder.h"
#include "suite/suite_state_machine.h"

namespace nemarro::suite {

/// A position on screen.
struct ScreenPoint {
    double x = 0;
    double y = 0;
    bool operator==(const ScreenPoint&) const = default;
};

/// The settings every participant of a folder shares, in its "settings.json".
/// Keys this version does not understand, and known keys whose value has the
/// wrong form, are kept in `unknown` and written back unchanged.
struct SuiteSettings {
    /// The user's menu-bar values; absent means the default choice.
    std::optional<std::vector<MetricRef>> menuBarValues;
    bool floatingVisible = false;
    bool floatingExpanded = false;
    /// The floating bar's last top-left corner.
    std::optional<ScreenPoint> floatingTopLeft;
    /// The preferred position of the shared menu-bar item.
    std::optional<double> statusItemPosition;
    JSONValue::Object unknown;

    bool operator==(const SuiteSettings&) const = default;

    /// The largest settings file read.
    static constexpr size_t kReadLimit = 65536;
    static constexpr const char* kFileName = "settings.json";

    /// The settings in `bytes`; the defaults when they are not a JSON object.
    static SuiteSettings parse(std::string_view bytes);
    /// Compact JSON with sorted keys. A field at its default leaves a kept
    /// value of the same key in place; absent fields are omitted.
    std::string serialise() const;

    /// The folder's settings; the defaults when the file is missing, unreadable or unparsable.
    static SuiteSettings read(const SuiteFolder& folder);
    /// Writes the folder's settings file atomically.
    wharfy::Result<wharfy::Ok, SuiteFileError> write(const SuiteFolder& folder) const;
};

}  // namespace nemarro::suite
