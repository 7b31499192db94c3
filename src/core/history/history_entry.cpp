#include "core/history/history_entry.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

#include <nlohmann/json.hpp>

#include "common/text.h"
#include "core/history/history_calendar.h"
#include "core/ports/platform_words.h"

namespace wharfy {
namespace {

// A strict reader of JSON text for the history's own lines. The lines of a
// week run to tens of megabytes, which a document parser takes seconds to
// read; this one reads them in place and builds only the entries.
class Cursor {
  public:
    explicit Cursor(std::string_view text) : p_(text.data()), end_(text.data() + text.size()) {}

    const char* position() const { return p_; }
    void moveTo(const char* p) { p_ = p; }
    bool atEnd() {
        skipBlanks();
        return p_ == end_;
    }

    bool consume(char c) {
        skipBlanks();
        if (p_ == end_ || *p_ != c) return false;
        ++p_;
        return true;
    }

    /// Walks the members of an object, calling `member(key)` with the cursor
    /// on each value; `member` must consume the value.
    template <typename F>
    bool object(F&& member) {
        if (!consume('{')) return false;
        if (consume('}')) return true;
        std::string scratch;
        do {
            std::string_view key;
            if (!keyText(scratch, key) || !consume(':') || !member(key)) return false;
        } while (consume(','));
        return consume('}');
    }

    /// Walks the elements of an array, calling `element(index)` for each.
    template <typename F>
    bool array(F&& element) {
        if (!consume('[')) return false;
        if (consume(']')) return true;
        size_t index = 0;
        do {
            if (!element(index++)) return false;
        } while (consume(','));
        return consume(']');
    }

    bool string(std::string& out) {
        skipBlanks();
        if (p_ == end_ || *p_ != '"') return false;
        ++p_;
        const char* start = p_;
        if (!scanPlain()) return false;
        out.assign(start, p_);
        if (*p_ == '"') {
            ++p_;
            return true;
        }
        return escapedRest(out);
    }

    bool nullLiteral() { return literal("null"); }

    bool integer(int64_t& out) {
        skipBlanks();
        const char* start = p_;
        if (!scanNumber() || std::string_view(start, p_).find_first_of(".eE") != std::string::npos)
            return false;
        auto [ptr, ec] = std::from_chars(start, p_, out);
        return ec == std::errc() && ptr == p_;
    }

    bool number(double& out) {
        skipBlanks();
        const char* start = p_;
        if (!scanNumber()) return false;
        auto [ptr, ec] = std::from_chars(start, p_, out);
        return ec == std::errc() && ptr == p_;
    }

    /// Passes over one value of any kind, checking its form.
    bool skipValue(int depth = 0) {
        if (depth > 64) return false;
        skipBlanks();
        if (p_ == end_) return false;
        switch (*p_) {
            case '{':
                return object([&](std::string_view) { return skipValue(depth + 1); });
            case '[':
                return array([&](size_t) { return skipValue(depth + 1); });
            case '"':
                return skipString();
            case 't':
                return literal("true");
            case 'f':
                return literal("false");
            case 'n':
                return literal("null");
            default:
                return scanNumber();
        }
    }

  private:
    void skipBlanks() {
        while (p_ != end_ && (*p_ == ' ' || *p_ == '\t' || *p_ == '\n' || *p_ == '\r'))
            ++p_;
    }

    bool literal(std::string_view word) {
        skipBlanks();
        if (static_cast<size_t>(end_ - p_) < word.size() ||
            std::string_view(p_, word.size()) != word)
            return false;
        p_ += word.size();
        return true;
    }

    // Up to the closing quote or the first backslash; false on a control
    // character, invalid UTF-8 or the end of the text.
    bool scanPlain() {
        while (p_ != end_) {
            while (p_ != end_ && kPlainAscii[static_cast<unsigned char>(*p_)])
                ++p_;
            if (p_ == end_) return false;
            const auto c = static_cast<unsigned char>(*p_);
            if (c == '"' || c == '\\') return true;
            if (c < 0x80) return false;  // a control character
            const Utf8Step step = utf8Step(std::string_view(p_, static_cast<size_t>(end_ - p_)), 0);
            const size_t n = step.valid ? step.length : 0;
            if (n == 0) return false;
            p_ += n;
        }
        return false;
    }

    // Printable ASCII other than the quote and the backslash.
    static constexpr auto kPlainAscii = [] {
        std::array<bool, 256> plain{};
        for (int c = 0x20; c < 0x80; ++c)
            plain[static_cast<size_t>(c)] = c != '"' && c != '\\';
        return plain;
    }();

    bool skipString() {
        ++p_;
        while (true) {
            if (!scanPlain()) return false;
            if (*p_ == '"') {
                ++p_;
                return true;
            }
            std::string ignored;
            if (!escape(ignored)) return false;
        }
    }

