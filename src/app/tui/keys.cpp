#include "app/tui/keys.h"
#include "common/text.h"

#include <algorithm>

namespace wharfy::app::tui {
namespace {

using K = Key::Kind;
using A = Action::Kind;

KeyStep keep(const UiState& state, Action action = {}) {
    return {state, std::move(action)};
}

bool isChar(const Key& key, char32_t c) {
    return key.kind == K::character && key.ch == c;
}

bool printable(const Key& key) {
    return key.kind == K::character && key.ch >= 0x20 && key.ch != 0x7F;
}

void popUtf8(std::string& text) {
    while (!text.empty()) {
        const auto c = static_cast<unsigned char>(text.back());
        text.pop_back();
        if ((c & 0xC0) != 0x80) break;
    }
}

/// Edits a text field: typing, backspace. Whether the key was an edit.
bool edit(std::string& text, const Key& key) {
    if (printable(key)) {
        if (text.size() < 4096) appendUtf8(text, key.ch);
        return true;
    }
    if (key.kind == K::backspace) {
        popUtf8(text);
        return true;
    }
    return false;
}

KeyStep toTab(UiState state, ViewTab tab) {
    state.tab = tab;
    state.gone.reset();
    state.editing = Editing::none;
    return {state, Action{A::showTab, {}, static_cast<int>(tab), 0}};
}

/// Moves the selection of a list tab by `delta` lines, within its ids.
KeyStep moveSelection(UiState state, const KeyContext& context, int delta, bool toEnd = false,
                      bool toStart = false) {
    const auto& ids = context.ids;
    state.gone.reset();
    if (ids.empty()) return keep(state);
    std::string& selected = state.selected[slot(state.tab)];
    const auto it = std::find(ids.begin(), ids.end(), selected);
    const int count = static_cast<int>(ids.size());
    int index = it == ids.end() ? -1 : static_cast<int>(it - ids.begin());
    if (toStart)
        index = 0;
    else if (toEnd)
        index = count - 1;
    else if (index < 0)
        index = delta < 0 ? count - 1 : 0;
    else
        index = std::clamp(index + delta, 0, count - 1);
    selected = ids[static_cast<size_t>(index)];
    return keep(state);
}

int pageOf(const KeyContext& context) {
    return std::max(1, context.geometry.listRows - 1);
}

KeyStep navigate(const UiState& state, const Key& key, const KeyContext& context) {
    const int page = pageOf(context);
    if (state.tab == ViewTab::settings) {
        UiState next = state;
        if (key.kind == K::up || key.kind == K::wheelUp) next.settingsRow--;
        if (key.kind == K::down || key.kind == K::wheelDown) next.settingsRow++;
        if (key.kind == K::home || key.kind == K::pageUp) next.settingsRow = 0;
        if (key.kind == K::end || key.kind == K::pageDown) next.settingsRow = kSettingRows - 1;
        next.settingsRow = std::clamp(next.settingsRow, 0, kSettingRows - 1);
        return keep(next);
    }
    if (state.tab == ViewTab::history) {
        UiState next = state;
        int& top = next.top[slot(ViewTab::history)];
        const int last = std::max(0, context.historyLines - context.geometry.listRows);
        if (key.kind == K::up) top -= 1;
        if (key.kind == K::down) top += 1;
        if (key.kind == K::wheelUp) top -= 3;
        if (key.kind == K::wheelDown) top += 3;
        if (key.kind == K::pageUp) top -= page;
        if (key.kind == K::pageDown) top += page;
        if (key.kind == K::home) top = 0;
        if (key.kind == K::end) top = last;
        top = std::clamp(top, 0, last);
        return keep(next);
    }
    switch (key.kind) {
        case K::up:
        case K::wheelUp:
            return moveSelection(state, context, -1);
        case K::down:
        case K::wheelDown:
            return moveSelection(state, context, 1);
        case K::pageUp:
            return moveSelection(state, context, -page);
        case K::pageDown:
            return moveSelection(state, context, page);
        case K::home:
            return moveSelection(state, context, 0, false, true);
        case K::end:
            return moveSelection(state, context, 0, true, false);
        default:
            return keep(state);
    }
}

bool isNavigation(const Key& key) {
    switch (key.kind) {
        case K::up:
        case K::down:
        case K::pageUp:
        case K::pageDown:
        case K::home:
        case K::end:
        case K::wheelUp:
        case K::wheelDown:
            return true;
        default:
            return false;
    }
}

KeyStep click(const UiState& state, const Key& key, const KeyContext& context) {
    const Geometry& g = context.geometry;
    if (key.y == g.tabRow) {
        for (int i = 0; i < kTabCount; ++i) {
            const auto [first, last] = g.tabSpans[static_cast<size_t>(i)];
            if (key.x >= first && key.x < last) return toTab(state, static_cast<ViewTab>(i));
        }
        return keep(state);
    }
    const int line = key.y - g.listY;
    if (line < 0 || line >= g.listRows) return keep(state);
    UiState next = state;
    if (state.tab == ViewTab::settings) {
        if (line < kSettingRows) next.settingsRow = line;
        return keep(next);
    }
    if (line >= static_cast<int>(g.lineIds.size())) return keep(state);
    const std::string& id = g.lineIds[static_cast<size_t>(line)];
    if (id.empty()) return keep(state);
    next.selected[slot(state.tab)] = id;
    next.gone.reset();
    return keep(next);
}

KeyStep confirmation(const UiState& state, const Key& key) {
    UiState next = state;
    if (isChar(key, 'y') || isChar(key, 'Y')) return keep(state, Action::of(A::confirm));
    if (isChar(key, 'n') || isChar(key, 'N') || key.kind == K::escape)
        return keep(state, Action::of(A::cancel));
    if (key.kind == K::enter)
        return keep(state, Action::of(state.focusOnConfirm ? A::confirm : A::cancel));
    if (key.kind == K::tab || key.kind == K::backTab || key.kind == K::left ||
        key.kind == K::right) {
        next.focusOnConfirm = !state.focusOnConfirm;
        return keep(next);
    }
    return keep(state);
}

KeyStep settings(const UiState& state, const Key& key, const KeyContext& context) {
    const int row = state.settingsRow;
    const bool isSwitch = row >= runawayAlert && row <= publicListenerAlert;
    if (isSwitch &&
        (key.kind == K::enter || isChar(key, ' ') || key.kind == K::left || key.kind == K::right))
        return keep(state, Action{A::toggleSetting, {}, row, 0});
    if (isSwitch) return keep(state);
    if (key.kind == K::left || isChar(key, '-'))
        return keep(state, {A::adjustSetting, {}, row, -1});
    if (key.kind == K::right || isChar(key, '+') || isChar(key, '='))
        return keep(state, {A::adjustSetting, {}, row, 1});
    if (key.kind == K::enter) {
        UiState next = state;
        next.editing = Editing::setting;
        next.editBuffer = context.settingTexts[static_cast<size_t>(row)];
        return keep(next);
    }
    return keep(state);
}

}  // namespace

KeyStep handleKey(const UiState& state, const Key& key, const KeyContext& context) {
    if (key.kind == K::focusIn) return keep(state, Action::of(A::focusGained));
    if (key.kind == K::focusOut) return keep(state, Action::of(A::focusLost));
    if (key.kind == K::resize) return keep(state, Action::of(A::redraw));
    if (key.kind == K::ctrlC) return keep(state, Action::of(A::quit));

    // A confirmation holds every key until it is answered.
    if (context.confirming) return confirmation(state, key);

    UiState next = state;
    switch (state.overlay) {
        case Overlay::help:
        case Overlay::report:
            next.overlay = Overlay::none;
            return keep(next, Action::of(A::dismiss));
        case Overlay::exportPrompt:
            if (key.kind == K::escape) {
                next.overlay = Overlay::none;
                return keep(next);
            }
            if (key.kind == K::enter) {
                next.overlay = Overlay::none;
                return keep(next, Action{A::exportTo, state.editBuffer, 0, 0});
            }
            edit(next.editBuffer, key);
            return keep(next);
        case Overlay::cleanup:
            if (key.kind == K::escape || isChar(key, 'c') || isChar(key, 'q') ||
                key.kind == K::f10) {
                next.overlay = Overlay::none;
                return keep(next);
            }
            if (key.kind == K::up || key.kind == K::wheelUp) next.menuCursor--;
            if (key.kind == K::down || key.kind == K::wheelDown) next.menuCursor++;
            if (key.kind == K::home) next.menuCursor = 0;
            if (key.kind == K::end) next.menuCursor = context.menuSize - 1;
            next.menuCursor = std::clamp(next.menuCursor, 0, std::max(0, context.menuSize - 1));
            if (key.kind == K::enter && context.menuSize > 0) {
                next.overlay = Overlay::none;
                return keep(next, Action{A::chooseCleanup, {}, next.menuCursor, 0});
            }
            return keep(next);
        case Overlay::none:
            break;
    }

    switch (state.editing) {
        case Editing::portSearch:
        case Editing::historySearch: {
            std::string& text =
                state.editing == Editing::portSearch ? next.portSearch : next.historySearch;
            const bool ports = state.editing == Editing::portSearch;
            if (key.kind == K::escape) {
                text.clear();
                next.editing = Editing::none;
                return keep(next, ports ? Action::of(A::setPortSearch) : Action{});
            }
            if (key.kind == K::enter) {
                next.editing = Editing::none;
                return keep(next);
            }
            if (edit(text, key)) {
                next.top[slot(state.tab)] = 0;
                return keep(next, ports ? Action{A::setPortSearch, text, 0, 0} : Action{});
            }
            if (isNavigation(key)) return navigate(state, key, context);
            return keep(state);
        }
        case Editing::setting:
            if (key.kind == K::escape) {
                next.editing = Editing::none;
                return keep(next);
            }
            if (key.kind == K::enter) {
                next.editing = Editing::none;
                return keep(next, Action{A::setSetting, state.editBuffer, state.settingsRow, 0});
            }
            if (printable(key) && !((key.ch >= '0' && key.ch <= '9') || key.ch == '.'))
                return keep(state);
            edit(next.editBuffer, key);
            return keep(next);
        case Editing::none:
            break;
    }

    if (isChar(key, 'q') || key.kind == K::f10) return keep(state, Action::of(A::quit));
    if (key.kind == K::character && key.ch >= '1' && key.ch <= '5')
        return toTab(state, static_cast<ViewTab>(key.ch - '1'));
    if (key.kind == K::tab)
        return toTab(state, static_cast<ViewTab>((static_cast<int>(state.tab) + 1) % kTabCount));
    if (key.kind == K::backTab)
        return toTab(
            state, static_cast<ViewTab>((static_cast<int>(state.tab) + kTabCount - 1) % kTabCount));
    if (isChar(key, '?') || key.kind == K::f1) {
        next.overlay = Overlay::help;
        return keep(next);
    }
    if (isChar(key, 'e')) {
        next.overlay = Overlay::exportPrompt;
        next.editBuffer = context.exportDefault;
        return keep(next);
    }
    if (key.kind == K::click) return click(state, key, context);
    if (isNavigation(key)) return navigate(state, key, context);

    const std::string& selected = state.selected[slot(state.tab)];
    switch (state.tab) {
        case ViewTab::ports:
        case ViewTab::history:
            if (isChar(key, '/')) {
                next.editing =
                    state.tab == ViewTab::ports ? Editing::portSearch : Editing::historySearch;
                return keep(next);
            }
            if (key.kind == K::escape && state.tab == ViewTab::ports && !state.portSearch.empty()) {
                next.portSearch.clear();
                return keep(next, Action::of(A::setPortSearch));
            }
            if (key.kind == K::escape && state.tab == ViewTab::history) {
                next.historySearch.clear();
                return keep(next);
            }
            break;
        case ViewTab::containers:
            if (isChar(key, 'c') && !selected.empty()) {
                next.overlay = Overlay::cleanup;
                next.menuCursor = 0;
                return keep(next, Action{A::openCleanup, selected, 0, 0});
            }
            break;
        case ViewTab::settings:
            return settings(state, key, context);
        case ViewTab::agents:
            break;
    }
    const bool stopKey = key.kind == K::f9 || key.kind == K::deleteKey || isChar(key, 'k');
    if (stopKey && state.tab != ViewTab::history && !selected.empty() &&
        std::find(context.ids.begin(), context.ids.end(), selected) != context.ids.end())
        return keep(state, Action{A::stop, selected, 0, 0});
    return keep(state, Action::of(A::dismiss));
}

}  // namespace wharfy::app::tui
