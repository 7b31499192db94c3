#include "core/ports/system_programs.h"

namespace wharfy {

bool SystemPrograms::isSystemPath(std::string_view path) const {
    for (auto folder : folders)
        if (path.starts_with(folder)) return true;
    return false;
}

bool SystemPrograms::isSystemService(std::string_view unit) const {
    for (std::string_view suffix : {".service", ".scope"}) {
        if (unit.ends_with(suffix)) {
            unit.remove_suffix(suffix.size());
            break;
        }
    }
    if (auto at = unit.find('@'); at != std::string_view::npos) unit = unit.substr(0, at);
    if (unit.empty()) return false;
    for (auto service : services) {
        if (service.ends_with('*') ? unit.starts_with(service.substr(0, service.size() - 1))
                                   : unit == service)
            return true;
    }
    return false;
}

const SystemPrograms& SystemPrograms::forMacOS() {
    static const SystemPrograms table{
        {"/System/", "/usr/libexec/", "/usr/sbin/", "/Library/Apple/"}, {}};
    return table;
}

// Only the services a base installation runs for itself. Servers a developer
// installs (nginx, PostgreSQL, Redis) are services the user may stop, even
// when the distribution packaged them.
const SystemPrograms& SystemPrograms::forLinux() {
    static const SystemPrograms table{{"/usr/lib/systemd/", "/lib/systemd/"},
                                      {"ssh",          "sshd",      "cups",   "cups-browsed",
                                       "avahi-daemon", "rpcbind",   "dbus",   "NetworkManager",
                                       "ModemManager", "systemd-*", "polkit", "accounts-daemon",
                                       "gdm",          "gdm3",      "sddm",   "lightdm",
                                       "chrony",       "chronyd",   "ntp",    "exim4",
                                       "postfix",      "dnsmasq"}};
    return table;
}

}  // namespace wharfy
