#pragma once

#include <string_view>
#include <vector>

namespace wharfy {

/// What belongs to the operating system itself on one platform: the folders
/// of its own programs and the base services it runs. The port rules and the
/// stop rules read the same table, so a program is never the system's for
/// one and not for the other.
struct SystemPrograms {
    /// Folders whose programs are the system's, each ending in "/".
    std::vector<std::string_view> folders;
    /// Base service names; a final "*" stands for any ending ("systemd-*").
    std::vector<std::string_view> services;

    /// Whether `path` lies in one of `folders`.
    bool isSystemPath(std::string_view path) const;
    /// Whether a unit ("ssh.service", "postfix@-.service") runs one of
    /// `services`; template instances count as their template.
    bool isSystemService(std::string_view unit) const;

    /// macOS: Apple's program folders. Its own services are told by their
    /// "com.apple." label and Apple's signature, not by name.
    static const SystemPrograms& forMacOS();
    /// Linux: the service manager's own folders and the base-system units.
    static const SystemPrograms& forLinux();
};

/// The table of the platform this program was built for.
const SystemPrograms& platformSystemPrograms();

}  // namespace wharfy
