#include "app/tui/views.h"

#include <algorithm>
#include <cstdio>
#include <set>

#include "app/ports_command.h"
#include "app/terminal_text.h"
#include "app/tui/text_width.h"
#include "core/agents/agent_catalog.h"
#include "core/ports/platform_words.h"
#include "core/ports/shell_names.h"

namespace wharfy::app::tui {
namespace {

namespace suite = nemarro::suite;

// ---- Styles ---------------------------------------------------------------

Style plain() {
    return {};
}
Style bold() {
    Style s;
    s.bold = true;
    return s;
}
Style dim() {
    Style s;
    s.dim = true;
    return s;
}
/// An accent colour with an attribute that carries the same meaning.
Style accent(const ViewData& data, Color color, bool strong = true) {
    Style s;
    s.bold = strong;
    if (data.color) s.color = color;
    return s;
}
Style selectedStyle() {
    Style s;
    s.reverse = true;
    return s;
}
Style headerStyle() {
    Style s;
    s.bold = true;
    s.underline = true;
    return s;
}

std::string percent(double value) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f%%", value);
    return buf;
}

std::string oneDecimal(double value) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f", value);
    return buf;
}

std::string plural(size_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

std::string join(const std::vector<std::string>& parts, std::string_view with) {
    std::string out;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i) out += with;
        out += parts[i];
    }
    return out;
}

/// Words of `text` in lines of at most `width` columns; words longer than a
/// line are cut.
std::vector<std::string> wrap(std::string_view text, int width) {
    std::vector<std::string> lines;
    if (width <= 0) return lines;
    std::string current;
    int used = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        if (text[pos] == ' ') {
            ++pos;
            continue;
        }
        size_t end = text.find(' ', pos);
        if (end == std::string_view::npos) end = text.size();
        std::string word(text.substr(pos, end - pos));
        pos = end;
        int w = displayWidth(word);
        if (used > 0 && used + 1 + w > width) {
            lines.push_back(current);
            current.clear();
            used = 0;
        }
        while (w > width) {
            std::string head = fitText(word, width);
            head.erase(head.size() - std::string("…").size());
            if (head.empty()) break;
            if (used > 0) {
                lines.push_back(current);
                current.clear();
                used = 0;
            }
            lines.push_back(head);
            word.erase(0, head.size());
            w = displayWidth(word);
        }
        if (used > 0) {
            current += ' ';
            ++used;
        }
        current += word;
        used += w;
    }
    if (!current.empty()) lines.push_back(current);
    return lines;
}

// ---- Lines and tables -----------------------------------------------------

struct Segment {
    int x = 0;
    int width = 0;
    std::string text;
    Style style;
    bool right = false;
};

/// One line of a list: an id when it can be selected, and its segments.
struct Line {
    std::string id;
    std::vector<Segment> segments;
};

Line textLine(std::string text, Style style = {}, int indent = 0, std::string id = {}) {
    return Line{std::move(id), {Segment{indent, -1, std::move(text), style, false}}};
}

struct Column {
    std::string header;
    int min = 4;
    int max = 40;
    /// Hidden below this terminal width.
    int hideBelow = 0;
    /// Among columns still too wide, the highest rank hides first.
    int rank = 0;
    bool right = false;
};

constexpr int kGap = 2;

/// Column widths (0 for hidden) that fit `width`: natural widths within each
/// column's bounds, shrunk toward their minimum, then the least important
/// hidden.
std::vector<int> fitColumns(const std::vector<Column>& columns,
                            const std::vector<std::vector<std::string>>& rows, int width,
                            int screenWidth) {
    std::vector<int> w(columns.size(), 0);
    for (size_t i = 0; i < columns.size(); ++i) {
        if (screenWidth < columns[i].hideBelow) continue;
        int natural = displayWidth(columns[i].header);
        for (const auto& row : rows)
            natural = std::max(natural, displayWidth(row[i]));
        w[i] = std::clamp(natural, columns[i].min, columns[i].max);
    }
    auto total = [&] {
        int sum = 0, shown = 0;
        for (int x : w)
            if (x > 0) sum += x, ++shown;
        return sum + kGap * std::max(0, shown - 1);
    };
    while (total() > width) {
        size_t widest = columns.size();
        for (size_t i = 0; i < columns.size(); ++i)
            if (w[i] > columns[i].min && (widest == columns.size() ||
                                          w[i] - columns[i].min > w[widest] - columns[widest].min))
                widest = i;
        if (widest != columns.size()) {
            --w[widest];
            continue;
        }
        size_t hide = columns.size();
        for (size_t i = 1; i < columns.size(); ++i)
            if (w[i] > 0 && (hide == columns.size() || columns[i].rank > columns[hide].rank))
                hide = i;
        if (hide == columns.size()) {
            w[0] = std::max(1, width);
            break;
        }
        w[hide] = 0;
    }
    return w;
}

Line tableLine(const std::vector<Column>& columns, const std::vector<int>& widths,
               const std::vector<std::string>& cells, const std::vector<Style>& styles, int indent,
               std::string id = {}) {
    Line line{std::move(id), {}};
    int x = indent;
    for (size_t i = 0; i < columns.size(); ++i) {
        if (widths[i] == 0) continue;
        line.segments.push_back(Segment{x, widths[i], cells[i],
                                        i < styles.size() ? styles[i] : Style{}, columns[i].right});
        x += widths[i] + kGap;
    }
    return line;
}

Line headerLine(const std::vector<Column>& columns, const std::vector<int>& widths, int indent) {
    std::vector<std::string> names;
    for (const auto& c : columns)
        names.push_back(c.header);
    return tableLine(columns, widths, names, std::vector<Style>(columns.size(), headerStyle()),
                     indent);
}

void drawSegment(Screen& screen, int y, const Segment& s, std::optional<Style> over) {
    const int width = s.width < 0 ? screen.cols() - s.x : s.width;
    const Style style = over ? *over : s.style;
    if (s.width < 0) {
        screen.put(s.x, y, fitText(s.text, width), style, width);
    } else {
        screen.put(s.x, y, padText(s.text, width, s.right), style, width);
    }
}

void drawLine(Screen& screen, int y, const Line& line, bool selected) {
    if (selected) screen.fill(0, y, screen.cols(), selectedStyle());
    for (const auto& s : line.segments) {
        std::optional<Style> over;
        if (selected) {
            Style st = s.style;
            st.reverse = true;
            over = st;
        }
        drawSegment(screen, y, s, over);
    }
}

/// Draws `lines` in rows [y, y + height), scrolled so that the selected id
/// shows; returns the first line shown and fills the geometry.
int drawList(Screen& screen, const std::vector<Line>& lines, int y, int height,
             const std::string& selected, int top, Geometry& geometry) {
    geometry.listY = y;
    geometry.listRows = height;
    geometry.lineIds.clear();
    if (height <= 0) return 0;
    const int count = static_cast<int>(lines.size());
    int index = -1;
    for (int i = 0; i < count; ++i)
        if (!selected.empty() && lines[static_cast<size_t>(i)].id == selected) index = i;
    top = std::clamp(top, 0, std::max(0, count - height));
    if (index >= 0) {
        if (index < top) top = index;
        if (index >= top + height) top = index - height + 1;
    }
    for (int row = 0; row < height && top + row < count; ++row) {
        const Line& line = lines[static_cast<size_t>(top + row)];
        drawLine(screen, y + row, line, index == top + row);
        geometry.lineIds.push_back(line.id);
    }
    return top;
}

