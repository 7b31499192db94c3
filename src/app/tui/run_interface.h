#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/ports_command.h"
#include "app/suite_link.h"

namespace wharfy::app::tui {

/// How `wharfy` without a headless command runs.
enum class StartMode {
    /// The one-shot report on standard output.
    report,
    /// The full-screen interface.
    interface,
    /// No terminal, but snapshots were asked for: the model runs unseen.
    snapshots,
};

/// What is known of the terminal at start.
struct TerminalFacts {
    bool stdinIsTerminal = false;
    bool stdoutIsTerminal = false;
    /// $TERM; absent when unset.
    std::optional<std::string> term;

    bool operator==(const TerminalFacts&) const = default;
    /// This process's.
    static TerminalFacts current();
};

/// The interface needs standard input and output on a terminal whose type
/// is known and not "dumb"; `--once` asks for the report anyway. Without a
/// terminal, a snapshot option still runs the model to take the pictures.
StartMode startMode(const std::vector<std::string>& arguments, const TerminalFacts& facts);

/// "COLSxROWS" of `--snapshot-size`, each from 20 to 1000; absent otherwise.
std::optional<std::pair<int, int>> parseSnapshotSize(std::string_view text);

/// Runs the interface (or the unseen snapshot run) until the user quits, a
/// snapshot run ends or an ending signal arrives. The exit status.
int runInterface(const std::vector<std::string>& arguments, const UserContext& user, StartMode mode,
                 const SuiteFolderChoice& suiteFolders);

}  // namespace wharfy::app::tui
