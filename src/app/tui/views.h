#pragma once

#include <optional>
#include <string>
#include <vector>

#include "app/tui/keys.h"
#include "app/tui/screen.h"
#include "app/tui/view_data.h"

namespace wharfy::app::tui {

/// A drawn window and where its parts are.
struct Rendered {
    Screen screen;
    Geometry geometry;
    /// The first line shown of the current tab's list after keeping the
    /// selection in view.
    int top = 0;
};

/// The whole window at `cols` × `rows`: header, tabs, the tab's content,
/// the notice and the footer, and any overlay or confirmation on top.
Rendered renderWindow(const ViewData& data, const UiState& state, int cols, int rows);

/// The selectable ids of a tab's list, in display order.
std::vector<std::string> listIds(const ViewData& data, ViewTab tab);

/// Lines of the history tab under a search, for scrolling.
int historyLineCount(const ViewData& data, const std::string& search);

/// A short name of a list item for the user ("node (812) on port 5432").
std::string itemLabel(const ViewData& data, ViewTab tab, const std::string& id);

/// Keeps a tab's selection on the same identity across a refresh. When the
/// selected row is gone, the selection moves to the row that took its place
/// (or the last one) and `gone` names what disappeared.
UiState keepSelection(UiState state, ViewTab tab, const std::vector<std::string>& before,
                      const std::vector<std::string>& after, const std::string& goneLabel);

/// One choice of the clean-up menu: what it removes, shown before it runs.
struct CleanupEntry {
    std::string title;
    /// The items it acts on, one a line (names, sizes).
    std::vector<std::string> items;
    ContainerAction action;

    bool operator==(const CleanupEntry&) const = default;
};

/// The clean-up menu of a runtime: the entries that have something to act
/// on, and a line for each kind that has nothing (or is still being read).
struct CleanupMenu {
    std::vector<CleanupEntry> entries;
    std::vector<std::string> notes;

    bool operator==(const CleanupMenu&) const = default;
};

/// The menu from the runtime's containers and disk figures as they are now.
CleanupMenu cleanupMenu(const RuntimeState& runtime);

/// The runtime an item id of the containers tab belongs to.
const RuntimeState* runtimeOf(const ViewData& data, const std::string& itemId);
/// The container an item id names, if it names one.
std::optional<ContainerInfo> containerOf(const ViewData& data, const std::string& itemId);

/// Item ids of the containers tab.
std::string runtimeItemId(const RuntimeInfo& runtime);
std::string containerItemId(const RuntimeInfo& runtime, const ContainerInfo& container);

/// The compact summary a tray popover would show, 60 × 20: the counts, the
/// listeners open to all networks, busy and runaway sessions, and runtimes.
Screen renderPopover(const ViewData& data, int cols = 60, int rows = 20);

/// The suite's rows, their levels and the menu-bar values; a line saying
/// so when no suite is active.
Screen renderSuitePopover(const std::optional<SuiteStrip>& suite, int cols = 60, int rows = 20);

/// The words of a setting's value as typed ("4.0", "20").
std::string settingText(const ViewData& data, int row);

}  // namespace wharfy::app::tui