// ---- Words ----------------------------------------------------------------

const char* reachWords(AddressClass c) {
    return reachLabel(c);
}

std::string processCell(const PortRow& row) {
    std::string s = terminalSafe(row.processName);
    if (row.pid > 0) s += " (" + std::to_string(row.pid) + ")";
    return s;
}

std::string portLabel(const PortRow& row) {
    return processCell(row) + " on port " + std::to_string(row.port);
}

std::string sessionLabel(const AgentSession& s) {
    return std::string(displayName(s.tool)) + " (pid " + std::to_string(s.root.identity.pid) + ")";
}

std::string statusWords(const AgentStatus* status) {
    if (!status) return "idle";
    if (status->runaway) {
        if (const auto* cpu = status->runaway->as<RunawayReason::Cpu>())
            return "runaway: CPU " + percent(cpu->averagePercent) + " for 10 min";
        if (const auto* mem = status->runaway->as<RunawayReason::Memory>())
            return "runaway: memory " + formatBytes(mem->bytes);
        return "runaway";
    }
    return status->isBusy ? "busy" : "idle";
}

std::string commandText(const std::vector<std::string>& argv) {
    return terminalSafe(join(argv, " "));
}

std::string portsText(const ContainerInfo& c) {
    std::vector<std::string> out;
    for (const auto& p : c.ports) {
        std::string s;
        if (p.publicPort)
            s = (p.ip ? *p.ip + ":" : std::string()) + std::to_string(*p.publicPort) + "→";
        s += std::to_string(p.privatePort) + "/" + p.type;
        out.push_back(terminalSafe(s));
    }
    return join(out, ", ");
}

const DiskUsage::Image* findImage(const DiskUsage& usage, const std::string& id) {
    auto bare = [](std::string_view s) { return s.starts_with("sha256:") ? s.substr(7) : s; };
    for (const auto& image : usage.images)
        if (bare(image.id) == bare(id)) return &image;
    return nullptr;
}

uint64_t positive(int64_t v) {
    return v > 0 ? static_cast<uint64_t>(v) : 0;
}

// ---- Header, tabs, footer ---------------------------------------------------

struct Part {
    std::string longText;
    std::string shortText;
    Style style;
};

void drawHeader(Screen& screen, const ViewData& data) {
    const WharfyCounts& c = data.counts;
    std::vector<Part> parts;
    parts.push_back({std::to_string(c.listening) + " listening",
                     std::to_string(c.listening) + " listening", plain()});
    parts.push_back({std::to_string(c.openToNetwork) + " open to network",
                     std::to_string(c.openToNetwork) + " open", plain()});
    if (c.containersRunning)
        parts.push_back({plural(static_cast<size_t>(*c.containersRunning), "container running",
                                "containers running"),
                         std::to_string(*c.containersRunning) + " running", plain()});
    parts.push_back({plural(static_cast<size_t>(c.agentsBusy), "agent busy", "agents busy"),
                     std::to_string(c.agentsBusy) + " busy", plain()});
    if (c.hasRunaway) parts.push_back({"RUNAWAY", "RUNAWAY", accent(data, Color::red)});
    if (c.unseenAlerts > 0)
        parts.push_back(
            {plural(static_cast<size_t>(c.unseenAlerts), "unseen alert", "unseen alerts"),
             std::to_string(c.unseenAlerts) + " alerts", accent(data, Color::red)});

    std::string right;
    if (data.lastRefresh && data.clock)
        right = "refreshed " + data.clock(*data.lastRefresh);
    else if (!data.lastRefresh)
        right = "reading…";
    const int rightWidth = displayWidth(right);
    const int room = screen.cols() - rightWidth - 1;

    const std::string brand = " Wharfy ";
    for (const bool shortForm : {false, true}) {
        int width = displayWidth(brand) + 1;
        for (const auto& p : parts)
            width += displayWidth(shortForm ? p.shortText : p.longText) + 3;
        if (width <= room || shortForm) {
            screen.fill(0, 0, screen.cols(), bold());
            int x = screen.put(0, 0, brand, bold()) + 1;
            for (size_t i = 0; i < parts.size(); ++i) {
                if (i) x += screen.put(x, 0, " · ", bold(), std::max(0, room - x));
                Style s = parts[i].style;
                s.bold = true;
                x += screen.put(x, 0, shortForm ? parts[i].shortText : parts[i].longText, s,
                                std::max(0, room - x));
            }
            break;
        }
    }
    if (rightWidth < screen.cols()) screen.put(screen.cols() - rightWidth, 0, right, dim());
}

void drawSuiteStrip(Screen& screen, int y, const ViewData& data) {
    const SuiteStrip& strip = *data.suite;
    std::string text = " Suite:";
    for (const auto& row : strip.rows) {
        if (const auto* running = std::get_if<suite::RunningRow>(&row)) {
            text += " " + std::string(suite::shortName(running->record.app)) + " " +
                    std::string(suite::word(running->record.level)) + " ·";
        } else if (const auto* stopped = std::get_if<suite::NotRunningRow>(&row)) {
            text += " " + std::string(suite::shortName(stopped->app)) + " not running ·";
        }
    }
    for (const auto& [ref, metric] : strip.menuBarValues) {
        std::string value;
        if (const auto* number = std::get_if<double>(&metric.value))
            value = (*number == static_cast<int64_t>(*number))
                        ? std::to_string(static_cast<int64_t>(*number))
                        : oneDecimal(*number);
        else
            value = std::string(suite::word(std::get<suite::StateWord>(metric.value)));
        text += " " + terminalSafe(metric.label) + " " + value + terminalSafe(metric.unit) + " ·";
    }
    text += " worst: " + std::string(suite::word(strip.worst));
    const Color color = strip.worst == suite::GlanceLevel::alert    ? Color::red
                        : strip.worst == suite::GlanceLevel::notice ? Color::yellow
                                                                    : Color::none;
    screen.put(0, y, fitText(text, screen.cols()), accent(data, color, false));
}

constexpr std::array<const char*, kTabCount> kTabNames{"Ports", "Containers", "Agents", "History",
                                                       "Settings"};

void drawTabs(Screen& screen, int y, const UiState& state, Geometry& geometry) {
    geometry.tabRow = y;
    int x = 1;
    const bool narrow = screen.cols() < 70;
    for (int i = 0; i < kTabCount; ++i) {
        const bool active = static_cast<int>(state.tab) == i;
        std::string label = std::to_string(i + 1) + " " + kTabNames[static_cast<size_t>(i)];
        if (!narrow) label = " " + label + " ";
        Style s = active ? selectedStyle() : plain();
        s.bold = active;
        const int w = screen.put(
            x, y, active && narrow ? "[" + label + "]" : (narrow ? " " + label + " " : label), s);
        geometry.tabSpans[static_cast<size_t>(i)] = {x, x + w};
        x += w + (narrow ? 0 : 1);
    }
}

