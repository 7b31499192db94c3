#pragma once

#include <vector>

#include "core/containers/engine_records.h"
#include "core/ports/port_row.h"

namespace wharfy {

/// Joins port rows held by a container runtime's forwarder to the container
/// that published the port.
struct PortContainerMapper {
    /// `rows` in the same order, with `container` set on forwarder rows whose
    /// port a running container published over tcp; the first match wins.
    static std::vector<PortRow> attach(std::vector<PortRow> rows,
                                       const std::vector<ContainerInfo>& containers);
};

}  // namespace wharfy
