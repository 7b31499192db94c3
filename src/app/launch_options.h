#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace wharfy::app {

/// The tabs of the window, with their stored names.
enum class Tab { ports, containers, agents, history };

/// "ports", "containers", "agents" or "history".
const char* rawValue(Tab tab);
/// The tab named `raw`, if any.
std::optional<Tab> tabFromRaw(std::string_view raw);

/// What the command line asks of the app beyond the headless commands: the
/// tab to open, snapshots, timed runs and an armed confirmation. Parsed once
/// at start; a valued option takes the argument after its first occurrence
/// and is ignored when that is missing or does not read.
struct LaunchOptions {
    std::optional<Tab> openTab;
    bool openSettings = false;
    std::optional<std::string> snapshotPath;
    std::optional<std::string> popoverSnapshotPath;
    std::optional<double> snapshotDelay;
    std::optional<std::string> diagnosticsPath;
    bool quitAfterSnapshot = false;
    std::optional<double> quitAfter;
    std::optional<uint16_t> confirmStopPort;
    std::optional<std::string> suiteSnapshotPath;
    /// Hooks for tests of the model; the command line never sets them.
    std::optional<int> qaUnseenAlerts;
    std::optional<int> qaRunawayMemoryMB;
    std::optional<std::string> dumpCountsPath;

    bool operator==(const LaunchOptions&) const = default;

    explicit LaunchOptions(const std::vector<std::string>& arguments = {});
};

/// A decimal number as the options read it ("1.5", "-2", "3e1"); absent for
/// anything else, including trailing text.
std::optional<double> parseSeconds(std::string_view text);

/// A port number: base 10, an optional leading "+", at most 65535.
std::optional<uint16_t> parsePort(std::string_view text);

}  // namespace wharfy::app