std::string footerKeys(const ViewData& data, const UiState& state) {
    if (data.pending) return "y Stop/Run  n Esc Cancel  Tab Switch  Enter Choose";
    switch (state.overlay) {
        case Overlay::help:
        case Overlay::report:
            return "Any key Close";
        case Overlay::exportPrompt:
            return "Enter Write  Esc Cancel";
        case Overlay::cleanup:
            return "↑↓ Choose  Enter Review  Esc Close";
        case Overlay::none:
            break;
    }
    if (state.editing == Editing::portSearch || state.editing == Editing::historySearch)
        return "Type a port or a name  Enter Keep  Esc Clear";
    if (state.editing == Editing::setting) return "Type a number  Enter Save  Esc Cancel";
    switch (state.tab) {
        case ViewTab::ports:
            return "F1 Help  / Search  F9 Stop  e Export  1-5 Tabs  q Quit";
        case ViewTab::containers:
            return "F1 Help  F9 Stop  c Clean up  e Export  1-5 Tabs  q Quit";
        case ViewTab::agents:
            return "F1 Help  F9 Stop session  e Export  1-5 Tabs  q Quit";
        case ViewTab::history:
            return "F1 Help  / Search  ↑↓ Scroll  e Export  1-5 Tabs  q Quit";
        case ViewTab::settings:
            return "↑↓ Choose  Space Switch  ←→ Change  Enter Type  q Quit";
    }
    return "";
}

void drawFooter(Screen& screen, const ViewData& data, const UiState& state) {
    const int y = screen.rows() - 1;
    std::string right;
    if (data.isWorking) right = "Working… ";
    if (!data.isPrimary) right += "The background service is recording.";
    const int rightWidth = std::min(displayWidth(right), screen.cols());
    Style bar = dim();
    bar.reverse = true;
    screen.fill(0, y, screen.cols(), bar);
    screen.put(0, y, fitText(footerKeys(data, state), screen.cols() - rightWidth - 1), bar);
    if (rightWidth > 0) {
        Style r = bar;
        r.bold = true;
        screen.put(screen.cols() - rightWidth, y, fitText(right, rightWidth), r);
    }
}

void drawNotice(Screen& screen, const ViewData& data, const UiState& state) {
    const int y = screen.rows() - 2;
    if (state.editing == Editing::portSearch || state.editing == Editing::historySearch) {
        const std::string& text =
            state.editing == Editing::portSearch ? state.portSearch : state.historySearch;
        const int x = screen.put(0, y, " Search: ", bold());
        screen.put(x, y, fitText(terminalSafe(text) + "▏", screen.cols() - x), plain());
        return;
    }
    if (data.notice) {
        const Style s =
            data.notice->isError ? accent(data, Color::red) : accent(data, Color::yellow);
        screen.put(0, y, fitText(" " + terminalSafe(data.notice->text), screen.cols()), s);
        return;
    }
    if (state.tab == ViewTab::ports && !state.portSearch.empty()) {
        std::string text = " Search: " + terminalSafe(state.portSearch) + " — " +
                           std::to_string(data.ports.size()) + " of " +
                           std::to_string(data.totalPorts) + " (Esc clears)";
        screen.put(0, y, fitText(text, screen.cols()), dim());
    }
}

// ---- Ports ----------------------------------------------------------------

std::vector<Line> portLines(const ViewData& data, int width, std::vector<Line>& header) {
    const std::vector<Column> columns{
        {"PORT", 5, 5, 0, 0, true},
        {"PROCESS (PID)", 10, 32, 0, 3, false},
        {"REACHABLE FROM", 12, 18, 0, 4, false},
        {"KIND", 8, 40, 80, 6, false},
        {"PROJECT", 8, 30, 0, 5, false},
        {"MEMORY", 8, 9, 80, 7, true},
        {"CPU", 5, 6, 100, 8, true},
    };
    std::vector<std::vector<std::string>> cells;
    for (const auto& row : data.ports) {
        cells.push_back({std::to_string(row.port), processCell(row), reachWords(row.addressClass),
                         terminalSafe(kindPhrase(row)),
                         row.project ? terminalSafe(projectCell(*row.project)) : "",
                         row.footprint ? formatBytes(*row.footprint) : "",
                         row.cpuPercent ? percent(*row.cpuPercent) : ""});
    }
    const auto widths = fitColumns(columns, cells, width - 1, width);
    header.push_back(headerLine(columns, widths, 1));
    std::vector<Line> lines;
    for (size_t i = 0; i < data.ports.size(); ++i) {
        std::vector<Style> styles(columns.size(), plain());
        if (data.ports[i].addressClass == AddressClass::allNetworks)
            styles[2] = accent(data, Color::yellow);
        lines.push_back(tableLine(columns, widths, cells[i], styles, 1, data.ports[i].id()));
    }
    return lines;
}

std::vector<Line> portDetail(const ViewData& data, const UiState& state) {
    std::vector<Line> out;
    if (state.gone)
        out.push_back(textLine("Gone: " + *state.gone + " is no longer listening.",
                               accent(data, Color::yellow), 1));
    const std::string& id = state.selected[slot(ViewTab::ports)];
    auto row = std::find_if(data.ports.begin(), data.ports.end(),
                            [&](const PortRow& r) { return r.id() == id; });
    if (row == data.ports.end()) {
        if (out.empty()) out.push_back(textLine("Select a listener to see what it is.", dim(), 1));
        return out;
    }
    out.push_back(textLine(portLabel(*row), bold(), 1));
    auto field = [&](const char* name, std::string value) {
        Line line{{},
                  {Segment{2, 14, name, dim(), false},
                   Segment{17, -1, std::move(value), plain(), false}}};
        out.push_back(std::move(line));
    };
    std::vector<std::string> addresses;
    for (const auto& a : row->addresses)
        addresses.push_back(terminalSafe(a));
    field("Addresses", join(addresses, ", ") + " (" + reachWords(row->addressClass) + ")");
    if (row->commandLine && !row->commandLine->empty())
        field("Command line", commandText(*row->commandLine));
    if (row->executablePath) field("Executable", terminalSafe(*row->executablePath));
    field("User", row->isOwnedByUser ? "you" : "another user");
    if (row->project)
        field("Project",
              terminalSafe(row->project->path) +
                  (row->project->isGitProject ? " (git repository)" : " (not a git repository)"));
    if (row->container)
        field("Container", terminalSafe(row->container->name) + " (image " +
                               terminalSafe(row->container->image) + ", " +
                               terminalSafe(row->container->runtime) + ")");
    if (const auto* service = row->role.as<ListenerRole::BackgroundService>())
        field("Stop command", terminalSafe(service->stopCommand));
    else
        field("Kind", terminalSafe(kindPhrase(*row)));
    return out;
}

// ---- Containers -----------------------------------------------------------

