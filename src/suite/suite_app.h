#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace nemarro::suite {

/// The closed catalog of the suite's apps. Declaration order is the order of
/// rows, the order in which glance files are read, and the order used when
/// apps are compared.
enum class SuiteApp : uint8_t { varnel, kobble, lintra, wharfy, quosset, mirrow, tessik };

/// Every app of the catalog, in declaration order.
inline constexpr std::array<SuiteApp, 7> allSuiteApps{
    SuiteApp::varnel,  SuiteApp::kobble, SuiteApp::lintra, SuiteApp::wharfy,
    SuiteApp::quosset, SuiteApp::mirrow, SuiteApp::tessik};

/// The app's id as stored in glance records ("wharfy").
std::string_view id(SuiteApp app);
/// The app with this exact id; absent for anything else.
std::optional<SuiteApp> suiteAppFromId(std::string_view id);
/// The id followed by ".json": the name of the app's glance file.
std::string glanceFileName(SuiteApp app);
/// "com.nemarro." followed by the id.
std::string bundleIdentifier(SuiteApp app);
/// "Nemarro " followed by the display word ("Nemarro Wharfy").
std::string displayName(SuiteApp app);
/// The display word alone ("Wharfy").
std::string_view shortName(SuiteApp app);
/// Whether the app takes part in the shared readout at all.
bool participates(SuiteApp app);
/// Whether the app can show the shared readout (and so competes for the host lock).
bool canHost(SuiteApp app);

/// An app's overall level, ordered ok < notice < alert; the worst of several is their maximum.
enum class GlanceLevel : uint8_t { ok, notice, alert };

/// Whether the writer of a glance record is running or has stopped.
enum class GlanceState : uint8_t { running, stopped };

/// The only words a metric may show instead of a number, in their fixed order.
enum class StateWord : uint8_t {
    on,
    off,
    active,
    idle,
    paused,
    blocked,
    allowed,
    ok,
    warning,
    error,
    none
};

/// The stored word of a level, state or state word ("notice", "running", "idle").
std::string_view word(GlanceLevel level);
std::string_view word(GlanceState state);
std::string_view word(StateWord stateWord);

/// The value whose stored word is exactly `text`; absent for anything else.
std::optional<GlanceLevel> glanceLevelFromWord(std::string_view text);
std::optional<GlanceState> glanceStateFromWord(std::string_view text);
std::optional<StateWord> stateWordFromWord(std::string_view text);

}  // namespace nemarro::suite
