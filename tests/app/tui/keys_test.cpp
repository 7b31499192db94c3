// Key handling as tables: (state, key) -> (new state, action).
#include <gtest/gtest.h>

#include "app/tui/keys.h"

namespace wharfy::app::tui {
namespace {

using K = Key::Kind;
using A = Action::Kind;

UiState on(ViewTab tab, std::string selected = {}) {
    UiState s;
    s.tab = tab;
    s.selected[slot(tab)] = std::move(selected);
    return s;
}

KeyContext listOf(std::vector<std::string> ids, int rows = 10) {
    KeyContext c;
    c.ids = std::move(ids);
    c.geometry.listRows = rows;
    c.menuSize = 3;
    return c;
}

struct Row {
    const char* name;
    UiState state;
    Key key;
    KeyContext context;
    UiState expected;
    Action action;
};

UiState with(UiState s, const std::function<void(UiState&)>& change) {
    change(s);
    return s;
}

TEST(Keys, Table) {
    const auto ids = listOf({"a", "b", "c", "d"});
    KeyContext confirming = ids;
    confirming.confirming = true;
    const UiState portsB = on(ViewTab::ports, "b");
    const UiState searching = with(on(ViewTab::ports, "b"), [](UiState& s) {
        s.editing = Editing::portSearch;
        s.portSearch = "30";
    });
    const UiState cleanup = with(on(ViewTab::containers, "runtime:podman"), [](UiState& s) {
        s.overlay = Overlay::cleanup;
        s.menuCursor = 1;
    });
    const Row rows[] = {
        {"down moves by identity", portsB, Key::of(K::down), ids, on(ViewTab::ports, "c"), {}},
        {"up stops at the top",
         on(ViewTab::ports, "a"),
         Key::of(K::up),
         ids,
         on(ViewTab::ports, "a"),
         {}},
        {"end", portsB, Key::of(K::end), ids, on(ViewTab::ports, "d"), {}},
        {"page down",
         portsB,
         Key::of(K::pageDown),
         listOf({"a", "b", "c", "d"}, 3),
         on(ViewTab::ports, "d"),
         {}},
        {"wheel", portsB, Key::of(K::wheelUp), ids, on(ViewTab::ports, "a"), {}},
        {"a lost selection starts at the top",
         on(ViewTab::ports, "gone"),
         Key::of(K::down),
         ids,
         on(ViewTab::ports, "a"),
         {}},
        {"F9 stops the selected row", portsB, Key::of(K::f9), ids, portsB, {A::stop, "b", 0, 0}},
        {"k stops", portsB, Key::chr('k'), ids, portsB, {A::stop, "b", 0, 0}},
        {"Delete stops", portsB, Key::of(K::deleteKey), ids, portsB, {A::stop, "b", 0, 0}},
        {"no stop without a shown selection", on(ViewTab::ports, "zz"), Key::of(K::f9), ids,
         on(ViewTab::ports, "zz"), Action::of(A::dismiss)},
        {"q quits", portsB, Key::chr('q'), ids, portsB, Action::of(A::quit)},
        {"F10 quits", portsB, Key::of(K::f10), ids, portsB, Action::of(A::quit)},
        {"3 opens agents",
         portsB,
         Key::chr('3'),
         ids,
         with(portsB, [](UiState& s) { s.tab = ViewTab::agents; }),
         {A::showTab, "", 2, 0}},
        {"shift-tab wraps",
         portsB,
         Key::of(K::backTab),
         ids,
         with(portsB, [](UiState& s) { s.tab = ViewTab::settings; }),
         {A::showTab, "", 4, 0}},
        {"/ starts the search",
         portsB,
         Key::chr('/'),
         ids,
         with(portsB, [](UiState& s) { s.editing = Editing::portSearch; }),
         {}},
        {"typing searches",
         searching,
         Key::chr('0'),
         ids,
         with(searching, [](UiState& s) { s.portSearch = "300"; }),
         {A::setPortSearch, "300", 0, 0}},
        {"q is typed while searching",
         searching,
         Key::chr('q'),
         ids,
         with(searching, [](UiState& s) { s.portSearch = "30q"; }),
         {A::setPortSearch, "30q", 0, 0}},
        {"Esc clears the search", searching, Key::of(K::escape), ids,
         with(searching,
              [](UiState& s) {
                  s.portSearch.clear();
                  s.editing = Editing::none;
              }),
         Action::of(A::setPortSearch)},
        {"arrows move while searching",
         searching,
         Key::of(K::down),
         ids,
         with(searching, [](UiState& s) { s.selected[0] = "c"; }),
         {}},
        {"confirmation: y confirms", portsB, Key::chr('y'), confirming, portsB,
         Action::of(A::confirm)},
        {"confirmation: Enter on Cancel cancels", portsB, Key::of(K::enter), confirming, portsB,
         Action::of(A::cancel)},
        {"confirmation: Tab moves to Stop",
         portsB,
         Key::of(K::tab),
         confirming,
         with(portsB, [](UiState& s) { s.focusOnConfirm = true; }),
         {}},
        {"confirmation: Enter on Stop confirms",
         with(portsB, [](UiState& s) { s.focusOnConfirm = true; }), Key::of(K::enter), confirming,
         with(portsB, [](UiState& s) { s.focusOnConfirm = true; }), Action::of(A::confirm)},
        {"confirmation: Esc cancels", portsB, Key::of(K::escape), confirming, portsB,
         Action::of(A::cancel)},
        {"confirmation holds q and F9", portsB, Key::chr('q'), confirming, portsB, {}},
        {"confirmation holds navigation", portsB, Key::of(K::down), confirming, portsB, {}},
        {"Ctrl-C quits even then", portsB, Key::of(K::ctrlC), confirming, portsB,
         Action::of(A::quit)},
        {"c opens the clean-up menu",
         on(ViewTab::containers, "runtime:podman"),
         Key::chr('c'),
         ids,
         with(cleanup, [](UiState& s) { s.menuCursor = 0; }),
         {A::openCleanup, "runtime:podman", 0, 0}},
        {"menu: down",
         cleanup,
         Key::of(K::down),
         ids,
         with(cleanup, [](UiState& s) { s.menuCursor = 2; }),
         {}},
        {"menu: stays inside",
         with(cleanup, [](UiState& s) { s.menuCursor = 2; }),
         Key::of(K::down),
         ids,
         with(cleanup, [](UiState& s) { s.menuCursor = 2; }),
         {}},
        {"menu: Enter chooses",
         cleanup,
         Key::of(K::enter),
         ids,
         with(cleanup, [](UiState& s) { s.overlay = Overlay::none; }),
         {A::chooseCleanup, "", 1, 0}},
        {"settings: space switches an alert",
         with(on(ViewTab::settings), [](UiState& s) { s.settingsRow = 2; }),
         Key::chr(' '),
         ids,
         with(on(ViewTab::settings), [](UiState& s) { s.settingsRow = 2; }),
         {A::toggleSetting, "", 2, 0}},
        {"settings: right raises the threshold",
         on(ViewTab::settings),
         Key::of(K::right),
         ids,
         on(ViewTab::settings),
         {A::adjustSetting, "", 0, 1}},
        {"focus lost", portsB, Key::of(K::focusOut), ids, portsB, Action::of(A::focusLost)},
        {"help opens and any key closes it",
         with(portsB, [](UiState& s) { s.overlay = Overlay::help; }), Key::chr('q'), ids, portsB,
         Action::of(A::dismiss)},
    };
    for (const auto& row : rows) {
        const KeyStep step = handleKey(row.state, row.key, row.context);
        EXPECT_EQ(step.state, row.expected) << row.name;
        EXPECT_EQ(step.action, row.action) << row.name;
    }
}

TEST(Keys, ExportPromptStartsPrefilledAndWritesWhatWasTyped) {
    KeyContext context;
    context.exportDefault = "~/wharfy-2026-01-05-1403.md";
    KeyStep step = handleKey(UiState{}, Key::chr('e'), context);
    EXPECT_EQ(step.state.overlay, Overlay::exportPrompt);
    for (int i = 0; i < 2; ++i)
        step = handleKey(step.state, Key::of(K::backspace), context);
    for (char32_t c : std::u32string(U"json"))
        step = handleKey(step.state, Key::chr(c), context);
    step = handleKey(step.state, Key::of(K::enter), context);
    EXPECT_EQ(step.state.overlay, Overlay::none);
    EXPECT_EQ(step.action, (Action{A::exportTo, "~/wharfy-2026-01-05-1403.json", 0, 0}));
}

TEST(Keys, ClicksSelectTheRowAndTheTabUnderThePointer) {
    KeyContext context = listOf({"a", "b", "c"});
    context.geometry.tabRow = 1;
    context.geometry.tabSpans[3] = {40, 51};
    context.geometry.listY = 3;
    context.geometry.listRows = 10;
    context.geometry.lineIds = {"", "b", "c"};  // a header line, then two rows
    EXPECT_EQ(handleKey(on(ViewTab::ports, "a"), Key::clickAt(5, 5), context).state,
              on(ViewTab::ports, "c"));
    EXPECT_EQ(handleKey(on(ViewTab::ports, "a"), Key::clickAt(5, 3), context).state,
              on(ViewTab::ports, "a"));
    EXPECT_EQ(handleKey(on(ViewTab::ports, "a"), Key::clickAt(45, 1), context).action,
              (Action{A::showTab, "", 3, 0}));
}

}  // namespace
}  // namespace wharfy::app::tui