    bool escapedRest(std::string& out) {
        while (true) {
            if (!escape(out)) return false;
            const char* start = p_;
            if (!scanPlain()) return false;
            out.append(start, p_);
            if (*p_ == '"') {
                ++p_;
                return true;
            }
        }
    }

    // At a backslash: appends what the escape stands for.
    bool escape(std::string& out) {
        if (end_ - p_ < 2) return false;
        auto used =
            decodeJsonEscape(std::string_view(p_ + 1, static_cast<size_t>(end_ - p_ - 1)), out);
        if (!used) return false;
        p_ += 1 + *used;
        return true;
    }

    // The JSON number grammar: -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?
    bool scanNumber() {
        auto digits = [&] {
            const char* start = p_;
            while (p_ != end_ && *p_ >= '0' && *p_ <= '9')
                ++p_;
            return p_ != start;
        };
        if (p_ != end_ && *p_ == '-') ++p_;
        if (p_ == end_) return false;
        if (*p_ == '0')
            ++p_;
        else if (!digits())
            return false;
        if (p_ != end_ && *p_ == '.') {
            ++p_;
            if (!digits()) return false;
        }
        if (p_ != end_ && (*p_ == 'e' || *p_ == 'E')) {
            ++p_;
            if (p_ != end_ && (*p_ == '+' || *p_ == '-')) ++p_;
            if (!digits()) return false;
        }
        return true;
    }

    // A key without escapes is viewed in place; one with escapes goes through `scratch`.
    bool keyText(std::string& scratch, std::string_view& key) {
        skipBlanks();
        if (p_ == end_ || *p_ != '"') return false;
        const char* start = p_ + 1;
        p_ = start;
        if (!scanPlain()) return false;
        if (*p_ == '"') {
            key = std::string_view(start, static_cast<size_t>(p_ - start));
            ++p_;
            return true;
        }
        scratch.assign(start, p_);
        if (!escapedRest(scratch)) return false;
        key = scratch;
        return true;
    }

    const char* p_;
    const char* end_;
};

bool optionalString(Cursor& in, std::optional<std::string>& out) {
    if (in.nullLiteral()) {
        out.reset();
        return true;
    }
    if (!out) out.emplace();
    return in.string(*out);
}

bool decodePort(Cursor& in, HistoryPort& port) {
    bool havePort = false, haveProcess = false, haveExposure = false, haveProject = false;
    const bool ok = in.object([&](std::string_view key) {
        if (key == "port") {
            int64_t n = 0;
            if (!in.integer(n) || n < 0 || n > 65535) return false;
            port.port = static_cast<uint16_t>(n);
            return havePort = true;
        }
        if (key == "process") return haveProcess = in.string(port.process);
        if (key == "exposure") return haveExposure = in.string(port.exposure);
        if (key == "project") {
            haveProject = true;
            return optionalString(in, port.project);
        }
        return in.skipValue();
    });
    // The element may hold an earlier line's project, whose storage is reused.
    if (!haveProject) port.project.reset();
    return ok && havePort && haveProcess && haveExposure;
}

bool decodeSession(Cursor& in, HistorySession& session) {
    bool haveTool = false, haveMemory = false;
    session.project.reset();
    session.cpuPercent.reset();
    const bool ok = in.object([&](std::string_view key) {
        if (key == "tool") return haveTool = in.string(session.tool);
        if (key == "project") return optionalString(in, session.project);
        if (key == "cpuPercent") {
            if (in.nullLiteral()) return true;
            double cpu = 0;
            if (!in.number(cpu)) return false;
            session.cpuPercent = cpu;
            return true;
        }
        if (key == "memoryBytes") return haveMemory = in.integer(session.memoryBytes);
        return in.skipValue();
    });
    return ok && haveTool && haveMemory;
}

// Decodes into the elements already there, so that their strings keep their storage.
template <typename T, typename F>
bool decodeList(Cursor& in, std::vector<T>& list, F&& decodeOne) {
    size_t count = 0;
    const bool ok = in.array([&](size_t index) {
        if (index == list.size()) list.emplace_back();
        count = index + 1;
        return decodeOne(in, list[index]);
    });
    list.resize(ok ? count : 0);
    return ok;
}

nlohmann::json portJson(const HistoryPort& p) {
    nlohmann::json o = {
        {"port", p.port}, {"process", repairUtf8(p.process)}, {"exposure", repairUtf8(p.exposure)}};
    if (p.project) o["project"] = repairUtf8(*p.project);
    return o;
}

nlohmann::json sessionJson(const HistorySession& s) {
    nlohmann::json o = {{"tool", repairUtf8(s.tool)}, {"memoryBytes", s.memoryBytes}};
    if (s.project) o["project"] = repairUtf8(*s.project);
    if (s.cpuPercent && std::isfinite(*s.cpuPercent)) o["cpuPercent"] = *s.cpuPercent;
    return o;
}

}  // namespace

std::string exposureLabel(AddressClass addressClass) {
    return reachLabel(addressClass);
}

HistoryEntry HistoryEntry::from(double time, const std::vector<PortRow>& rows,
                                const std::vector<AgentSession>& sessions,
                                const std::map<std::string, AgentStatus>& statuses) {
    HistoryEntry entry;
    entry.time = time;
    entry.ports.reserve(rows.size());
    for (const auto& row : rows) {
        std::optional<std::string> project;
        if (row.project) project = row.project->name();
        entry.ports.push_back(
            {row.port, row.processName, exposureLabel(row.addressClass), std::move(project)});
    }
    constexpr auto kMaxSigned = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    for (const auto& session : sessions) {
        HistorySession s;
        s.tool = displayName(session.tool);
        if (session.project) s.project = session.project->name();
        if (auto it = statuses.find(session.id()); it != statuses.end())
            s.cpuPercent = it->second.cpuNow;
        s.memoryBytes = static_cast<int64_t>(std::min(session.footprint, kMaxSigned));
        entry.sessions.push_back(std::move(s));
    }
    return entry;
}

std::string internetDate(double time) {
    const auto seconds = static_cast<int64_t>(std::floor(time));
    const int64_t days = seconds >= 0 ? seconds / 86400 : (seconds - 86399) / 86400;
    const int64_t inDay = seconds - days * 86400;
    const CivilDate date = CivilDate::fromDaysSinceEpoch(days);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02dZ", date.year, date.month,
                  date.day, static_cast<int>(inDay / 3600), static_cast<int>(inDay / 60 % 60),
                  static_cast<int>(inDay % 60));
    return buf;
}