std::vector<Line> containerLines(const ViewData& data, int width) {
    std::vector<Line> lines;
    if (!data.runtimeAnswered && data.runtimes.empty()) {
        lines.push_back(textLine("Looking for container runtimes…", dim(), 1));
        return lines;
    }
    if (data.runtimes.empty()) {
        lines.push_back(textLine(std::string(kNoRuntimeFoundText) + ".", dim(), 1));
        return lines;
    }
    const std::vector<Column> columns{
        {"NAME", 8, 30, 0, 0, false},
        {"IMAGE", 8, 40, 0, 3, false},
        {"STATE", 7, 10, 0, 1, false},
        {"PUBLISHED PORTS", 8, 40, 80, 2, false},
    };
    for (const auto& runtime : data.runtimes) {
        std::string head = terminalSafe(runtime.info.displayName);
        if (auto state = runtime.info.stateText())
            head += " — " + terminalSafe(*state);
        else
            head += " — running · " + plural(runtime.containers.size(), "container", "containers") +
                    ", " + std::to_string(runtime.running()) + " running";
        lines.push_back(textLine(head, bold(), 1, runtimeItemId(runtime.info)));
        if (runtime.error)
            lines.push_back(textLine(terminalSafe(*runtime.error), accent(data, Color::red), 3));
        if (!runtime.containers.empty()) {
            std::vector<std::vector<std::string>> cells;
            for (const auto& c : runtime.containers)
                cells.push_back({terminalSafe(c.name()), terminalSafe(c.image),
                                 terminalSafe(c.state), portsText(c)});
            const auto widths = fitColumns(columns, cells, width - 3, width);
            lines.push_back(headerLine(columns, widths, 3));
            for (size_t i = 0; i < runtime.containers.size(); ++i) {
                std::vector<Style> styles(columns.size(), plain());
                if (runtime.containers[i].isRunning())
                    styles[2] = accent(data, Color::green, false);
                lines.push_back(tableLine(columns, widths, cells[i], styles, 3,
                                          containerItemId(runtime.info, runtime.containers[i])));
            }
        }
        if (runtime.info.isMeasurable()) {
            if (runtime.sizes) {
                const DiskUsage& u = runtime.sizes->usage;
                uint64_t dangling = 0;
                for (const auto& id : runtime.sizes->danglingImageIDs)
                    if (const auto* image = findImage(u, id)) dangling += positive(image->size);
                uint64_t stopped = 0;
                for (const auto& c : u.stoppedContainers())
                    stopped += positive(c.sizeRw);
                uint64_t unused = 0;
                for (const auto& v : u.unusedVolumes())
                    unused += positive(v.size);
                const uint64_t cache = positive(u.reclaimableBuildCache());
                lines.push_back(textLine("Images " + std::to_string(u.images.size()) + " (" +
                                             formatBytes(positive(u.imagesSize())) +
                                             ") · volumes " + std::to_string(u.volumes.size()) +
                                             " (" + formatBytes(positive(u.volumesSize())) + "), " +
                                             std::to_string(u.unusedVolumes().size()) +
                                             " unused · build cache " + formatBytes(cache) +
                                             " reclaimable",
                                         plain(), 3));
                lines.push_back(textLine(
                    "Reclaimable " + formatBytes(dangling + stopped + unused + cache) + " (" +
                        plural(runtime.sizes->danglingImageIDs.size(), "dangling image",
                               "dangling images") +
                        ", " +
                        plural(u.stoppedContainers().size(), "stopped container",
                               "stopped containers") +
                        ") · c to clean up",
                    plain(), 3));
            } else {
                lines.push_back(textLine("Reading disk use…", dim(), 3));
            }
        }
        if (runtime.macDiskBytes)
            lines.push_back(textLine("Disk image on this computer " +
                                         formatBytes(*runtime.macDiskBytes) + " — " +
                                         diskImageNote(),
                                     dim(), 3));
        lines.push_back(textLine("", plain()));
    }
    return lines;
}

// ---- Agents ---------------------------------------------------------------

std::vector<Line> agentLines(const ViewData& data, int width, std::vector<Line>& header) {
    const std::vector<Column> columns{
        {"TOOL", 6, 12, 0, 0, false},    {"VERSION", 7, 10, 100, 7, false},
        {"PROJECT", 8, 30, 0, 2, false}, {"MANAGED BY", 10, 14, 80, 6, false},
        {"PROCS", 5, 5, 100, 8, true},   {"CPU", 6, 7, 0, 4, true},
        {"MEMORY", 8, 9, 80, 5, true},   {"STATUS", 6, 40, 0, 1, false},
    };
    std::vector<std::vector<std::string>> cells;
    for (const auto& s : data.sessions) {
        auto status = data.statuses.find(s.id());
        cells.push_back({displayName(s.tool), s.version ? terminalSafe(*s.version) : "",
                         s.project ? terminalSafe(projectCell(*s.project)) : "",
                         s.managedBy ? terminalSafe(*s.managedBy) : "",
                         std::to_string(s.processCount()),
                         s.cpuPercent ? percent(*s.cpuPercent) : "", formatBytes(s.footprint),
                         statusWords(status == data.statuses.end() ? nullptr : &status->second)});
    }
    const auto widths = fitColumns(columns, cells, width - 1, width);
    header.push_back(headerLine(columns, widths, 1));
    std::vector<Line> lines;
    for (size_t i = 0; i < data.sessions.size(); ++i) {
        std::vector<Style> styles(columns.size(), plain());
        auto status = data.statuses.find(data.sessions[i].id());
        if (status != data.statuses.end() && status->second.runaway)
            styles[7] = accent(data, Color::red);
        else if (status != data.statuses.end() && status->second.isBusy)
            styles[7] = accent(data, Color::yellow, false);
        lines.push_back(tableLine(columns, widths, cells[i], styles, 1, data.sessions[i].id()));
    }
    if (lines.empty()) lines.push_back(textLine("No coding-agent session is running.", dim(), 1));
    return lines;
}

std::vector<Line> agentDetail(const ViewData& data, const UiState& state) {
    std::vector<Line> out;
    if (state.gone)
        out.push_back(
            textLine("Gone: " + *state.gone + " has ended.", accent(data, Color::yellow), 1));
    const std::string& id = state.selected[slot(ViewTab::agents)];
    auto s = std::find_if(data.sessions.begin(), data.sessions.end(),
                          [&](const AgentSession& a) { return a.id() == id; });
    if (s == data.sessions.end()) return out;
    out.push_back(textLine(
        sessionLabel(*s) + " — " + plural(s->processCount(), "process", "processes"), bold(), 1));
    auto proc = [&](int32_t pid, const std::string& name, std::optional<double> cpu,
                    uint64_t memory) {
        out.push_back(Line{{},
                           {Segment{2, 8, std::to_string(pid), dim(), true},
                            Segment{12, 24, terminalSafe(name), plain(), false},
                            Segment{38, 7, cpu ? percent(*cpu) : "", plain(), true},
                            Segment{47, 9, formatBytes(memory), plain(), true}}});
    };
    proc(s->root.identity.pid, s->root.name, std::nullopt, 0);
    out.back().segments.resize(2);
    if (!s->root.commandLine.empty())
        out.back().segments.push_back(
            Segment{38, -1, commandText(s->root.commandLine), dim(), false});
    for (const auto& c : s->children)
        proc(c.identity.pid, c.name, c.cpuPercent, c.footprint);
    return out;
}

// ---- History --------------------------------------------------------------

std::string dateText(const CivilDate& d) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d", d.year, d.month, d.day);
    return buf;
}

bool matchesHistory(const std::string& search, uint16_t port, const std::string& name) {
    if (search.empty()) return true;
    const bool digits =
        std::all_of(search.begin(), search.end(), [](char c) { return c >= '0' && c <= '9'; });
    if (digits && search.size() <= 5) return std::to_string(port) == search;
    return lowercase(name).find(lowercase(search)) != std::string::npos;
}

