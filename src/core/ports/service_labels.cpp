#include "core/ports/service_labels.h"

#include <algorithm>
#include <charconv>

namespace wharfy {
namespace {

bool allDigits(std::string_view s) {
    return !s.empty() &&
           std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool allHex(std::string_view s) {
    return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
    });
}

std::vector<std::string_view> split(std::string_view s, char sep) {
    std::vector<std::string_view> out;
    size_t pos = 0;
    for (;;) {
        size_t end = s.find(sep, pos);
        out.push_back(
            s.substr(pos, end == std::string_view::npos ? std::string_view::npos : end - pos));
        if (end == std::string_view::npos) return out;
        pos = end + 1;
    }
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
        s.remove_suffix(1);
    return s;
}

/// The last dot-separated piece that is not only digits.
std::optional<std::string> lastNamedPiece(std::string_view dotted) {
    auto pieces = split(dotted, '.');
    for (auto it = pieces.rbegin(); it != pieces.rend(); ++it)
        if (!it->empty() && !allDigits(*it)) return std::string(*it);
    return std::nullopt;
}

/// systemd escapes "-" inside names as "\x2d".
std::string unescapeUnit(std::string_view s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 3 < s.size() && s[i + 1] == 'x') {
            unsigned v = 0;
            auto [p, ec] = std::from_chars(s.data() + i + 2, s.data() + i + 4, v, 16);
            if (ec == std::errc() && p == s.data() + i + 4) {
                out.push_back(static_cast<char>(v));
                i += 3;
                continue;
            }
        }
        out.push_back(s[i]);
    }
    return out;
}

constexpr std::string_view kSystemPrefix = "system/";
constexpr std::string_view kUserPrefix = "user/";

}  // namespace

// ---- launchd ----

ServiceLabels::SystemJob LaunchdLabels::systemJob(std::string_view label) const {
    return label.starts_with("com.apple.") ? SystemJob::ifSystemSigned : SystemJob::no;
}

bool LaunchdLabels::isAppJob(std::string_view label) const {
    return label.starts_with("application.");
}

std::string LaunchdLabels::appName(std::string_view label, const std::string& processName) const {
    label.remove_prefix(std::min(label.size(), std::string_view("application.").size()));
    return lastNamedPiece(label).value_or(processName);
}

std::string LaunchdLabels::stopCommand(std::string_view label, uint32_t uid) const {
    constexpr std::string_view brew = "homebrew.mxcl.";
    if (label.starts_with(brew))
        return "brew services stop " + std::string(label.substr(brew.size()));
    return "launchctl bootout gui/" + std::to_string(uid) + "/" + std::string(label);
}

bool LaunchdLabels::printSaysKeepAlive(std::string_view output) {
    for (auto line : split(output, '\n')) {
        line = trim(line);
        if (line.starts_with("properties =") && line.find("keepalive") != std::string_view::npos)
            return true;
    }
    return false;
}

std::optional<bool> LaunchdLabels::keepsAlive(std::string_view label, uint32_t uid,
                                              CommandRunner& runner) const {
    auto out = runner.run("/bin/launchctl",
                          {"print", "gui/" + std::to_string(uid) + "/" + std::string(label)});
    if (!out) return std::nullopt;
    return printSaysKeepAlive(*out);
}

// ---- systemd ----

std::string_view SystemdLabels::unit(std::string_view label) {
    if (label.starts_with(kSystemPrefix)) return label.substr(kSystemPrefix.size());
    if (label.starts_with(kUserPrefix)) {
        label.remove_prefix(kUserPrefix.size());
        auto slash = label.find('/');
        return slash == std::string_view::npos ? label : label.substr(slash + 1);
    }
    return label;
}

std::optional<uint32_t> SystemdLabels::owner(std::string_view label) {
    if (!label.starts_with(kUserPrefix)) return std::nullopt;
    label.remove_prefix(kUserPrefix.size());
    auto digits = label.substr(0, label.find('/'));
    uint32_t uid = 0;
    auto [p, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), uid, 10);
    if (digits.empty() || ec != std::errc() || p != digits.data() + digits.size())
        return std::nullopt;
    return uid;
}

