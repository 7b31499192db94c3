#include "app/settings_file.h"

namespace wharfy::app {

SettingsFile::SettingsFile(std::string path) : path_(std::move(path)) {
    auto text = readSmallFile(path_, kLimit);
    if (!text) return;
    auto parsed = nlohmann::json::parse(*text, nullptr, /*allow_exceptions=*/false);
    if (parsed.is_object()) object_ = std::move(parsed);
}

std::optional<nlohmann::json> SettingsFile::value(std::string_view key) const {
    auto it = object_.find(key);
    if (it == object_.end()) return std::nullopt;
    return *it;
}

Result<Ok, FileError> SettingsFile::set(std::string_view key, nlohmann::json value) {
    object_[std::string(key)] = std::move(value);
    return writePrivateFile(
        path_, object_.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
}

}  // namespace wharfy::app
