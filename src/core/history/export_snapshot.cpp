#include "core/history/export_snapshot.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include <nlohmann/json.hpp>

#include "common/text.h"
#include "core/history/history_entry.h"
#include "core/ports/platform_words.h"

namespace wharfy {
namespace {

using Json = nlohmann::json;

int64_t clampedSigned(uint64_t v) {
    constexpr auto kMax = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    return static_cast<int64_t>(std::min(v, kMax));
}

std::string decimals(double value, int places) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f", places, value);
    return buf;
}

std::optional<std::string> projectName(const std::optional<ProjectInfo>& project) {
    if (!project) return std::nullopt;
    return project->name();
}

// Decodes one code point of valid UTF-8 at `i`, moving `i` past it.
uint32_t nextCodePoint(std::string_view s, size_t& i) {
    const auto c = static_cast<unsigned char>(s[i]);
    size_t len = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
    uint32_t cp = len == 1 ? c : c & (0x7F >> len);
    for (size_t k = 1; k < len; ++k)
        cp = (cp << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
    i += len;
    return cp;
}

bool isBidiControl(uint32_t cp) {
    return cp == 0x061C || cp == 0x200E || cp == 0x200F || (cp >= 0x202A && cp <= 0x202E) ||
           (cp >= 0x2066 && cp <= 0x2069);
}

Json optionalJson(const std::optional<std::string>& text) {
    return text ? Json(repairUtf8(*text)) : Json();
}

}  // namespace

PortEntry portEntry(const PortRow& row, std::string kind) {
    PortEntry e;
    e.port = row.port;
    e.process = row.processName;
    e.pid = row.pid;
    e.exposure = exposureLabel(row.addressClass);
    e.addresses = row.addresses;
    e.kind = std::move(kind);
    e.project = projectName(row.project);
    if (row.container) e.container = row.container->name;
    return e;
}

ContainerEntry containerEntry(const ContainerInfo& container) {
    ContainerEntry e{container.name(), container.image, container.state, {}};
    for (const auto& p : container.ports) {
        if (!p.publicPort) continue;
        const int port = *p.publicPort;
        if (std::find(e.publishedPorts.begin(), e.publishedPorts.end(), port) ==
            e.publishedPorts.end())
            e.publishedPorts.push_back(port);
    }
    return e;
}

RuntimeEntry runtimeEntry(std::string name, const std::vector<ContainerInfo>& containers,
                          std::optional<uint64_t> occupiedBytes) {
    RuntimeEntry e;
    e.name = std::move(name);
    for (const auto& c : containers) {
        e.running += c.isRunning() ? 1 : 0;
        e.stopped += c.isStopped() ? 1 : 0;
        e.containers.push_back(containerEntry(c));
    }
    if (occupiedBytes) e.macDiskBytes = clampedSigned(*occupiedBytes);
    return e;
}

AgentEntry agentEntry(const AgentSession& session, const AgentStatus& status) {
    AgentEntry e;
    e.tool = displayName(session.tool);
    e.version = session.version;
    e.project = projectName(session.project);
    e.managedBy = session.managedBy;
    e.processes = static_cast<int>(session.processCount());
    e.cpuPercent = session.cpuPercent;
    e.memoryBytes = clampedSigned(session.footprint);
    e.status = agentStatusText(status);
    return e;
}

std::string agentStatusText(const AgentStatus& status) {
    if (status.runaway) {
        if (const auto* memory = status.runaway->as<RunawayReason::Memory>())
            return "runaway (memory " + decimals(static_cast<double>(memory->bytes) / 1e9, 1) +
                   " GB" + ")";
        if (const auto* cpu = status.runaway->as<RunawayReason::Cpu>())
            return "runaway (CPU " + decimals(cpu->averagePercent, 0) + "%" + ")";
    }
    return status.isBusy ? "busy" : "idle";
}

std::string fileBytes(uint64_t bytes) {
    if (bytes == 1) return "1 byte";
    if (bytes < 1000) return std::to_string(bytes) + " bytes";
    struct Unit {
        const char* name;
        double scale;
        int decimals;
    };
    static constexpr Unit kUnits[] = {
        {"KB", 1e3, 0}, {"MB", 1e6, 1}, {"GB", 1e9, 1}, {"TB", 1e12, 1}, {"PB", 1e15, 1}};
    for (const auto& unit : kUnits) {
        const double value = static_cast<double>(bytes) / unit.scale;
        const double step = unit.decimals == 0 ? 1.0 : 0.1;
        // Move up a unit when rounding would show 1000.
        if (std::round(value / step) * step < 1000 || &unit == &kUnits[std::size(kUnits) - 1])
            return decimals(value, unit.decimals) + " " + unit.name;
    }
    return "";
}

std::string markdownCell(std::string_view text) {
    const std::string repaired = repairUtf8(text);
    std::string out;
    out.reserve(repaired.size());
    for (size_t i = 0; i < repaired.size();) {
        const size_t start = i;
        const uint32_t cp = nextCodePoint(repaired, i);
        if (cp == '\r' && i < repaired.size() && repaired[i] == '\n') ++i;  // one break
        if (cp == '\\' || cp == '|' || cp == '`' || cp == '<') {
            out += '\\';
            out += static_cast<char>(cp);
        } else if (cp == '\n' || cp == '\r' || cp == '\t' || cp == 0x85 || cp == 0x2028 ||
                   cp == 0x2029) {
            out += ' ';
        } else if (cp < 0x20 || (cp >= 0x7F && cp <= 0x9F) || isBidiControl(cp)) {
            out += "\xEF\xBF\xBD";
        } else {
            out.append(repaired, start, i - start);
        }
    }
    const size_t first = out.find_first_not_of(' ');
    if (first != std::string::npos &&
        std::string_view("#>-+").find(out[first]) != std::string::npos)
        out.insert(first, 1, '\\');
    return out;
}

std::string ExportRenderer::json(const ExportSnapshot& s) const {
    Json ports = Json::array();
    for (const auto& p : s.ports) {
        Json addresses = Json::array();
        for (const auto& a : p.addresses)
            addresses.push_back(repairUtf8(a));
        Json o = {{"port", p.port},         {"process", repairUtf8(p.process)},
                  {"pid", p.pid},           {"exposure", repairUtf8(p.exposure)},
                  {"addresses", addresses}, {"kind", repairUtf8(p.kind)}};
        if (p.project) o["project"] = optionalJson(p.project);
        if (p.container) o["container"] = optionalJson(p.container);
        ports.push_back(std::move(o));
    }
    Json runtimes = Json::array();
    for (const auto& r : s.runtimes) {
        Json containers = Json::array();
        for (const auto& c : r.containers)
            containers.push_back({{"name", repairUtf8(c.name)},
                                  {"image", repairUtf8(c.image)},
                                  {"state", repairUtf8(c.state)},
                                  {"publishedPorts", c.publishedPorts}});
        Json o = {{"name", repairUtf8(r.name)},
                  {"running", r.running},
                  {"stopped", r.stopped},
                  {"containers", containers}};
        if (r.macDiskBytes) o["macDiskBytes"] = *r.macDiskBytes;
        runtimes.push_back(std::move(o));
    }
    Json agents = Json::array();
    for (const auto& a : s.agents) {
        Json o = {{"tool", repairUtf8(a.tool)},
                  {"processes", a.processes},
                  {"memoryBytes", a.memoryBytes},
                  {"status", repairUtf8(a.status)}};
        if (a.version) o["version"] = optionalJson(a.version);
        if (a.project) o["project"] = optionalJson(a.project);
        if (a.managedBy) o["managedBy"] = optionalJson(a.managedBy);
        if (a.cpuPercent && std::isfinite(*a.cpuPercent)) o["cpuPercent"] = *a.cpuPercent;
        agents.push_back(std::move(o));
    }
    const Json root = {{"generatedAt", internetDate(s.generatedAt)},
                       {"ports", ports},
                       {"runtimes", runtimes},
                       {"agents", agents}};
    return root.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string ExportRenderer::markdown(const ExportSnapshot& s) const {
    std::vector<std::string> lines;
    auto blank = [&] {
        if (!lines.empty() && !lines.back().empty()) lines.emplace_back();
    };
    auto row = [](const std::vector<std::string>& cells) {
        std::string line = "|";
        for (const auto& c : cells)
            line += " " + c + " |";
        return line;
    };

    lines.push_back("# What is running");
    lines.push_back("Written by Nemarro Wharfy on " + markdownCell(dateText_(s.generatedAt)) + ".");

    blank();
    lines.push_back("## Ports (" + std::to_string(s.ports.size()) + ")");
    if (s.ports.empty()) {
        lines.push_back("Nothing is listening.");
    } else {
        lines.push_back("| Port | Process | Reachable from | Kind | Project | Container |");
        lines.push_back("|---|---|---|---|---|---|");
        for (const auto& p : s.ports)
            lines.push_back(
                row({std::to_string(p.port), markdownCell(p.process), markdownCell(p.exposure),
                     markdownCell(p.kind), markdownCell(p.project.value_or("")),
                     markdownCell(p.container.value_or(""))}));
    }

    blank();
    lines.push_back("## Containers");
    if (s.runtimes.empty()) lines.push_back("No container runtime is running.");
    for (size_t i = 0; i < s.runtimes.size(); ++i) {
        const auto& r = s.runtimes[i];
        if (i > 0) blank();
        lines.push_back("### " + markdownCell(r.name));
        lines.emplace_back();
        std::string summary =
            std::to_string(r.running) + " running, " + std::to_string(r.stopped) + " stopped";
        if (r.macDiskBytes)
            summary += " — occupies " +
                       fileBytes(static_cast<uint64_t>(std::max<int64_t>(*r.macDiskBytes, 0))) +
                       " " + platformWords().onThisMac;
        lines.push_back(summary);
        lines.emplace_back();
        if (r.containers.empty()) continue;
        lines.push_back("| Container | Image | State | Ports |");
        lines.push_back("|---|---|---|---|");
        for (const auto& c : r.containers) {
            std::string ports;
            for (int port : c.publishedPorts)
                ports += (ports.empty() ? "" : ", ") + std::to_string(port);
            lines.push_back(
                row({markdownCell(c.name), markdownCell(c.image), markdownCell(c.state), ports}));
        }
    }

    blank();
    lines.push_back("## Agent sessions (" + std::to_string(s.agents.size()) + ")");
    if (s.agents.empty()) {
        lines.push_back("No agent session is running.");
    } else {
        lines.push_back("| Tool | Project | Status | CPU | Memory | Processes |");
        lines.push_back("|---|---|---|---|---|---|");
        for (const auto& a : s.agents) {
            std::string tool = a.tool;
            if (a.managedBy) tool += " (managed by " + *a.managedBy + ")";
            lines.push_back(row(
                {markdownCell(tool), markdownCell(a.project.value_or("")), markdownCell(a.status),
                 a.cpuPercent && std::isfinite(*a.cpuPercent) ? decimals(*a.cpuPercent, 0) + "%"
                                                              : "—",
                 fileBytes(static_cast<uint64_t>(std::max<int64_t>(a.memoryBytes, 0))),
                 std::to_string(a.processes)}));
        }
    }

    std::string out;
    for (size_t i = 0; i < lines.size(); ++i)
        out += (i ? "\n" : "") + lines[i];
    return out;
}

}  // namespace wharfy