std::vector<Line> historyLines(const ViewData& data, const std::string& rawSearch) {
    std::vector<Line> lines;
    std::string search = rawSearch;
    search.erase(0, search.find_first_not_of(" \t"));
    search.erase(search.find_last_not_of(" \t") + 1);
    if (!data.history) {
        lines.push_back(textLine("Reading the history…", dim(), 1));
        return lines;
    }
    if (data.history->days.empty()) {
        lines.push_back(textLine(
            data.isPrimary
                ? "No history yet: a line is written when the ports change, and every 5 minutes."
                : "No history yet. The background service records it.",
            dim(), 1));
        return lines;
    }
    auto span = [&](double first, double last) {
        return data.clock ? data.clock(first).substr(0, 5) + "–" + data.clock(last).substr(0, 5)
                          : std::string();
    };
    for (const auto& day : data.history->days) {
        std::vector<Line> dayLines;
        for (const auto& p : day.ports) {
            if (!matchesHistory(search, p.port, p.process)) continue;
            dayLines.push_back(
                Line{{},
                     {Segment{3, 5, std::to_string(p.port), plain(), true},
                      Segment{10, 20, terminalSafe(p.process), plain(), false},
                      Segment{32, 14, terminalSafe(p.exposure), plain(), false},
                      Segment{48, 20, p.project ? terminalSafe(*p.project) : "", plain(), false},
                      Segment{70, -1, span(p.firstSeen, p.lastSeen), dim(), false}}});
        }
        for (const auto& s : day.sessions) {
            const std::string tool = agentToolFromRaw(s.tool)
                                         ? displayName(*agentToolFromRaw(s.tool))
                                         : terminalSafe(s.tool);
            if (!search.empty() && !matchesHistory(search, 0, tool) &&
                !matchesHistory(search, 0, s.tool))
                continue;
            std::string peak = "peak " + formatBytes(positive(s.peakMemoryBytes));
            if (s.peakCpuPercent) peak += ", " + percent(*s.peakCpuPercent);
            dayLines.push_back(
                Line{{},
                     {Segment{3, 27, tool, plain(), false},
                      Segment{32, 14, "agent session", dim(), false},
                      Segment{48, 20, s.project ? terminalSafe(*s.project) : "", plain(), false},
                      Segment{70, -1, span(s.firstSeen, s.lastSeen) + "  " + peak, dim(), false}}});
        }
        if (dayLines.empty() && !search.empty()) continue;
        lines.push_back(textLine(dateText(day.date) + " · " +
                                     plural(static_cast<size_t>(day.entries), "entry", "entries"),
                                 bold(), 1));
        lines.insert(lines.end(), dayLines.begin(), dayLines.end());
    }
    if (lines.empty())
        lines.push_back(
            textLine("Nothing in the week matches " + terminalSafe(search) + ".", dim(), 1));
    return lines;
}

// ---- Settings -------------------------------------------------------------

std::vector<Line> settingLines(const ViewData& data, const UiState& state) {
    const std::array<const char*, kSettingRows> names{
        "Agent memory threshold (GiB)", "Alert: runaway agent session", "Alert: container storage",
        "Alert: listener open to all networks", "Storage alert threshold (GB)"};
    std::vector<Line> lines;
    for (int row = 0; row < kSettingRows; ++row) {
        std::string value = settingText(data, row);
        if (row >= runawayAlert && row <= publicListenerAlert) value = value == "1" ? "on" : "off";
        if (state.editing == Editing::setting && state.settingsRow == row)
            value = terminalSafe(state.editBuffer) + "▏";
        lines.push_back(Line{std::to_string(row),
                             {Segment{2, 38, names[static_cast<size_t>(row)], plain(), false},
                              Segment{42, 12, value, bold(), false}}});
    }
    lines.push_back(textLine("", plain()));
    lines.push_back(textLine("Changes are saved at once.", dim(), 2));
    if (!data.isPrimary)
        lines.push_back(
            textLine("Alerts are posted by the background service, which reads the same settings.",
                     dim(), 2));
    return lines;
}

// ---- Overlays -------------------------------------------------------------

struct BoxLine {
    std::string text;
    Style style;
};

/// A framed box in the middle of the screen.
void drawBox(Screen& screen, const std::string& title, const std::vector<BoxLine>& body,
             const std::vector<BoxLine>& buttons = {}) {
    const int width = std::min(screen.cols() - 2, 78);
    if (width < 10) return;
    const int inner = width - 4;
    std::vector<BoxLine> lines;
    for (const auto& b : body) {
        if (displayWidth(b.text) <= inner) {
            lines.push_back(b);
            continue;
        }
        for (auto& w : wrap(b.text, inner))
            lines.push_back({w, b.style});
    }
    const int maxBody = std::max(1, screen.rows() - 4 - static_cast<int>(buttons.size()));
    if (static_cast<int>(lines.size()) > maxBody) {
        lines.resize(static_cast<size_t>(maxBody));
        lines.back() = {"…", dim()};
    }
    const int height = static_cast<int>(lines.size() + buttons.size()) + 2;
    const int x = (screen.cols() - width) / 2;
    const int y = std::max(0, (screen.rows() - height) / 2);
    std::string edge;
    for (int i = 0; i < width - 2; ++i)
        edge += "─";
    screen.put(x, y, "┌" + edge + "┐", bold());
    screen.put(x + 2, y, " " + fitText(title, width - 6) + " ", bold());
    int row = y + 1;
    auto side = [&](const BoxLine& line) {
        screen.put(x, row, "│", bold());
        screen.fill(x + 1, row, width - 2);
        screen.put(x + 2, row, fitText(line.text, inner), line.style, inner);
        screen.put(x + width - 1, row, "│", bold());
        ++row;
    };
    for (const auto& line : lines)
        side(line);
    for (const auto& line : buttons)
        side(line);
    screen.put(x, row, "└" + edge + "┘", bold());
}

std::vector<BoxLine> helpLines() {
    return {
        {"Move      ↑ ↓  PgUp PgDn  Home End  mouse wheel; click a row or a tab", plain()},
        {"Tabs      1-5, Tab, Shift-Tab", plain()},
        {"Stop      F9, k or Delete: the selected process, session or container", plain()},
        {"          (one SIGTERM, after you confirm; Wharfy never forces a stop)", dim()},
        {"Clean up  c on the Containers tab: the runtime's clean-up menu", plain()},
        {"Search    / then a port number or a name; Esc clears", plain()},
        {"Export    e: write what is running to a file (.md or .json)", plain()},
        {"Settings  tab 5: Space switches, ← → change, Enter types a value", plain()},
        {"Confirm   y or Enter on Stop; n or Esc cancels", plain()},
        {"Help      ? or F1", plain()},
        {"Quit      q, F10 or Ctrl-C", plain()},
    };
}

