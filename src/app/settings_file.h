#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <string_view>

#include "app/settings_store.h"

namespace wharfy::app {

/// Settings kept as one JSON object in a file of their own. Keys this
/// version does not know survive a rewrite. A file that cannot be read or
/// decoded gives no values and is left as it is until a setting changes.
class SettingsFile final : public SettingsStore {
  public:
    explicit SettingsFile(std::string path);
    std::optional<nlohmann::json> value(std::string_view key) const override;
    Result<Ok, FileError> set(std::string_view key, nlohmann::json value) override;

    /// Files larger than this are not read.
    static constexpr size_t kLimit = 1 << 20;

  private:
    std::string path_;
    nlohmann::json object_ = nlohmann::json::object();
};

}  // namespace wharfy::app
