#include "suite/suite_app.h"

namespace nemarro::suite {

namespace {

struct AppFacts {
    std::string_view id;
    std::string_view displayWord;
};

constexpr std::array<AppFacts, 7> kApps{{{"varnel", "Varnel"},
                                         {"kobble", "Kobble"},
                                         {"lintra", "Lintra"},
                                         {"wharfy", "Wharfy"},
                                         {"quosset", "Quosset"},
                                         {"mirrow", "Mirrow"},
                                         {"tessik", "Tessik"}}};

// Bits over the catalog order: varnel, wharfy, quosset and tessik can host.
constexpr unsigned kHostCapable = (1u << 0) | (1u << 3) | (1u << 4) | (1u << 6);

constexpr std::array<std::string_view, 3> kLevels{"ok", "notice", "alert"};
constexpr std::array<std::string_view, 2> kStates{"running", "stopped"};
constexpr std::array<std::string_view, 11> kStateWords{"on",      "off",     "active",  "idle",
                                                       "paused",  "blocked", "allowed", "ok",
                                                       "warning", "error",   "none"};

template <typename E, size_t N>
std::optional<E> lookup(const std::array<std::string_view, N>& words, std::string_view text) {
    for (size_t i = 0; i < N; ++i)
        if (words[i] == text) return static_cast<E>(i);
    return std::nullopt;
}

}  // namespace

std::string_view id(SuiteApp app) {
    return kApps[static_cast<size_t>(app)].id;
}

std::optional<SuiteApp> suiteAppFromId(std::string_view text) {
    for (SuiteApp app : allSuiteApps)
        if (id(app) == text) return app;
    return std::nullopt;
}

std::string glanceFileName(SuiteApp app) {
    return std::string(id(app)) + ".json";
}

std::string bundleIdentifier(SuiteApp app) {
    return "com.nemarro." + std::string(id(app));
}

std::string displayName(SuiteApp app) {
    return "Nemarro " + std::string(shortName(app));
}

std::string_view shortName(SuiteApp app) {
    return kApps[static_cast<size_t>(app)].displayWord;
}

bool participates(SuiteApp app) {
    return app != SuiteApp::lintra && app != SuiteApp::mirrow;
}

bool canHost(SuiteApp app) {
    return (kHostCapable >> static_cast<unsigned>(app)) & 1u;
}

std::string_view word(GlanceLevel level) {
    return kLevels[static_cast<size_t>(level)];
}

std::string_view word(GlanceState state) {
    return kStates[static_cast<size_t>(state)];
}

std::string_view word(StateWord stateWord) {
    return kStateWords[static_cast<size_t>(stateWord)];
}

std::optional<GlanceLevel> glanceLevelFromWord(std::string_view text) {
    return lookup<GlanceLevel>(kLevels, text);
}

std::optional<GlanceState> glanceStateFromWord(std::string_view text) {
    return lookup<GlanceState>(kStates, text);
}

std::optional<StateWord> stateWordFromWord(std::string_view text) {
    return lookup<StateWord>(kStateWords, text);
}

}  // namespace nemarro::suite