bool SystemdLabels::isSafeUnitName(std::string_view u) {
    if (u.empty() || u.size() > 255 || u.front() == '-') return false;
    return std::all_of(u.begin(), u.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == ':' || c == '_' || c == '.' || c == '@' || c == '-' || c == '\\';
    });
}

ServiceLabels::SystemJob SystemdLabels::systemJob(std::string_view label) const {
    if (!label.starts_with(kSystemPrefix)) return SystemJob::no;
    return systemPrograms().isSystemService(unit(label)) ? SystemJob::yes : SystemJob::no;
}

bool SystemdLabels::isAppJob(std::string_view label) const {
    auto u = unit(label);
    if (!u.starts_with("app-")) return false;
    return u.ends_with(".scope") ||
           (u.ends_with(".service") && u.find('@') != std::string_view::npos);
}

// Desktop app units are named app-[LAUNCHER-]APPID[@RANDOM].service or
// app-[LAUNCHER-]APPID-RANDOM.scope; the app is the last named piece of APPID.
std::string SystemdLabels::appName(std::string_view label, const std::string& processName) const {
    auto u = unit(label);
    u.remove_prefix(std::min(u.size(), std::string_view("app-").size()));
    for (std::string_view suffix : {".scope", ".service"})
        if (u.ends_with(suffix)) u.remove_suffix(suffix.size());
    if (auto at = u.find('@'); at != std::string_view::npos) u = u.substr(0, at);
    auto pieces = split(u, '-');
    while (!pieces.empty() &&
           (allDigits(pieces.back()) || (pieces.back().size() >= 8 && allHex(pieces.back()))))
        pieces.pop_back();
    if (pieces.empty()) return processName;
    return lastNamedPiece(unescapeUnit(pieces.back())).value_or(processName);
}

// The user's name goes on a command line and into text the user copies, so
// only a plain account name is used; anything else is named by its uid.
std::string SystemdLabels::managerOf(uint32_t owner) const {
    std::string name = std::to_string(owner);
    if (userName_) {
        auto found = userName_(owner);
        if (found && !found->empty() && found->front() != '-' &&
            std::all_of(found->begin(), found->end(), [](char c) {
                return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '_' || c == '.' || c == '-';
            }))
            name = *found;
    }
    return name + "@";
}

std::string SystemdLabels::stopCommand(std::string_view label, uint32_t uid) const {
    auto u = unit(label);
    auto who = owner(label);
    if (!who) return "sudo systemctl stop " + std::string(u);
    if (*who != uid) return "systemctl --user -M " + managerOf(*who) + " stop " + std::string(u);
    constexpr std::string_view brew = "homebrew.mxcl.";
    if (u.starts_with(brew)) {
        auto name = u.substr(brew.size());
        if (name.ends_with(".service")) name.remove_suffix(std::string_view(".service").size());
        return "brew services stop " + std::string(name);
    }
    return "systemctl --user stop " + std::string(u);
}

std::optional<bool> SystemdLabels::keepsAlive(std::string_view label, uint32_t uid,
                                              CommandRunner& runner) const {
    const auto u = unit(label);
    if (!isSafeUnitName(u)) return std::nullopt;
    std::vector<std::string> args;
    if (auto who = owner(label)) {
        args.push_back("--user");
        if (*who != uid) args.insert(args.end(), {"-M", managerOf(*who)});
    }
    args.insert(args.end(), {"show", "--property=Restart", "--value", "--", std::string(u)});
    auto out = runner.run("/usr/bin/systemctl", args);
    if (!out) return std::nullopt;
    auto value = trim(*out);
    while (!value.empty() && value.back() == '\n')
        value = trim(value.substr(0, value.size() - 1));
    if (value.empty()) return std::nullopt;
    return value != "no";
}

