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

const std::vector<std::string>& LaunchdLabels::systemPathPrefixes() const {
    static const std::vector<std::string> prefixes{"/System/", "/usr/libexec/", "/usr/sbin/",
                                                   "/Library/Apple/"};
    return prefixes;
}

bool LaunchdLabels::mayBeSystemJob(std::string_view label) const {
    return label.starts_with("com.apple.");
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

const std::vector<std::string>& SystemdLabels::systemPathPrefixes() const {
    static const std::vector<std::string> prefixes{"/usr/sbin/", "/usr/libexec/",
                                                   "/usr/lib/systemd/", "/lib/systemd/", "/sbin/"};
    return prefixes;
}

std::string_view SystemdLabels::unit(std::string_view label) {
    if (label.starts_with(kSystemPrefix)) return label.substr(kSystemPrefix.size());
    if (label.starts_with(kUserPrefix)) return label.substr(kUserPrefix.size());
    return label;
}

bool SystemdLabels::mayBeSystemJob(std::string_view label) const {
    return label.starts_with(kSystemPrefix);
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

std::string SystemdLabels::stopCommand(std::string_view label, uint32_t /*uid*/) const {
    auto u = unit(label);
    constexpr std::string_view brew = "homebrew.mxcl.";
    if (u.starts_with(brew)) {
        auto name = u.substr(brew.size());
        if (name.ends_with(".service")) name.remove_suffix(std::string_view(".service").size());
        return "brew services stop " + std::string(name);
    }
    if (label.starts_with(kUserPrefix)) return "systemctl --user stop " + std::string(u);
    return "sudo systemctl stop " + std::string(u);
}

std::optional<bool> SystemdLabels::keepsAlive(std::string_view label, uint32_t /*uid*/,
                                              CommandRunner& runner) const {
    std::vector<std::string> args;
    if (label.starts_with(kUserPrefix)) args.push_back("--user");
    args.insert(args.end(), {"show", "--property=Restart", "--value", std::string(unit(label))});
    auto out = runner.run("/usr/bin/systemctl", args);
    if (!out) return std::nullopt;
    auto value = trim(*out);
    while (!value.empty() && value.back() == '\n')
        value = trim(value.substr(0, value.size() - 1));
    if (value.empty()) return std::nullopt;
    return value != "no";
}

std::optional<std::string> SystemdLabels::labelFromCgroup(std::string_view text) {
    std::string_view path;
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
    if (path.empty()) return std::nullopt;

    std::string_view unitName;
    bool underUserManager = false;
    for (auto piece : split(path, '/')) {
        if (piece.starts_with("user@") && piece.ends_with(".service")) {
            underUserManager = true;
            unitName = {};  // the manager itself is not a job of the user's
            continue;
        }
        if (piece.ends_with(".service") || piece.ends_with(".scope")) unitName = piece;
    }
    if (unitName.empty() || unitName == "init.scope") return std::nullopt;
    const std::string prefix(underUserManager ? kUserPrefix : kSystemPrefix);
    std::string label = prefix + std::string(unitName);
    if (unitName.ends_with(".service")) return label;
    // Scopes hold login sessions, terminal tabs and containers; only the
    // desktop's app scopes belong to a job.
    if (SystemdLabels().isAppJob(label)) return label;
    return std::nullopt;
}

// ---- labels of processes ----

std::optional<std::string> LaunchdJobs::label(int32_t pid) const {
    if (auto it = labelByPID_.find(pid); it != labelByPID_.end()) return it->second;
    if (!lookup_) return std::nullopt;
    if (auto it = memo_->find(pid); it != memo_->end()) return it->second;
    auto found = lookup_(pid);
    memo_->emplace(pid, found);
    return found;
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
