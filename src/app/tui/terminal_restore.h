#pragma once

#include <string>

namespace wharfy::app::tui {

/// Puts the terminal back the way it was, whatever ends the interface: the
/// saved terminal modes and the escape sequences that leave the alternate
/// screen and turn off the mouse and focus reports. Once armed, a crash
/// signal (SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT), an uncaught exception
/// and the end of the process restore it before they go on.
namespace terminal_restore {

/// Saves the modes of standard input; call before the terminal is changed.
void saveModes();
/// Arms the restoring with `sequence` (written to standard output).
void arm(const std::string& sequence);
/// Restores now, once; safe in a signal handler.
void restoreNow();
/// Forgets the armed restoring after a normal close.
void disarm();

}  // namespace terminal_restore

}  // namespace wharfy::app::tui
