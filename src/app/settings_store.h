#pragma once

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string_view>

#include "common/result.h"
#include "system/private_files.h"

namespace wharfy::app {

/// The user's settings as the model reads and changes them.
class SettingsStore {
  public:
    virtual ~SettingsStore() = default;
    /// The stored value of `key`; absent when there is none.
    virtual std::optional<nlohmann::json> value(std::string_view key) const = 0;
    /// Stores `value` under `key` at once.
    virtual Result<Ok, FileError> set(std::string_view key, nlohmann::json value) = 0;
};

}  // namespace wharfy::app
