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
    const UiState a = on(ViewTab::ports, "a"), b = on(ViewTab::ports, "b");
    const UiState gone = on(ViewTab::ports, "gone");
    const UiState bOnStop = with(b, [](UiState& s) { s.focusOnConfirm = true; });
    const auto searching = [](std::string text, std::string selected = "b") {
        return with(on(ViewTab::ports, std::move(selected)), [&](UiState& s) {
            s.editing = Editing::portSearch;
            s.portSearch = text;
        });
    };
    const auto menuAt = [](int cursor, Overlay overlay = Overlay::cleanup) {
        return with(on(ViewTab::containers, "runtime:podman"), [&](UiState& s) {
            s.overlay = overlay;
            s.menuCursor = cursor;
        });
    };
    const UiState alertRow = with(on(ViewTab::settings), [](UiState& s) { s.settingsRow = 2; });
    const UiState help = with(b, [](UiState& s) { s.overlay = Overlay::help; });
    const Action none;
    const auto act = [](A kind, std::string text = "", int index = 0) {
        return Action{kind, std::move(text), index, 0};
    };
    const Row rows[] = {
        {"down moves by identity", b, Key::of(K::down), ids, on(ViewTab::ports, "c"), none},
        {"up stops at the top", a, Key::of(K::up), ids, a, none},
        {"page down", b, Key::of(K::pageDown), listOf({"a", "b", "c", "d"}, 3),
         on(ViewTab::ports, "d"), none},
        {"a lost selection starts at the top", gone, Key::of(K::down), ids, a, none},
        {"F9 stops the selected row", b, Key::of(K::f9), ids, b, act(A::stop, "b")},
        {"no stop without a shown selection", gone, Key::of(K::f9), ids, gone, act(A::dismiss)},
        {"q quits", b, Key::chr('q'), ids, b, act(A::quit)},
        {"shift-tab wraps", b, Key::of(K::backTab), ids,
         with(b, [](UiState& s) { s.tab = ViewTab::settings; }), act(A::showTab, "", 4)},
        {"typing searches", searching("30"), Key::chr('0'), ids, searching("300"),
         act(A::setPortSearch, "300")},
        {"q is typed while searching", searching("30"), Key::chr('q'), ids, searching("30q"),
         act(A::setPortSearch, "30q")},
        {"arrows move while searching", searching("30"), Key::of(K::down), ids,
         searching("30", "c"), none},
        {"confirmation: y confirms", b, Key::chr('y'), confirming, b, act(A::confirm)},
        {"confirmation: Enter on Cancel cancels", b, Key::of(K::enter), confirming, b,
         act(A::cancel)},
        {"confirmation: Tab moves to Stop", b, Key::of(K::tab), confirming, bOnStop, none},
        {"confirmation: Enter on Stop confirms", bOnStop, Key::of(K::enter), confirming, bOnStop,
         act(A::confirm)},
        {"confirmation: Esc cancels", b, Key::of(K::escape), confirming, b, act(A::cancel)},
        {"confirmation holds q", b, Key::chr('q'), confirming, b, none},
        {"confirmation holds navigation", b, Key::of(K::down), confirming, b, none},
        {"Ctrl-C quits even then", b, Key::of(K::ctrlC), confirming, b, act(A::quit)},
        {"c opens the clean-up menu", on(ViewTab::containers, "runtime:podman"), Key::chr('c'), ids,
         menuAt(0), act(A::openCleanup, "runtime:podman")},
        {"menu: down", menuAt(1), Key::of(K::down), ids, menuAt(2), none},
        {"menu: stays inside", menuAt(2), Key::of(K::down), ids, menuAt(2), none},
        {"menu: Enter chooses", menuAt(1), Key::of(K::enter), ids, menuAt(1, Overlay::none),
         act(A::chooseCleanup, "", 1)},
        {"settings: space switches an alert", alertRow, Key::chr(' '), ids, alertRow,
         act(A::toggleSetting, "", 2)},
        {"help: any key closes it", help, Key::chr('q'), ids, b, act(A::dismiss)},
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
