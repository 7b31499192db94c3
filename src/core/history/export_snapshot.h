#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/agents/agent_monitor.h"
#include "core/agents/agent_session.h"
#include "core/containers/engine_records.h"
#include "core/ports/port_row.h"

namespace wharfy {

/// One listening port in an export.
struct PortEntry {
    int port = 0;
    std::string process;
    int pid = 0;
    /// "This computer only", "One network" or "All networks".
    std::string exposure;
    std::vector<std::string> addresses;
    /// What the listener is, as the ports list says it.
    std::string kind;
    std::optional<std::string> project;
    /// The name of the container that published the port.
    std::optional<std::string> container;

    bool operator==(const PortEntry&) const = default;
};

/// One container in an export.
struct ContainerEntry {
    std::string name;
    std::string image;
    std::string state;
    /// Host ports it publishes, each once, in the engine's order.
    std::vector<int> publishedPorts;

    bool operator==(const ContainerEntry&) const = default;
};

/// One running container runtime in an export.
struct RuntimeEntry {
    std::string name;
    int running = 0;
    int stopped = 0;
    /// Bytes it occupies on this computer; absent when not measured.
    std::optional<int64_t> macDiskBytes;
    std::vector<ContainerEntry> containers;

    bool operator==(const RuntimeEntry&) const = default;
};

/// One agent session in an export.
struct AgentEntry {
    /// The tool's display name.
    std::string tool;
    std::optional<std::string> version;
    std::optional<std::string> project;
    /// The desktop app that runs the session.
    std::optional<std::string> managedBy;
    int processes = 0;
    std::optional<double> cpuPercent;
    int64_t memoryBytes = 0;
    /// "idle", "busy", or "runaway" with its reason.
    std::string status;

    bool operator==(const AgentEntry&) const = default;
};

/// What is running at one moment, as the user exports it.
struct ExportSnapshot {
    /// Seconds since 1970.
    double generatedAt = 0;
    std::vector<PortEntry> ports;
    std::vector<RuntimeEntry> runtimes;
    std::vector<AgentEntry> agents;

    bool operator==(const ExportSnapshot&) const = default;
};

/// A port row as exported; `kind` is the phrase the ports list shows for it.
PortEntry portEntry(const PortRow& row, std::string kind);
/// A container as exported.
ContainerEntry containerEntry(const ContainerInfo& container);
/// A running runtime with its containers, counted, and the bytes it occupies.
RuntimeEntry runtimeEntry(std::string name, const std::vector<ContainerInfo>& containers,
                          std::optional<uint64_t> occupiedBytes);
/// A session with its status.
AgentEntry agentEntry(const AgentSession& session, const AgentStatus& status);

/// A session's state in words: "idle", "busy", "runaway (CPU 97%)" or
/// "runaway (memory 5.2 GB)".
std::string agentStatusText(const AgentStatus& status);

/// Bytes in the style of file sizes, decimal: "512 bytes", "12 KB", "3.4 MB", "1.2 GB".
std::string fileBytes(uint64_t bytes);

/// Machine text made safe for one Markdown table cell or heading: "|" and
/// "\" are escaped, line breaks and tabs become blanks, control and bidi
/// characters become U+FFFD, backticks and "<" cannot open code or markup,
/// and a leading "#", ">", "-" or "+" cannot start a block. Invalid UTF-8 is repaired.
std::string markdownCell(std::string_view text);

/// Turns a snapshot into the bytes of an export file.
class ExportRenderer {
  public:
    /// Writes a time as the user's locale shows a date and time.
    using DateText = std::function<std::string(double time)>;

    explicit ExportRenderer(DateText dateText) : dateText_(std::move(dateText)) {}

    /// Pretty JSON with sorted keys and a final line feed; absent fields are
    /// left out, text is valid UTF-8, the time is an internet date in UTC.
    std::string json(const ExportSnapshot& snapshot) const;
    /// The Markdown report, lines joined by line feeds: a heading, then ports,
    /// containers and agent sessions, every table row on one line.
    std::string markdown(const ExportSnapshot& snapshot) const;

  private:
    DateText dateText_;
};

/// `time` in the user's LC_TIME: the locale's date and time forms ("%x %X")
/// in the local time zone.
std::string localeDateText(double time);

}  // namespace wharfy