std::vector<std::string> containerTargets(const ViewData& data, const PendingAction::Container& c) {
    const RuntimeState* runtime = nullptr;
    for (const auto& r : data.runtimes)
        if (r.info.id() == c.runtime.id()) runtime = &r;
    auto containerName = [&](const std::string& id) {
        if (runtime)
            for (const auto& k : runtime->containers)
                if (k.id == id) return terminalSafe(k.name()) + " (" + terminalSafe(k.image) + ")";
        return terminalSafe(id.substr(0, 12));
    };
    std::vector<std::string> out;
    struct Visitor {
        std::vector<std::string>& out;
        const RuntimeState* runtime;
        const std::function<std::string(const std::string&)>& name;
        void operator()(const ContainerAction::StopContainer& a) const {
            out.push_back("Container " + name(a.id));
        }
        void operator()(const ContainerAction::RemoveStoppedContainers& a) const {
            for (const auto& id : a.ids)
                out.push_back("Container " + name(id));
        }
        void operator()(const ContainerAction::RemoveDanglingImages& a) const {
            for (const auto& id : a.ids) {
                const DiskUsage::Image* image =
                    runtime && runtime->sizes ? findImage(runtime->sizes->usage, id) : nullptr;
                out.push_back("Image " +
                              terminalSafe(id.substr(id.starts_with("sha256:") ? 7 : 0, 12)) +
                              (image ? " (" + formatBytes(positive(image->size)) + ")" : ""));
            }
        }
        void operator()(const ContainerAction::RemoveVolume& a) const {
            std::string size;
            if (runtime && runtime->sizes)
                for (const auto& v : runtime->sizes->usage.volumes)
                    if (v.name == a.name) size = " (" + formatBytes(positive(v.size)) + ")";
            out.push_back("Volume " + terminalSafe(a.name) + size);
        }
        void operator()(const ContainerAction::ClearBuildCache&) const {
            std::string size;
            if (runtime && runtime->sizes)
                size = " (" + formatBytes(positive(runtime->sizes->usage.reclaimableBuildCache())) +
                       " reclaimable)";
            out.push_back("The build cache" + size);
        }
    };
    const std::function<std::string(const std::string&)> name = containerName;
    std::visit(Visitor{out, runtime, name}, c.action.value);
    return out;
}

void drawConfirmation(Screen& screen, const ViewData& data, const UiState& state) {
    const PendingAction& pending = *data.pending;
    std::vector<BoxLine> body;
    std::string title;
    std::string confirmWord = "Stop";
    if (const auto* stop = pending.as<PendingAction::Stop>()) {
        const auto& target = stop->plan.target;
        title = "Stop " + terminalSafe(target.name) + "?";
        body.push_back({terminalSafe(stop->plan.summary()), plain()});
        body.push_back({"", plain()});
        body.push_back({"Target: " + terminalSafe(target.name) + " (pid " +
                            std::to_string(target.identity.pid) + ")",
                        bold()});
        if (!target.commandLine.empty())
            body.push_back({"Command line: " + commandText(target.commandLine), plain()});
        body.push_back({"", plain()});
        body.push_back({"Sends SIGTERM once. Wharfy never forces a stop.", bold()});
    } else if (const auto* c = pending.as<PendingAction::Container>()) {
        const bool isStop = std::holds_alternative<ContainerAction::StopContainer>(c->action.value);
        title = isStop ? "Stop this container?" : "Remove exactly these?";
        if (!isStop) confirmWord = "Remove";
        for (const auto& t : containerTargets(data, *c))
            body.push_back({"• " + t, plain()});
        body.push_back({"", plain()});
        body.push_back({"Runs: " + terminalSafe(c->command.display()), bold()});
        if (isStop)
            body.push_back({"Sends SIGTERM once. Wharfy never forces a stop.", bold()});
        else
            body.push_back(
                {"Nothing else is removed; anything created since is left alone.", dim()});
    }
    const std::string cancel = state.focusOnConfirm ? "  Cancel  " : "[ Cancel ]";
    const std::string confirm =
        state.focusOnConfirm ? "[ " + confirmWord + " ]" : "  " + confirmWord + "  ";
    body.push_back({"", plain()});
    drawBox(screen, title, body, {{"      " + cancel + "      " + confirm, bold()}});
}

void drawCleanup(Screen& screen, const ViewData& data, const UiState& state) {
    const RuntimeState* runtime = runtimeOf(data, state.selected[slot(ViewTab::containers)]);
    if (!runtime) return;
    const CleanupMenu menu = cleanupMenu(*runtime);
    std::vector<BoxLine> body;
    for (size_t i = 0; i < menu.entries.size(); ++i) {
        const bool current = static_cast<int>(i) == state.menuCursor;
        Style s = current ? selectedStyle() : bold();
        body.push_back({(current ? "▸ " : "  ") + menu.entries[i].title, s});
        for (const auto& item : menu.entries[i].items)
            body.push_back({"    " + item, plain()});
    }
    for (const auto& note : menu.notes)
        body.push_back({note, dim()});
    if (menu.entries.empty()) body.push_back({"Nothing to clean up.", dim()});
    body.push_back({"", plain()});
    body.push_back({"Each choice shows its exact command before anything runs.", dim()});
    drawBox(screen, "Clean up " + terminalSafe(runtime->info.displayName), body);
}

void drawReport(Screen& screen, const ViewData& data) {
    if (!data.lastContainerReport) return;
    const ActionReport& r = *data.lastContainerReport;
    std::vector<BoxLine> body;
    body.push_back({"Ran: " + terminalSafe(r.command.display()), bold()});
    body.push_back({r.succeeded ? "The command succeeded." : "The command failed.",
                    r.succeeded ? plain() : accent(data, Color::red)});
    if (r.stopOutcome)
        body.push_back({*r.stopOutcome == StopOutcome::stopped ? "The container stopped."
                        : *r.stopOutcome == StopOutcome::stillRunning
                            ? "The container is still running after one SIGTERM."
                            : "Whether the container stopped is not known.",
                        plain()});
    auto block = [&](const char* name, const std::string& text) {
        if (text.empty()) return;
        body.push_back({name, dim()});
        size_t start = 0;
        int shown = 0;
        while (start < text.size() && shown < 8) {
            size_t end = text.find('\n', start);
            if (end == std::string::npos) end = text.size();
            body.push_back({"  " + terminalSafe(text.substr(start, end - start)), plain()});
            start = end + 1;
            ++shown;
        }
        if (start < text.size()) body.push_back({"  …", dim()});
    };
    block("Output:", r.output);
    block("Error:", r.error);
    if (r.macDiskBefore || r.macDiskAfter)
        body.push_back(
            {"Disk on this computer: " + (r.macDiskBefore ? formatBytes(*r.macDiskBefore) : "?") +
                 " before, " + (r.macDiskAfter ? formatBytes(*r.macDiskAfter) : "?") + " after",
             plain()});
    if (r.note) body.push_back({terminalSafe(*r.note), dim()});
    drawBox(screen, r.succeeded ? "Done" : "Failed", body);
}

void drawExportPrompt(Screen& screen, const UiState& state) {
    drawBox(
        screen, "Export",
        {{"Write what is running now to this file (Markdown; a .json name writes JSON):", plain()},
         {"", plain()},
         {terminalSafe(state.editBuffer) + "▏", bold()}});
}

}  // namespace

// ---- Public -----------------------------------------------------------------

std::string runtimeItemId(const RuntimeInfo& runtime) {
    return "runtime:" + runtime.id();
}

std::string containerItemId(const RuntimeInfo& runtime, const ContainerInfo& container) {
    return "container:" + runtime.id() + "/" + container.id;
}

const RuntimeState* runtimeOf(const ViewData& data, const std::string& itemId) {
    for (const auto& r : data.runtimes) {
        if (itemId == runtimeItemId(r.info)) return &r;
        if (itemId.starts_with("container:" + r.info.id() + "/")) return &r;
    }
    return nullptr;
}

