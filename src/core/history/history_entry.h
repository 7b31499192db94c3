#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/agents/agent_monitor.h"
#include "core/agents/agent_session.h"
#include "core/ports/port_row.h"

namespace wharfy {

/// One listener as the history remembers it.
struct HistoryPort {
    uint16_t port = 0;
    /// The owning process's name as the port row shows it.
    std::string process;
    /// The reachability label: "This computer only", "One network" or "All networks".
    std::string exposure;
    /// The row's project name; the key is left out of the line when absent.
    std::optional<std::string> project;

    bool operator==(const HistoryPort&) const = default;
    auto operator<=>(const HistoryPort&) const = default;
};

/// One agent session as the history remembers it.
struct HistorySession {
    /// The tool's display name, such as "Claude Code".
    std::string tool;
    std::optional<std::string> project;
    /// Percent of one core; left out of the line when absent.
    std::optional<double> cpuPercent;
    int64_t memoryBytes = 0;

    bool operator==(const HistorySession&) const = default;
};

/// One line of a daily history file: what was listening and which sessions
/// ran at one moment.
struct HistoryEntry {
    /// Seconds since 1970, UTC; written with whole seconds.
    double time = 0;
    std::vector<HistoryPort> ports;
    std::vector<HistorySession> sessions;

    bool operator==(const HistoryEntry&) const = default;

    /// An entry from the current port rows, sessions and their statuses
    /// (keyed by session id). A session's CPU comes from its status's `cpuNow`;
    /// its footprint is clamped to the largest signed 64-bit value.
    static HistoryEntry from(double time, const std::vector<PortRow>& rows,
                             const std::vector<AgentSession>& sessions,
                             const std::map<std::string, AgentStatus>& statuses);
};

/// The reachability label of an address class, in this platform's words.
std::string exposureLabel(AddressClass addressClass);

/// An instant as an internet date-time in UTC with whole seconds (the
/// fraction is dropped), e.g. "2026-03-07T14:05:09Z".
std::string internetDate(double time);

/// The seconds since 1970 of exactly that form; absent for anything else.
std::optional<double> parseInternetDate(std::string_view text);

/// Encodes and decodes the lines of the history files: compact JSON with the
/// keys sorted at every level, one line feed at the end.
struct HistoryCodec {
    /// The entry as one line, line feed included. Machine text that is not
    /// valid UTF-8 is repaired, never dropped.
    static std::string encode(const HistoryEntry& entry);

    /// One line (without its line feed); absent when it is not a whole,
    /// well-formed entry. Unknown keys are ignored.
    static std::optional<HistoryEntry> decode(std::string_view line);
};

/// Decodes the lines of one read in order. Consecutive lines usually list the
/// same ports byte for byte, so the ports of the previous line are kept and
/// reused instead of decoded again.
class HistoryLineDecoder {
  public:
    /// Decodes `line` into `entry`, which must hold the previous line's
    /// result (or be fresh). False when the line is not a well-formed entry;
    /// `entry` is then unspecified until the next successful call.
    bool decode(std::string_view line, HistoryEntry& entry);

  private:
    std::string previousPorts_;
    bool havePrevious_ = false;
};

}  // namespace wharfy
