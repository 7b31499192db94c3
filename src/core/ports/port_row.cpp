#include "core/ports/port_row.h"

#include <string_view>

namespace wharfy {

const char* rawValue(AddressClass c) {
    switch (c) {
        case AddressClass::thisMacOnly:
            return "thisMacOnly";
        case AddressClass::oneNetwork:
            return "oneNetwork";
        case AddressClass::allNetworks:
            return "allNetworks";
    }
    return "thisMacOnly";
}

const char* ListenerRole::rawValue() const {
    static constexpr const char* kNames[] = {"appleSystem",  "containerForwarder",
                                             "partOfApp",    "backgroundService",
                                             "plainProcess", "otherUser"};
    return kNames[value.index()];
}

std::string ProjectInfo::name() const {
    std::string_view p = path;
    while (p.size() > 1 && p.back() == '/')
        p.remove_suffix(1);
    // The root folder has no last component; it is named by itself.
    if (p == "/") return "/";
    auto slash = p.rfind('/');
    return std::string(slash == std::string_view::npos ? p : p.substr(slash + 1));
}

std::string PortRow::id() const {
    return std::to_string(pid) + "@" + std::to_string(startTime.value_or(0)) + ":" +
           std::to_string(port);
}

}  // namespace wharfy
