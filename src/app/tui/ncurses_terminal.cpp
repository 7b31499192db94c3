#include "app/tui/ncurses_terminal.h"

#include <fcntl.h>
#include <langinfo.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <clocale>
#include <cstring>
#include <cwchar>

#include <curses.h>

#include "app/tui/terminal_restore.h"
#include "app/tui/text_width.h"

namespace wharfy::app::tui {
namespace {

// Codes for the focus reports, which terminfo does not name.
constexpr int kFocusIn = KEY_MAX + 1;
constexpr int kFocusOut = KEY_MAX + 2;
// Input events read at most per call, so that a flood cannot hold the loop.
constexpr int kMaxEventsPerRead = 512;

// Written by the SIGWINCH handler; the loop watches the other end.
int resizeWrite = -1;

void onResize(int) {
    const int saved = errno;
    const char byte = 1;
    [[maybe_unused]] const ssize_t n = ::write(resizeWrite, &byte, 1);
    errno = saved;
}

std::string capability(const char* name) {
    char* value = tigetstr(name);
    if (value == nullptr || value == reinterpret_cast<char*>(-1)) return {};
    return value;
}

bool utf8Locale() {
    const char* codeset = nl_langinfo(CODESET);
    return codeset && (std::strcmp(codeset, "UTF-8") == 0 || std::strcmp(codeset, "utf8") == 0);
}

short pairOf(Color color) {
    switch (color) {
        case Color::red:
            return 1;
        case Color::yellow:
            return 2;
        case Color::green:
            return 3;
        case Color::cyan:
            return 4;
        case Color::none:
            return 0;
    }
    return 0;
}

attr_t attributesOf(const Style& s) {
    attr_t a = A_NORMAL;
    if (s.bold) a |= A_BOLD;
    if (s.dim) a |= A_DIM;
    if (s.reverse) a |= A_REVERSE;
    if (s.underline) a |= A_UNDERLINE;
    return a;
}

Key keyOfCode(int code) {
    using K = Key::Kind;
    switch (code) {
        case KEY_UP:
            return Key::of(K::up);
        case KEY_DOWN:
            return Key::of(K::down);
        case KEY_LEFT:
            return Key::of(K::left);
        case KEY_RIGHT:
            return Key::of(K::right);
        case KEY_PPAGE:
            return Key::of(K::pageUp);
        case KEY_NPAGE:
            return Key::of(K::pageDown);
        case KEY_HOME:
            return Key::of(K::home);
        case KEY_END:
            return Key::of(K::end);
        case KEY_ENTER:
            return Key::of(K::enter);
        case KEY_BTAB:
            return Key::of(K::backTab);
        case KEY_BACKSPACE:
            return Key::of(K::backspace);
        case KEY_DC:
            return Key::of(K::deleteKey);
        case KEY_F(1):
            return Key::of(K::f1);
        case KEY_F(9):
            return Key::of(K::f9);
        case KEY_F(10):
            return Key::of(K::f10);
        case KEY_RESIZE:
            return Key::of(K::resize);
        case kFocusIn:
            return Key::of(K::focusIn);
        case kFocusOut:
            return Key::of(K::focusOut);
        default:
            return Key::chr(0);
    }
}

Key keyOfChar(wint_t c) {
    using K = Key::Kind;
    switch (c) {
        case 3:
            return Key::of(K::ctrlC);
        case 9:
            return Key::of(K::tab);
        case 10:
        case 13:
            return Key::of(K::enter);
        case 27:
            return Key::of(K::escape);
        case 8:
        case 127:
            return Key::of(K::backspace);
        default:
            return Key::chr(static_cast<char32_t>(c));
    }
}

}  // namespace

std::unique_ptr<NcursesTerminal> NcursesTerminal::open(bool color, std::string& error) {
    // Wide characters are written in the locale's encoding: it must be UTF-8.
    std::setlocale(LC_CTYPE, "");
    if (!utf8Locale()) std::setlocale(LC_CTYPE, "C.UTF-8");

    int pipeFds[2];
    if (::pipe2(pipeFds, O_NONBLOCK | O_CLOEXEC) != 0) {
        error = std::string("could not make a pipe: ") + std::strerror(errno);
        return nullptr;
    }
    // Installed before ncurses starts, so that it keeps ours instead of its own.
    resizeWrite = pipeFds[1];
    struct sigaction action {};
    action.sa_handler = onResize;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGWINCH, &action, nullptr);

