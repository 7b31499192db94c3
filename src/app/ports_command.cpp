#include "app/ports_command.h"

#include <nlohmann/json.hpp>

#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "app/terminal_text.h"
#include "core/ports/live_environment.h"
#include "core/ports/platform_words.h"
#include "core/ports/project_resolver.h"

namespace wharfy::app {

UserContext UserContext::current() {
    UserContext user;
    user.uid = ::geteuid();
    if (const char* home = std::getenv("HOME"); home && *home) {
        user.home = home;
    } else if (const passwd* pw = ::getpwuid(user.uid)) {
        user.home = pw->pw_dir;
    }
    while (user.home.size() > 1 && user.home.back() == '/')
        user.home.pop_back();
    return user;
}

std::string jsonRole(const PortRow& row) {
    if (row.role.is<ListenerRole::PlainProcess>() && !row.isOwnedByUser) return "otherUser";
    return row.role.rawValue();
}

nlohmann::json portsJson(const std::vector<PortRow>& rows) {
    auto list = nlohmann::json::array();
    for (const auto& row : rows) {
        list.push_back({{"port", row.port},
                        {"pid", row.pid},
                        {"name", row.processName},
                        {"owned", row.isOwnedByUser},
                        {"addresses", row.addresses},
                        {"addressClass", rawValue(row.addressClass)},
                        {"role", jsonRole(row)}});
    }
    return {{"ports", list}};
}

std::string emitText(const nlohmann::json& value) {
    // Invalid UTF-8 from the machine is replaced rather than failing the dump.
    std::string text;
    try {
        text = value.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
    } catch (const nlohmann::json::exception& e) {
        std::fprintf(stderr, "wharfy: could not serialise: %s\n", e.what());
        text = "{}";
    }
    return text + "\n";
}

std::string kindPhrase(const PortRow& row) {
    struct Visitor {
        const PortRow& row;
        std::string operator()(const ListenerRole::AppleSystem& r) const {
            std::string s = "part of the operating system";
            if (r.fix) s += " (turn off: " + *r.fix + ")";
            return s;
        }
        std::string operator()(const ListenerRole::ContainerForwarder& r) const {
            if (row.container)
                return "container " + row.container->name + " (" + row.container->image + "), " +
                       r.runtime;
            return "container port, " + r.runtime;
        }
        std::string operator()(const ListenerRole::PartOfApp& r) const {
            return "part of " + r.name;
        }
        std::string operator()(const ListenerRole::BackgroundService&) const { return "service"; }
        std::string operator()(const ListenerRole::PlainProcess&) const {
            return row.isOwnedByUser ? "process" : "another user's process";
        }
        std::string operator()(const ListenerRole::OtherUser&) const {
            return "another user or the system";
        }
    };
    return std::visit(Visitor{row}, row.role.value);
}

std::string projectCell(const ProjectInfo& project) {
    return project.isGitProject ? project.name() + " (git)" : project.path;
}

std::string portsText(const std::vector<PortRow>& rows, std::optional<size_t> width,
                      bool seesOtherUsers) {
    if (rows.empty()) return "No listening TCP ports.\n";
    TextTable table({"PORT", "PROCESS", "REACHABLE FROM", "KIND", "PROJECT", "MEMORY", "CPU"});
    table.shrinkable(1, 12);
    table.shrinkable(3, 10);
    table.shrinkable(4, 8);
    bool hiddenOwners = false;
    for (const auto& row : rows) {
        const char* reach = reachLabel(row.addressClass);
        std::string process = terminalSafe(row.processName);
        if (row.pid > 0) process += " (" + std::to_string(row.pid) + ")";
        std::string cpu;
        if (row.cpuPercent) {
            char buf[16];
            std::snprintf(buf, sizeof buf, "%.1f%%", *row.cpuPercent);
            cpu = buf;
        }
        table.add({std::to_string(row.port), process, reach, terminalSafe(kindPhrase(row)),
                   row.project ? terminalSafe(projectCell(*row.project)) : "",
                   row.footprint ? formatBytes(*row.footprint) : "", cpu});
        if (const auto* service = row.role.as<ListenerRole::BackgroundService>())
            table.addNote("stop with: " + terminalSafe(service->stopCommand));
        hiddenOwners = hiddenOwners || row.role.is<ListenerRole::OtherUser>();
    }
    std::string out = table.render("", width);
    if (hiddenOwners && !seesOtherUsers)
        out += "Ports of other users show no process; run with sudo to see them.\n";
    return out;
}

}  // namespace wharfy::app
