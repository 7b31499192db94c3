#include "core/ports/port_row.h"

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
    auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string PortRow::id() const {
    return std::to_string(pid) + "@" + std::to_string(startTime.value_or(0)) + ":" +
           std::to_string(port);
}

}  // namespace wharfy
