// SPDX-License-Identifier: MIT
// The rules follow the interfaces.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client.h"
#include "world.h"

using testing::HasSubstr;
using testing::Not;

class Rules : public World {};

TEST_F(Rules, FollowTwoInterfacesThatSwapTheirNames) {
    Client client;
    run("ip link set bcm0.20 down && ip link set bcm0.30 down");
    changeRules("ip link set bcm0.20 name swapped");
    changeRules("ip link set bcm0.30 name bcm0.20");
    changeRules("ip link set swapped name bcm0.30");
    run("ip link set bcm0.30 up");
    send(bytesOf(Ipv4{}));
    const Delivered delivered = client.next();
    EXPECT_EQ(delivered.frame.size(), 1518U);
    EXPECT_EQ(+delivered.control.egress, indexOf("bcm0.30"));
    EXPECT_EQ(handedOver("bcm0.30"), 1U);
    EXPECT_EQ(handedOver("bcm0.20"), 0U);
}

// nft treats a number as a name if an interface has that name.
TEST_F(Rules, AreNotConfusedByNamesAndAlternativeNamesThatLookLikeAnIndex) {
    const std::string index = std::to_string(indexOf("bcm0.20"));
    run("ip link add " + index + " index 100 type veth peer name other");
    const std::string padded = std::string(16 - index.size(), '0') + index;
    run("ip link property add dev bcm0.30 altname " + padded);
    Client client;
    send(bytesOf(Ipv4{}));
    EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.20"));
}

TEST_F(Rules, IncludeAnIngressThatAppears) {
    run("ip link set bcm0.10 down");
    run("ip link set bcm0.10 name plain0");
    Client client;
    changeRules("ip link set plain0 name bcm0.77");
    run("ip link set bcm0.77 up");
    awaitLink("bcm0.77");
    inNetwork("a", [] { awaitLink("eth0"); });
    send(bytesOf(Ipv4{}));
    const Delivered delivered = client.next();
    EXPECT_EQ(+delivered.control.vid, 77);
    EXPECT_EQ(delivered.frame[14], 0);
    EXPECT_EQ(delivered.frame[15], 77);
}

TEST_F(Rules, AreNotChangedByOtherInterfaces) {
    Client client;
    RuleChanges changes;
    run("ip link add bcm0.020 type veth peer name bcm1.20");
    run("ip link set bcm0.020 mtu 1000");
    run("ip link del bcm0.020");
    // The next change is this one, alone.
    run("ip link set bcm0.20 mtu 1400");
    changes.await();
    EXPECT_THAT(output("nft list chain inet pmtud to-bcm0.20"), HasSubstr("meta length <= 1400"));
    EXPECT_THAT(ruleset(), Not(HasSubstr("bcm0.020")));
}

TEST_F(Rules, KeepCountingWhenTheMtuChanges) {
    Client client;
    send(bytesOf(Ipv4{}));
    client.next();
    EXPECT_EQ(handedOver("bcm0.20"), 1U);
    changeRules("ip link set bcm0.20 mtu 1300");
    EXPECT_EQ(handedOver("bcm0.20"), 1U);
    send(bytesOf(Ipv4{}));
    client.next();
    EXPECT_EQ(handedOver("bcm0.20"), 2U);
}

TEST_F(Rules, StayWhenABridgeReleasesItsPort) {
    run("ip link add br0 type bridge");
    run("ip link set bcm0.30 master br0");
    Client client;
    RuleChanges changes;
    run("ip link set bcm0.30 nomaster");
    run("ip link set bcm0.20 mtu 1400");
    changes.await();
    EXPECT_THAT(ruleset(), HasSubstr("chain to-bcm0.30"));
}