std::optional<ContainerInfo> containerOf(const ViewData& data, const std::string& itemId) {
    for (const auto& r : data.runtimes)
        for (const auto& c : r.containers)
            if (itemId == containerItemId(r.info, c)) return c;
    return std::nullopt;
}

std::vector<std::string> listIds(const ViewData& data, ViewTab tab) {
    std::vector<std::string> ids;
    switch (tab) {
        case ViewTab::ports:
            for (const auto& row : data.ports)
                ids.push_back(row.id());
            break;
        case ViewTab::containers:
            for (const auto& r : data.runtimes) {
                ids.push_back(runtimeItemId(r.info));
                for (const auto& c : r.containers)
                    ids.push_back(containerItemId(r.info, c));
            }
            break;
        case ViewTab::agents:
            for (const auto& s : data.sessions)
                ids.push_back(s.id());
            break;
        case ViewTab::history:
        case ViewTab::settings:
            break;
    }
    return ids;
}

int historyLineCount(const ViewData& data, const std::string& search) {
    return static_cast<int>(historyLines(data, search).size());
}

std::string itemLabel(const ViewData& data, ViewTab tab, const std::string& id) {
    switch (tab) {
        case ViewTab::ports:
            for (const auto& row : data.ports)
                if (row.id() == id) return portLabel(row);
            break;
        case ViewTab::agents:
            for (const auto& s : data.sessions)
                if (s.id() == id) return sessionLabel(s);
            break;
        case ViewTab::containers:
            if (auto c = containerOf(data, id)) return "container " + terminalSafe(c->name());
            if (const auto* r = runtimeOf(data, id)) return terminalSafe(r->info.displayName);
            break;
        default:
            break;
    }
    return {};
}

UiState keepSelection(UiState state, ViewTab tab, const std::vector<std::string>& before,
                      const std::vector<std::string>& after, const std::string& goneLabel) {
    std::string& selected = state.selected[slot(tab)];
    if (selected.empty() || std::find(after.begin(), after.end(), selected) != after.end())
        return state;
    const auto old = std::find(before.begin(), before.end(), selected);
    if (after.empty()) {
        selected.clear();
    } else {
        // The first row after the gone one that is still there, else the
        // nearest one before it.
        std::set<std::string> present(after.begin(), after.end());
        std::string next;
        if (old != before.end()) {
            for (auto it = old + 1; it != before.end() && next.empty(); ++it)
                if (present.contains(*it)) next = *it;
            for (auto it = std::make_reverse_iterator(old); it != before.rend() && next.empty();
                 ++it)
                if (present.contains(*it)) next = *it;
        }
        selected = next.empty() ? after.front() : next;
    }
    if (tab == state.tab) state.gone = goneLabel;
    return state;
}