std::optional<UnitPlacement> SystemdLabels::placementFromCgroup(std::string_view text) {
    std::optional<std::string_view> path;
    for (auto line : split(text, '\n')) {
        // "ID:CONTROLLERS:PATH"; the systemd hierarchy wins over the unified one.
        auto first = line.find(':');
        if (first == std::string_view::npos) continue;
        auto second = line.find(':', first + 1);
        if (second == std::string_view::npos) continue;
        auto controllers = line.substr(first + 1, second - first - 1);
        auto p = line.substr(second + 1);
        if (controllers == "name=systemd") {
            path = p;
            break;
        }
        if (line.substr(0, first) == "0" && controllers.empty()) path = p;
    }
    if (!path || !path->starts_with('/')) return std::nullopt;

    UnitPlacement placement;
    std::string_view unitName;
    std::optional<std::string_view> userManager;
    size_t unitEnd = path->size();
    size_t pos = 0;
    for (auto piece : split(*path, '/')) {
        const size_t end = pos + piece.size();
        pos = end + 1;
        if (piece.starts_with("user@") && piece.ends_with(".service") &&
            allDigits(piece.substr(5, piece.size() - 5 - 8))) {
            userManager = piece.substr(5, piece.size() - 5 - 8);
            unitName = {};  // the manager itself is not a job of the user's
            unitEnd = end;
            continue;
        }
        if (piece.ends_with(".service") || piece.ends_with(".scope")) {
            unitName = piece;
            unitEnd = end;
        }
    }
    placement.unit = std::string(path->substr(0, unitEnd));
    if (unitName.empty() || unitName == "init.scope") return placement;
    std::string label = userManager ? std::string(kUserPrefix) + std::string(*userManager) + "/"
                                    : std::string(kSystemPrefix);
    label += unitName;
    // Scopes hold login sessions, terminal tabs and containers; only the
    // desktop's app scopes belong to a job.
    if (unitName.ends_with(".service") || SystemdLabels().isAppJob(label))
        placement.label = std::move(label);
    return placement;
}

// ---- labels of processes ----

LaunchdJobs::LaunchdJobs(Placement placement, Parent parent)
    : units_(std::make_shared<Units>(Units{std::move(placement), std::move(parent), {}})) {}

const std::optional<UnitPlacement>& LaunchdJobs::Units::of(int32_t pid) {
    auto [it, inserted] = memo.try_emplace(pid);
    if (inserted) it->second = placement(pid);
    return it->second;
}

std::optional<std::string> LaunchdJobs::label(int32_t pid) const {
    if (!units_) {
        auto it = labelByPID_.find(pid);
        if (it == labelByPID_.end()) return std::nullopt;
        return it->second;
    }
    const auto& own = units_->of(pid);
    if (!own || !own->label) return std::nullopt;
    auto parent = units_->parent(pid);
    if (parent && *parent > 0) {
        const auto& theirs = units_->of(*parent);
        if (theirs && theirs->unit == own->unit) return std::nullopt;
    }
    return own->label;
}

bool LaunchdJobs::crossesUnit(int32_t pid, int32_t parent) const {
    if (!units_) return false;
    // References into the memo stay valid as it grows.
    const auto& own = units_->of(pid);
    const auto& theirs = units_->of(parent);
    return own && theirs && own->unit != theirs->unit;
}

LaunchdJobs LaunchdJobs::parse(std::string_view text) {
    std::map<int32_t, std::string> labels;
    for (auto line : split(text, '\n')) {
        // At most three fields: the label keeps any further tabs.
        auto tab1 = line.find('\t');
        auto tab2 = tab1 == std::string_view::npos ? tab1 : line.find('\t', tab1 + 1);
        if (tab2 == std::string_view::npos) continue;
        std::string_view f[3] = {line.substr(0, tab1), line.substr(tab1 + 1, tab2 - tab1 - 1),
                                 line.substr(tab2 + 1)};
        int32_t pid = 0;
        auto [p, ec] = std::from_chars(f[0].data(), f[0].data() + f[0].size(), pid, 10);
        if (f[0].empty() || ec != std::errc() || p != f[0].data() + f[0].size()) continue;
        labels[pid] = std::string(f[2]);
    }
    return LaunchdJobs(std::move(labels));
}

LaunchdJobs LaunchdJobs::read(CommandRunner& runner) {
    auto out = runner.run("/bin/launchctl", {"list"});
    if (!out) return LaunchdJobs();
    return parse(*out);
}

}  // namespace wharfy
