#include "suite/glance_store.h"

namespace nemarro::suite {

std::string message(const GlanceWriteError& error) {
    if (const auto* invalid = std::get_if<GlanceValidationError>(&error)) return invalid->reason;
    return std::get<SuiteFileError>(error).message();
}

wharfy::Result<wharfy::Ok, GlanceWriteError> GlanceStore::write(const GlanceRecord& record) const {
    auto bytes = GlanceCodec::encode(record);
    if (!bytes) return GlanceWriteError{bytes.error()};
    auto written =
        writeFileAtomically(folder.glancesPath(), glanceFileName(record.app), bytes.value());
    if (!written) return GlanceWriteError{written.error()};
    return wharfy::Ok{};
}

std::optional<GlanceReadResult> GlanceStore::read(SuiteApp app) const {
    const std::string name = glanceFileName(app);
    SafeRead file = safeRead(folder.glancesPath() + "/" + name, kReadLimit);
    if (std::holds_alternative<SafeReadMissing>(file)) return std::nullopt;
    if (const auto* failure = std::get_if<SafeReadFailure>(&file))
        return GlanceInvalid{failure->reason};
    return GlanceCodec::decode(std::get<SafeReadData>(file).bytes, name);
}

std::map<SuiteApp, GlanceReadResult> GlanceStore::readAll() const {
    std::map<SuiteApp, GlanceReadResult> results;
    for (SuiteApp app : allSuiteApps)
        if (auto result = read(app)) results.emplace(app, std::move(*result));
    return results;
}

}  // namespace nemarro::suite
