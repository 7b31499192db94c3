#include "app/launch_options.h"

#include <array>
#include <cmath>
#include <cstdlib>
#include <string>

#include "app/command_line.h"

namespace wharfy::app {

namespace {
constexpr std::array<const char*, 4> kTabNames{"ports", "containers", "agents", "history"};
}

const char* rawValue(Tab tab) {
    return kTabNames[static_cast<size_t>(tab)];
}

std::optional<Tab> tabFromRaw(std::string_view raw) {
    for (size_t i = 0; i < kTabNames.size(); ++i)
        if (raw == kTabNames[i]) return static_cast<Tab>(i);
    return std::nullopt;
}

std::optional<double> parseSeconds(std::string_view text) {
    if (text.empty() || text.front() == ' ') return std::nullopt;
    const std::string copy(text);
    char* end = nullptr;
    const double value = std::strtod(copy.c_str(), &end);
    if (end != copy.c_str() + copy.size() || !std::isfinite(value)) return std::nullopt;
    return value;
}

std::optional<uint16_t> parsePort(std::string_view text) {
    if (text.starts_with('+')) text.remove_prefix(1);
    if (text.empty() || text.size() > 5) return std::nullopt;
    uint32_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + static_cast<uint32_t>(c - '0');
    }
    if (value > 65535) return std::nullopt;
    return static_cast<uint16_t>(value);
}

LaunchOptions::LaunchOptions(const std::vector<std::string>& arguments) {
    auto value = [&](std::string_view option) { return valueAfter(option, arguments); };
    if (auto open = value("--open")) {
        openTab = tabFromRaw(*open);
        openSettings = *open == "settings";
    }
    snapshotPath = value("--snapshot");
    popoverSnapshotPath = value("--snapshot-popover");
    suiteSnapshotPath = value("--snapshot-suite-popover");
    diagnosticsPath = value("--diagnostics");
    if (auto delay = value("--snapshot-delay")) snapshotDelay = parseSeconds(*delay);
    if (auto quit = value("--quit-after")) quitAfter = parseSeconds(*quit);
    if (auto port = value("--confirm-stop-port")) confirmStopPort = parsePort(*port);
    quitAfterSnapshot = hasOption("--quit-after-snapshot", arguments);
}

}  // namespace wharfy::app
