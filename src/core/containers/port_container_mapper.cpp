#include "core/containers/port_container_mapper.h"

namespace wharfy {
namespace {

const ContainerInfo* publisherOf(uint16_t port, const std::vector<ContainerInfo>& containers) {
    for (const auto& c : containers) {
        if (!c.isRunning()) continue;
        for (const auto& p : c.ports)
            if (p.publicPort == port && p.type == "tcp") return &c;
    }
    return nullptr;
}

}  // namespace

std::vector<PortRow> PortContainerMapper::attach(std::vector<PortRow> rows,
                                                 const std::vector<ContainerInfo>& containers) {
    for (auto& row : rows) {
        const auto* forwarder = row.role.as<ListenerRole::ContainerForwarder>();
        if (!forwarder) continue;
        if (const ContainerInfo* c = publisherOf(row.port, containers))
            row.container = ContainerRef{c->id, c->name(), c->image, forwarder->runtime};
    }
    return rows;
}

}  // namespace wharfy
