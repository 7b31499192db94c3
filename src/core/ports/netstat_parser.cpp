#include "core/ports/netstat_parser.h"

#include <algorithm>
#include <charconv>

namespace wharfy {
namespace {

std::vector<std::string_view> fields(std::string_view s) {
    std::vector<std::string_view> out;
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && s[i] == ' ')
            ++i;
        size_t start = i;
        while (i < s.size() && s[i] != ' ')
            ++i;
        if (i > start) out.push_back(s.substr(start, i - start));
    }
    return out;
}

template <typename T>
std::optional<T> decimal(std::string_view s) {
    T v{};
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v, 10);
    if (s.empty() || ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
    return v;
}

bool isWordChar(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

/// The first ":PID" followed by blanks and a five-hex-digit column that
/// ends a word, i.e. the match of ":(\d+)\s+[0-9a-f]{5}\b": (offset of the
/// colon, the pid digits).
std::optional<std::pair<size_t, std::string_view>> findPidColumn(std::string_view s) {
    auto digit = [](char c) { return c >= '0' && c <= '9'; };
    auto hex = [&](char c) { return digit(c) || (c >= 'a' && c <= 'f'); };
    auto blank = [](char c) { return c == ' ' || c == '\t'; };
    for (size_t colon = s.find(':'); colon != std::string_view::npos;
         colon = s.find(':', colon + 1)) {
        size_t i = colon + 1;
        while (i < s.size() && digit(s[i]))
            ++i;
        if (i == colon + 1) continue;
        const std::string_view pid = s.substr(colon + 1, i - colon - 1);
        size_t j = i;
        while (j < s.size() && blank(s[j]))
            ++j;
        if (j == i || j + 5 > s.size()) continue;
        if (!std::all_of(s.begin() + static_cast<long>(j), s.begin() + static_cast<long>(j + 5),
                         hex))
            continue;
        if (j + 5 < s.size() && isWordChar(s[j + 5])) continue;
        return std::pair{colon, pid};
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::pair<std::string, uint16_t>> NetstatParser::splitAddress(std::string_view text) {
    auto dot = text.rfind('.');
    if (dot == std::string_view::npos) return std::nullopt;
    auto port = decimal<uint16_t>(text.substr(dot + 1));
    if (!port) return std::nullopt;
    return std::pair{std::string(text.substr(0, dot)), *port};
}

std::optional<NetstatListener> NetstatParser::parse(std::string_view line) {
    if (!line.starts_with("tcp") || line.find(" LISTEN ") == std::string_view::npos)
        return std::nullopt;
    auto f = fields(line);
    if (f.size() < 5) return std::nullopt;
    auto local = splitAddress(f[3]);
    if (!local) return std::nullopt;
    size_t listen = 0;
    while (listen < f.size() && f[listen] != "LISTEN")
        ++listen;
    if (listen == f.size() || f.size() <= listen + 5) return std::nullopt;
    // Joining again keeps process names that contain blanks.
    std::string process;
    for (size_t i = listen + 5; i < f.size(); ++i) {
        if (!process.empty()) process += ' ';
        process += f[i];
    }
    auto column = findPidColumn(process);
    if (!column) return std::nullopt;
    std::string name = process.substr(0, column->first);
    if (name.empty()) return std::nullopt;
    auto pid = decimal<int32_t>(column->second);
    if (!pid) return std::nullopt;
    return NetstatListener{*pid, std::move(name), std::move(local->first), local->second};
}

std::vector<NetstatListener> NetstatParser::listeners(std::string_view text) {
    std::vector<NetstatListener> out;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        if (end > pos)
            if (auto l = parse(text.substr(pos, end - pos))) out.push_back(std::move(*l));
        pos = end + 1;
    }
    return out;
}

AddressClass addressClass(std::string_view a) {
    if (a == "*" || a == "0.0.0.0" || a == "::") return AddressClass::allNetworks;
    if (a == "::1" || a.starts_with("127.")) return AddressClass::thisMacOnly;
    return AddressClass::oneNetwork;
}

AddressClass addressClass(nemarro::process::ListeningSocket::AddressClass c) {
    using S = nemarro::process::ListeningSocket::AddressClass;
    switch (c) {
        case S::any:
            return AddressClass::allNetworks;
        case S::loopback:
            return AddressClass::thisMacOnly;
        case S::specific:
            return AddressClass::oneNetwork;
    }
    return AddressClass::oneNetwork;
}

}  // namespace wharfy
