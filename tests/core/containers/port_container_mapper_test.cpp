#include <gtest/gtest.h>

#include "core/containers/port_container_mapper.h"

namespace wharfy {
namespace {

PortRow row(uint16_t port, ListenerRole role) {
    PortRow r;
    r.port = port;
    r.pid = 100 + port;
    r.role = std::move(role);
    return r;
}

const ListenerRole kForwarder{ListenerRole::ContainerForwarder{"Podman"}};

TEST(PortContainerMapperTest, AttachesRunningTcpPublishersToForwarderRowsOnly) {
    const std::vector<ContainerInfo> containers{
        {"stopped1", {"/old"}, "img:old", "exited", "", {{"0.0.0.0", 80, 8080, "tcp"}}},
        {"udp1", {"/dns"}, "img:dns", "running", "", {{"0.0.0.0", 53, 5353, "udp"}}},
        {"web1",
         {"/web"},
         "img:web",
         "running",
         "",
         {{std::nullopt, 443, std::nullopt, "tcp"}, {"127.0.0.1", 80, 8080, "tcp"}}},
        {"web2", {"/web-two"}, "img:web2", "running", "", {{"::", 80, 8080, "tcp"}}},
    };
    const std::vector<PortRow> rows{row(8080, kForwarder), row(5353, kForwarder),
                                    row(8080, ListenerRole{ListenerRole::PlainProcess{}}),
                                    row(9000, kForwarder)};
    auto attached = PortContainerMapper::attach(rows, containers);
    ASSERT_EQ(attached.size(), 4u);
    EXPECT_EQ(attached[0].container, (ContainerRef{"web1", "web", "img:web", "Podman"}));
    EXPECT_EQ(attached[1], rows[1]);
    EXPECT_EQ(attached[2], rows[2]);
    EXPECT_EQ(attached[3], rows[3]);
}

}  // namespace
}  // namespace wharfy