std::optional<double> parseInternetDate(std::string_view text) {
    // YYYY-MM-DDTHH:MM:SSZ, nothing more and nothing less.
    static constexpr std::string_view kShape = "dddd-dd-ddTdd:dd:ddZ";
    if (text.size() != kShape.size()) return std::nullopt;
    for (size_t i = 0; i < kShape.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (kShape[i] == 'd' ? !digit : text[i] != kShape[i]) return std::nullopt;
    }
    auto number = [&](size_t at, size_t len) {
        int n = 0;
        for (size_t i = at; i < at + len; ++i)
            n = n * 10 + (text[i] - '0');
        return n;
    };
    const auto date = CivilDate::make(number(0, 4), number(5, 2), number(8, 2));
    const int hour = number(11, 2), minute = number(14, 2), second = number(17, 2);
    if (!date || hour > 23 || minute > 59 || second > 59) return std::nullopt;
    return static_cast<double>(date->daysSinceEpoch() * 86400 + hour * 3600 + minute * 60 + second);
}

std::string HistoryCodec::encode(const HistoryEntry& entry) {
    nlohmann::json ports = nlohmann::json::array();
    for (const auto& p : entry.ports)
        ports.push_back(portJson(p));
    nlohmann::json sessions = nlohmann::json::array();
    for (const auto& s : entry.sessions)
        sessions.push_back(sessionJson(s));
    // nlohmann's objects are ordered maps, so every level comes out with sorted keys.
    const nlohmann::json line = {
        {"time", internetDate(entry.time)}, {"ports", ports}, {"sessions", sessions}};
    return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::optional<HistoryEntry> HistoryCodec::decode(std::string_view line) {
    HistoryLineDecoder decoder;
    HistoryEntry entry;
    if (!decoder.decode(line, entry)) return std::nullopt;
    return entry;
}

bool HistoryLineDecoder::decode(std::string_view line, HistoryEntry& entry) {
    Cursor in(line);
    bool haveTime = false, havePorts = false, haveSessions = false;
    const bool ok = in.object([&](std::string_view key) {
        if (key == "time") {
            std::string text;
            if (!in.string(text)) return false;
            const auto time = parseInternetDate(text);
            if (time) entry.time = *time;
            return haveTime = time.has_value();
        }
        if (key == "ports") {
            const char* start = in.position();
            // The previous line's ports text was checked when it was decoded;
            // the same bytes here need no second look.
            if (havePrevious_ &&
                line.substr(static_cast<size_t>(start - line.data())).starts_with(previousPorts_)) {
                in.moveTo(start + previousPorts_.size());
                return havePorts = true;
            }
            havePrevious_ = false;
            if (!decodeList(in, entry.ports, decodePort)) return false;
            previousPorts_.assign(start, in.position());
            havePrevious_ = true;
            return havePorts = true;
        }
        if (key == "sessions") return haveSessions = decodeList(in, entry.sessions, decodeSession);
        return in.skipValue();
    });
    if (ok && in.atEnd() && haveTime && havePorts && haveSessions) return true;
    havePrevious_ = false;
    return false;
}

}  // namespace wharfy
