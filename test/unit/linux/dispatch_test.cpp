// SPDX-License-Identifier: MIT
// What the client is given of the packets that the kernel refused.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client.h"
#include "world.h"

using testing::ElementsAreArray;

namespace {

// From host a to bcm0.10, tagged with VLAN 10.
const Bytes kStart = {0x02, 0, 0, 0, 0x10, 0x01, 0x02, 0, 0, 0, 0x10, 0x02, 0x81, 0x00, 0x00, 0x0a};

}  // namespace

class Dispatch : public World {
 protected:
    void expectDelivered(const Delivered& delivered, uint16_t type, const Bytes& packet) const {
        const Bytes etherType = {static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(type)};
        EXPECT_THAT(delivered.frame, ElementsAreArray(kStart + etherType + packet));
        EXPECT_TRUE(delivered.zeroBehind);
        EXPECT_TRUE(delivered.signalsBlocked);
        EXPECT_EQ(+delivered.control.unit, 0);
        EXPECT_EQ(+delivered.control.port, indexOf("bcm0.10") - 1);
        EXPECT_EQ(+delivered.control.is_trunk, 0);
        EXPECT_EQ(+delivered.control.tid, 0);
        EXPECT_EQ(+delivered.control.proto, type);
        EXPECT_EQ(+delivered.control.vid, 10);
        EXPECT_EQ(+delivered.control.vtag, 10);
        EXPECT_EQ(+delivered.control.egress, indexOf("bcm0.20"));
    }

    // The packet as it leaves prerouting: the kernel lowers the TTL only later.
    template <typename Packet>
    void expectDelivery(Client& client, const Packet& sent, uint16_t type) {
        send(packet(sent));
        expectDelivered(client.next(), type, packet(sent));
    }
};

TEST_F(Dispatch, DeliversRefusedPacketsTaggedWithTheirIngressAndTheirEgressInTheRecord) {
    Client client;
    ASSERT_EQ(client.attached(), 0);
    ASSERT_EQ(client.started(), 0);
    expectDelivery(client, Ipv4{.size = 1500}, 0x0800);
    expectDelivery(client, Ipv6{}, 0x86dd);
    expectDelivery(client, Ipv4{.size = 1281}, 0x0800);
}

TEST_F(Dispatch, DeliversAJumboPacketWithZerosInPlaceOfWhatWasNotCopied) {
    run("ip link set bcm0.10 mtu 9000");
    onHost("a", [] { run("ip link set eth0 mtu 9000"); });
    Client client;
    const Bytes jumbo = packet(Ipv4{.size = 9000});
    send(jumbo);
    expectDelivered(client.next(), 0x0800, cut(jumbo, 0, 1500) + Bytes(7500));
}

TEST_F(Dispatch, CountsWhatTheKernelRefusedAndNotWhatWasCopied) {
    Client client;
    send(packet(Ipv4{.dontFragment = false}));
    sendFence();
    EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.30"));
    EXPECT_EQ(handedOver("bcm0.20"), 0U);
    EXPECT_EQ(handedOver("bcm0.30"), 1U);
    send(packet(Ipv4{}));
    client.next();
    EXPECT_EQ(handedOver("bcm0.20"), 1U);
}