std::string settingText(const ViewData& data, int row) {
    switch (row) {
        case memoryThreshold:
            return oneDecimal(data.memoryThresholdGB);
        case runawayAlert:
            return data.alertSettings.runawaySession ? "1" : "0";
        case storageAlert:
            return data.alertSettings.containerStorage ? "1" : "0";
        case publicListenerAlert:
            return data.alertSettings.publicListener ? "1" : "0";
        case storageThreshold:
            return std::to_string(data.alertSettings.storageThresholdBytes / 1'000'000'000ULL);
        default:
            return {};
    }
}

CleanupMenu cleanupMenu(const RuntimeState& runtime) {
    CleanupMenu menu;
    for (const auto& c : runtime.containers)
        if (c.isRunning())
            menu.entries.push_back({"Stop container " + terminalSafe(c.name()) + " (one SIGTERM)",
                                    {terminalSafe(c.name()) + " (" + terminalSafe(c.image) + ")"},
                                    {ContainerAction::StopContainer{c.id}}});
    std::vector<std::string> stoppedIds, stoppedNames;
    for (const auto& c : runtime.containers)
        if (c.isStopped()) {
            stoppedIds.push_back(c.id);
            stoppedNames.push_back(terminalSafe(c.name()) + " (" + terminalSafe(c.state) + ")");
        }
    if (!stoppedIds.empty())
        menu.entries.push_back(
            {"Remove " + plural(stoppedIds.size(), "stopped container", "stopped containers"),
             stoppedNames,
             {ContainerAction::RemoveStoppedContainers{stoppedIds}}});
    else
        menu.notes.push_back("No stopped containers.");
    if (!runtime.sizes) {
        menu.notes.push_back("Reading disk use for images, volumes and the build cache…");
        return menu;
    }
    const DiskUsage& usage = runtime.sizes->usage;
    std::vector<std::string> imageIds, imageItems;
    uint64_t imageBytes = 0;
    for (const auto& id : runtime.sizes->danglingImageIDs) {
        const DiskUsage::Image* image = findImage(usage, id);
        const uint64_t size = image ? positive(image->size) : 0;
        imageBytes += size;
        imageIds.push_back(id);
        imageItems.push_back(terminalSafe(id.substr(id.starts_with("sha256:") ? 7 : 0, 12)) + " (" +
                             formatBytes(size) + ")");
    }
    if (!imageIds.empty())
        menu.entries.push_back({"Remove " +
                                    plural(imageIds.size(), "dangling image", "dangling images") +
                                    " (" + formatBytes(imageBytes) + ")",
                                imageItems,
                                {ContainerAction::RemoveDanglingImages{imageIds}}});
    else
        menu.notes.push_back("No dangling images.");
    const auto unused = usage.unusedVolumes();
    for (const auto& v : unused)
        menu.entries.push_back(
            {"Remove volume " + terminalSafe(v.name) + " (" + formatBytes(positive(v.size)) + ")",
             {},
             {ContainerAction::RemoveVolume{v.name}}});
    if (unused.empty()) menu.notes.push_back("No unused volumes.");
    const int64_t cache = usage.reclaimableBuildCache();
    if (cache > 0)
        menu.entries.push_back(
            {"Clear the build cache (" + formatBytes(positive(cache)) + " reclaimable)",
             {},
             {ContainerAction::ClearBuildCache{}}});
    else
        menu.notes.push_back("No reclaimable build cache.");
    return menu;
}

Rendered renderWindow(const ViewData& data, const UiState& state, int cols, int rows) {
    Rendered out{Screen(cols, rows), {}, 0};
    Screen& screen = out.screen;
    drawHeader(screen, data);
    int y = 1;
    if (data.suite && screen.rows() >= 16) drawSuiteStrip(screen, y++, data);
    drawTabs(screen, y++, state, out.geometry);
    const int bodyTop = y;
    const int bodyRows = std::max(0, screen.rows() - 2 - bodyTop);
    const int width = screen.cols();
    const std::string& selected = state.selected[slot(state.tab)];
    const int top = state.top[slot(state.tab)];

    auto listWithDetail = [&](const std::vector<Line>& header, const std::vector<Line>& lines,
                              std::vector<Line> detail) {
        int detailRows = bodyRows >= 18 ? 9 : bodyRows >= 12 ? 5 : bodyRows >= 8 ? 3 : 0;
        detailRows = std::min(detailRows, static_cast<int>(detail.size()) + 1);
        int listRows = bodyRows - static_cast<int>(header.size()) - detailRows;
        int ly = bodyTop;
        for (const auto& h : header)
            drawLine(screen, ly++, h, false);
        out.top = drawList(screen, lines, ly, listRows, selected, top, out.geometry);
        if (detailRows > 0) {
            const int dy = bodyTop + bodyRows - detailRows;
            std::string rule;
            for (int i = 0; i < width; ++i)
                rule += "─";
            screen.put(0, dy, rule, dim());
            for (int i = 0; i + 1 < detailRows && i < static_cast<int>(detail.size()); ++i)
                drawLine(screen, dy + 1 + i, detail[static_cast<size_t>(i)], false);
        }
    };

    switch (state.tab) {
        case ViewTab::ports: {
            std::vector<Line> header;
            auto lines = portLines(data, width, header);
            if (lines.empty())
                lines.push_back(
                    textLine(state.portSearch.empty()
                                 ? "No listening TCP ports."
                                 : "No listener matches " + terminalSafe(state.portSearch) + ".",
                             dim(), 1));
            listWithDetail(header, lines, portDetail(data, state));
            break;
        }
        case ViewTab::containers: {
            auto lines = containerLines(data, width);
            std::vector<Line> detail;
            if (state.gone)
                detail.push_back(
                    textLine("Gone: " + *state.gone + ".", accent(data, Color::yellow), 1));
            const int listRows = bodyRows - (detail.empty() ? 0 : 1);
            out.top = drawList(screen, lines, bodyTop, listRows, selected, top, out.geometry);
            if (!detail.empty()) drawLine(screen, bodyTop + listRows, detail.front(), false);
            break;
        }
        case ViewTab::agents: {
            std::vector<Line> header;
            auto lines = agentLines(data, width, header);
            listWithDetail(header, lines, agentDetail(data, state));
            break;
        }
        case ViewTab::history: {
            auto lines = historyLines(data, state.historySearch);
            const int first =
                std::clamp(top, 0, std::max(0, static_cast<int>(lines.size()) - bodyRows));
            out.top = drawList(screen, lines, bodyTop, bodyRows, {}, first, out.geometry);
            break;
        }
        case ViewTab::settings: {
            auto lines = settingLines(data, state);
            out.top = drawList(screen, lines, bodyTop, bodyRows, std::to_string(state.settingsRow),
                               0, out.geometry);
            break;
        }
    }

    drawNotice(screen, data, state);
    drawFooter(screen, data, state);
    if (data.pending) {
        drawConfirmation(screen, data, state);
    } else {
        switch (state.overlay) {
            case Overlay::help:
                drawBox(screen, "Keys", helpLines());
                break;
            case Overlay::cleanup:
                drawCleanup(screen, data, state);
                break;
            case Overlay::exportPrompt:
                drawExportPrompt(screen, state);
                break;
            case Overlay::report:
                drawReport(screen, data);
                break;
            case Overlay::none:
                break;
        }
    }
    return out;
}

Screen renderPopover(const ViewData& data, int cols, int rows) {
    Screen screen(cols, rows);
    int y = 0;
    auto line = [&](const std::string& text, Style style = {}) {
        if (y < rows) screen.put(0, y++, fitText(text, cols), style);
    };
    const WharfyCounts& c = data.counts;
    std::string right = data.lastRefresh && data.clock ? data.clock(*data.lastRefresh) : "";
    screen.put(std::max(0, cols - displayWidth(right)), 0, right, dim());
    line("Wharfy", bold());
    line(std::to_string(c.listening) + " listening · " + std::to_string(c.openToNetwork) +
         " open to network");
    std::string second = plural(static_cast<size_t>(c.agentsBusy), "agent busy", "agents busy");
    if (c.containersRunning)
        second = plural(static_cast<size_t>(*c.containersRunning), "container running",
                        "containers running") +
                 " · " + second;
    if (c.unseenAlerts > 0)
        second +=
            " · " + plural(static_cast<size_t>(c.unseenAlerts), "unseen alert", "unseen alerts");
    line(second);
    ++y;
    std::vector<std::string> open;
    for (const auto& row : data.ports)
        if (row.addressClass == AddressClass::allNetworks)
            open.push_back(padText(std::to_string(row.port), 6, true) + "  " + processCell(row) +
                           (row.project ? "  " + terminalSafe(row.project->name()) : ""));
    line("Open to all networks", bold());
    if (open.empty()) line("  none");
    const size_t room = 5;
    for (size_t i = 0; i < open.size() && i < room; ++i)
        line("  " + open[i]);
    if (open.size() > room) line("  … and " + std::to_string(open.size() - room) + " more", dim());
    std::vector<std::string> agents;
    for (const auto& s : data.sessions) {
        auto st = data.statuses.find(s.id());
        if (st == data.statuses.end() || (!st->second.isBusy && !st->second.runaway)) continue;
        agents.push_back(std::string(displayName(s.tool)) +
                         (s.project ? " " + terminalSafe(s.project->name()) : "") + " — " +
                         statusWords(&st->second));
    }
    if (!agents.empty()) {
        line("Agents", bold());
        for (size_t i = 0; i < agents.size() && i < 3; ++i)
            line("  " + agents[i]);
    }
    if (!data.runtimes.empty()) {
        line("Runtimes", bold());
        for (const auto& r : data.runtimes)
            line("  " + terminalSafe(r.info.displayName) + ": " +
                 (r.info.isRunning()
                      ? std::to_string(r.running()) + " of " +
                            plural(r.containers.size(), "container", "containers") + " running"
                      : "not running"));
    }
    return screen;
}

Screen renderSuitePopover(const std::optional<SuiteStrip>& strip, int cols, int rows) {
    Screen screen(cols, rows);
    int y = 0;
    auto line = [&](const std::string& text, Style style = {}) {
        if (y < rows) screen.put(0, y++, fitText(text, cols), style);
    };
    if (!strip || strip->rows.empty()) {
        line("Suite", bold());
        line("No other app of the suite is running.");
        return screen;
    }
    line("Suite — worst level: " + std::string(suite::word(strip->worst)), bold());
    std::string values;
    for (const auto& [ref, metric] : strip->menuBarValues) {
        std::string value =
            std::holds_alternative<double>(metric.value)
                ? oneDecimal(std::get<double>(metric.value))
                : std::string(suite::word(std::get<suite::StateWord>(metric.value)));
        values += (values.empty() ? "" : " · ") + terminalSafe(metric.label) + " " + value +
                  terminalSafe(metric.unit);
    }
    if (!values.empty()) line("Menu bar: " + values);
    ++y;
    for (const auto& row : strip->rows) {
        if (const auto* running = std::get_if<suite::RunningRow>(&row)) {
            const auto& r = running->record;
            line(std::string(suite::shortName(r.app)) + "  " + std::string(suite::word(r.level)) +
                     (r.hosting ? "  (host)" : ""),
                 bold());
            std::string metrics;
            for (const auto& m : r.metrics) {
                std::string value =
                    std::holds_alternative<double>(m.value)
                        ? oneDecimal(std::get<double>(m.value))
                        : std::string(suite::word(std::get<suite::StateWord>(m.value)));
                metrics += (metrics.empty() ? "  " : " · ") + terminalSafe(m.label) + " " + value +
                           terminalSafe(m.unit);
            }
            if (!metrics.empty()) line(metrics);
        } else if (const auto* stopped = std::get_if<suite::NotRunningRow>(&row)) {
            line(std::string(suite::shortName(stopped->app)) + "  not running", dim());
        }
    }
    return screen;
}

}  // namespace wharfy::app::tui