    terminal_restore::saveModes();
    SCREEN* screen = newterm(nullptr, stdout, stdin);
    if (screen == nullptr) {
        error = "the terminal type is not known";
        ::close(pipeFds[0]);
        ::close(pipeFds[1]);
        resizeWrite = -1;
        return nullptr;
    }
    set_term(screen);
    terminal_restore::arm(capability("rmcup") + capability("cnorm") + capability("sgr0") +
                          "\x1b[?1004l\x1b[?1000l\x1b[?1002l\x1b[?1003l\x1b[?1006l");

    std::unique_ptr<NcursesTerminal> t(new NcursesTerminal());
    t->resizeRead_ = pipeFds[0];
    t->screen_ = screen;
    raw();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    set_escdelay(25);
    curs_set(0);
    leaveok(stdscr, TRUE);
    mouseinterval(0);
    mousemask(BUTTON1_PRESSED | BUTTON4_PRESSED | BUTTON5_PRESSED, nullptr);
    define_key("\x1b[I", kFocusIn);
    define_key("\x1b[O", kFocusOut);
    if (color && has_colors()) {
        start_color();
        use_default_colors();
        init_pair(1, COLOR_RED, -1);
        init_pair(2, COLOR_YELLOW, -1);
        init_pair(3, COLOR_GREEN, -1);
        init_pair(4, COLOR_CYAN, -1);
        t->color_ = true;
    }
    putp("\x1b[?1004h");
    fflush(stdout);
    return t;
}

NcursesTerminal::~NcursesTerminal() {
    putp("\x1b[?1004l");
    mousemask(0, nullptr);
    endwin();
    terminal_restore::disarm();
    delscreen(static_cast<SCREEN*>(screen_));
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGWINCH, &action, nullptr);
    if (resizeRead_ >= 0) ::close(resizeRead_);
    if (resizeWrite >= 0) ::close(resizeWrite);
    resizeWrite = -1;
}

int NcursesTerminal::cols() const {
    return getmaxx(stdscr);
}

int NcursesTerminal::rows() const {
    return getmaxy(stdscr);
}

void NcursesTerminal::applySize() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0)
        resizeterm(size.ws_row, size.ws_col);
}

void NcursesTerminal::draw(const Screen& screen) {
    const bool full = !drawn_ || drawn_->cols() != screen.cols() || drawn_->rows() != screen.rows();
    if (full) {
        // A new size: every cell is drawn again on a cleared terminal.
        clearok(stdscr, TRUE);
        erase();
    }
    for (const auto& [x, y] : changedCells(full ? nullptr : &*drawn_, screen)) {
        const Cell& cell = screen.at(x, y);
        wchar_t wide[CCHARW_MAX + 1] = {};
        size_t n = 0;
        for (size_t pos = 0; pos < cell.text.size() && n < CCHARW_MAX;)
            wide[n++] = static_cast<wchar_t>(nextCodepoint(cell.text, pos));
        cchar_t c;
        setcchar(&c, wide, attributesOf(cell.style), color_ ? pairOf(cell.style.color) : 0,
                 nullptr);
        mvadd_wch(y, x, &c);
    }
    drawn_ = screen;
    wnoutrefresh(stdscr);
    doupdate();
}

std::vector<Key> NcursesTerminal::read() {
    std::vector<Key> keys;
    char drain[64];
    bool resized = false;
    while (::read(resizeRead_, drain, sizeof drain) > 0)
        resized = true;
    if (resized) {
        applySize();
        keys.push_back(Key::of(Key::Kind::resize));
    }
    for (int i = 0; i < kMaxEventsPerRead; ++i) {
        wint_t c = 0;
        const int got = wget_wch(stdscr, &c);
        if (got == ERR) break;
        if (got == KEY_CODE_YES && c == KEY_MOUSE) {
            MEVENT event{};
            if (getmouse(&event) != OK) continue;
            if (event.bstate & BUTTON4_PRESSED)
                keys.push_back(Key::of(Key::Kind::wheelUp));
            else if (event.bstate & BUTTON5_PRESSED)
                keys.push_back(Key::of(Key::Kind::wheelDown));
            else if (event.bstate & BUTTON1_PRESSED)
                keys.push_back(Key::clickAt(event.x, event.y));
            continue;
        }
        const Key key = got == KEY_CODE_YES ? keyOfCode(static_cast<int>(c)) : keyOfChar(c);
        if (key.kind == Key::Kind::character && key.ch == 0) continue;
        if (key.kind == Key::Kind::resize && resized) continue;
        keys.push_back(key);
    }
    return keys;
}

std::vector<int> NcursesTerminal::descriptors() const {
    return {STDIN_FILENO, resizeRead_};
}

}  // namespace wharfy::app::tui
