#include "app/tui/terminal_restore.h"

#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <exception>

namespace wharfy::app::tui::terminal_restore {
namespace {

// Read by signal handlers: fixed storage, set before the handlers are armed.
volatile sig_atomic_t armed = 0;
bool haveModes = false;
termios savedModes{};
std::array<char, 512> sequence{};
size_t sequenceLength = 0;
bool handlersInstalled = false;
std::terminate_handler previousTerminate = nullptr;

constexpr std::array kCrashSignals{SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};

void onCrash(int signal) {
    restoreNow();
    // The handler was reset on entry: the signal now does what it would have.
    ::raise(signal);
}

void onTerminate() {
    restoreNow();
    if (previousTerminate) previousTerminate();
    std::abort();
}

void atExit() {
    restoreNow();
}

}  // namespace

void saveModes() {
    haveModes = ::tcgetattr(STDIN_FILENO, &savedModes) == 0;
}

void arm(const std::string& text) {
    sequenceLength = std::min(text.size(), sequence.size());
    std::memcpy(sequence.data(), text.data(), sequenceLength);
    if (!handlersInstalled) {
        handlersInstalled = true;
        struct sigaction action {};
        action.sa_handler = onCrash;
        sigemptyset(&action.sa_mask);
        action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
        for (int s : kCrashSignals)
            ::sigaction(s, &action, nullptr);
        previousTerminate = std::set_terminate(onTerminate);
        std::atexit(atExit);
    }
    armed = 1;
}

void restoreNow() {
    if (!armed) return;
    armed = 0;
    size_t done = 0;
    while (done < sequenceLength) {
        const ssize_t n = ::write(STDOUT_FILENO, sequence.data() + done, sequenceLength - done);
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    if (haveModes) ::tcsetattr(STDIN_FILENO, TCSANOW, &savedModes);
}

void disarm() {
    armed = 0;
}

}  // namespace wharfy::app::tui::terminal_restore
