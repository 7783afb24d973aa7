// SPDX-License-Identifier: MIT
// What the client receives of the packets that the kernel refused.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client.h"
#include "world.h"

namespace {

// From host a to bcm0.10, tagged with VLAN 10.
const Bytes kStart = {0x02, 0, 0, 0, 0x10, 0x01, 0x02, 0, 0, 0, 0x10, 0x02, 0x81, 0x00, 0x00, 0x0a};

}  // namespace

class Dispatch : public World {
 protected:
    // The packet as it leaves prerouting: the kernel lowers the TTL only later.
    static void expectDelivered(Client& client, const Bytes& etherType, const Bytes& packet) {
        const Delivered delivered = client.next();
        EXPECT_THAT(delivered.frame, testing::ElementsAreArray(kStart + etherType + packet));
        EXPECT_TRUE(delivered.signalsBlocked);
        EXPECT_EQ(+delivered.control.port, indexOf("bcm0.10") - 1);
        EXPECT_EQ(+delivered.control.vid, 10);
        EXPECT_EQ(+delivered.control.egress, indexOf("bcm0.20"));
    }
};

TEST_F(Dispatch, DeliversRefusedPacketsTaggedWithTheirIngressAndTheirEgressInTheRecord) {
    Client client;
    for (const Bytes& ipv4 : {bytesOf(Ipv4{.size = 1500}), bytesOf(Ipv4{.size = 1281})}) {
        send(ipv4);
        expectDelivered(client, {0x08, 0x00}, ipv4);
    }
    send(bytesOf(Ipv6{}));
    expectDelivered(client, {0x86, 0xdd}, bytesOf(Ipv6{}));
}

TEST_F(Dispatch, DeliversAJumboPacketWithZerosInPlaceOfWhatWasNotCopied) {
    run("ip link set bcm0.10 mtu 9000");
    inNetwork("a", [] { run("ip link set eth0 mtu 9000"); });
    Client client;
    const Bytes jumbo = bytesOf(Ipv4{.size = 9000, .payload = Bytes(8980, 0xa5)});
    send(jumbo);
    expectDelivered(client, {0x08, 0x00}, cut(jumbo, 0, 1500) + Bytes(7500));
}

TEST_F(Dispatch, CountsWhatTheKernelRefusedAndNotWhatWasCopied) {
    Client client;
    send(bytesOf(Ipv4{.dontFragment = false}));
    sendFence();
    EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.30"));
    EXPECT_EQ(handedOver("bcm0.20"), 0U);
    EXPECT_EQ(handedOver("bcm0.30"), 1U);
    send(bytesOf(Ipv4{}));
    client.next();
    EXPECT_EQ(handedOver("bcm0.20"), 1U);
}
