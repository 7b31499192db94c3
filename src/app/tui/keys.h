#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace wharfy::app::tui {

/// One input event: a key, a mouse event, a focus change or a resize.
struct Key {
    enum class Kind : uint8_t {
        character,
        up,
        down,
        left,
        right,
        pageUp,
        pageDown,
        home,
        end,
        enter,
        escape,
        tab,
        backTab,
        backspace,
        deleteKey,
        f1,
        f9,
        f10,
        ctrlC,
        wheelUp,
        wheelDown,
        click,
        focusIn,
        focusOut,
        resize,
    };
    Kind kind = Kind::character;
    /// The character typed, for `character`.
    char32_t ch = 0;
    /// The cell clicked, for `click`.
    int x = 0;
    int y = 0;

    bool operator==(const Key&) const = default;

    static Key of(Kind kind) { return Key{kind, 0, 0, 0}; }
    static Key chr(char32_t c) { return Key{Kind::character, c, 0, 0}; }
    static Key clickAt(int x, int y) { return Key{Kind::click, 0, x, y}; }
};

/// The five tabs of the window, in their key order (1 to 5).
enum class ViewTab : uint8_t { ports, containers, agents, history, settings };
inline constexpr int kTabCount = 5;

/// What covers the tab's content, besides a confirmation (which the model owns).
enum class Overlay : uint8_t { none, help, cleanup, exportPrompt, report };

/// Which text field the keys type into.
enum class Editing : uint8_t { none, portSearch, historySearch, setting };

/// The interface's own state: what is selected (by identity, never by
/// index), what is scrolled, open and being typed. A plain value, so that
/// key handling is a pure function of it.
struct UiState {
    ViewTab tab = ViewTab::ports;
    /// The selected row of each list tab by its id (port row, container
    /// item, session); empty when nothing is selected.
    std::array<std::string, kTabCount> selected{};
    /// First line shown of each tab's list.
    std::array<int, kTabCount> top{};
    /// What the selected row was, when it disappeared in a refresh; shown
    /// by the detail pane until the user moves.
    std::optional<std::string> gone;
    int settingsRow = 0;
    Editing editing = Editing::none;
    std::string portSearch;
    std::string historySearch;
    /// The export path or the setting value being typed.
    std::string editBuffer;
    Overlay overlay = Overlay::none;
    int menuCursor = 0;
    /// Focus of the confirmation: false on Cancel (where it starts).
    bool focusOnConfirm = false;

    bool operator==(const UiState&) const = default;
};

/// What the keys ask the interface to do beyond changing its own state.
struct Action {
    enum class Kind : uint8_t {
        none,
        quit,
        /// Stop the selected row, session or container (`text` is its id).
        stop,
        /// The clean-up menu of the runtime `text` opened.
        openCleanup,
        /// The clean-up menu's entry `index` was chosen.
        chooseCleanup,
        confirm,
        cancel,
        setPortSearch,
        /// Write the export to the path `text`.
        exportTo,
        /// The tab changed (the model's tab, and the sizes of the containers tab).
        showTab,
        toggleSetting,
        /// Moves setting `index` one step up (`step` 1) or down (-1).
        adjustSetting,
        /// Sets setting `index` to the typed `text`.
        setSetting,
        focusGained,
        focusLost,
        redraw,
        /// A key that only clears the notice.
        dismiss,
    };
    Kind kind = Kind::none;
    std::string text;
    int index = 0;
    int step = 0;

    bool operator==(const Action&) const = default;
    static Action of(Kind kind) { return Action{kind, {}, 0, 0}; }
};

/// Where things are on the last drawn screen, for the mouse and paging.
struct Geometry {
    /// Row of the tab bar and the column span [first, last) of each tab.
    int tabRow = 0;
    std::array<std::pair<int, int>, kTabCount> tabSpans{};
    /// Screen row of the list's first visible line, and how many lines show.
    int listY = 0;
    int listRows = 0;
    /// The id of each visible list line (empty for lines that cannot be
    /// selected), from the top.
    std::vector<std::string> lineIds;

    bool operator==(const Geometry&) const = default;
};

/// What the keys need to know of the current picture.
struct KeyContext {
    /// The current tab's selectable ids, in display order.
    std::vector<std::string> ids;
    /// A confirmation is on screen.
    bool confirming = false;
    /// The clean-up menu's number of entries.
    int menuSize = 0;
    /// Lines of the history tab, for scrolling.
    int historyLines = 0;
    /// What the export prompt starts with.
    std::string exportDefault;
    /// The setting values as typed text, for editing.
    std::array<std::string, 5> settingTexts{};
    Geometry geometry;
};

/// The outcome of one key: the new state and what to do.
struct KeyStep {
    UiState state;
    Action action;

    bool operator==(const KeyStep&) const = default;
};

/// Rows of the settings tab.
enum SettingRow : int {
    memoryThreshold = 0,
    runawayAlert = 1,
    storageAlert = 2,
    publicListenerAlert = 3,
    storageThreshold = 4,
};
inline constexpr int kSettingRows = 5;

/// The key handling of the interface: htop and lazydocker keys, as a pure
/// function of the state, the key and the picture.
KeyStep handleKey(const UiState& state, const Key& key, const KeyContext& context);

/// Index of a tab's list in `UiState::selected` and `top`.
inline size_t slot(ViewTab tab) {
    return static_cast<size_t>(tab);
}

}  // namespace wharfy::app::tui
