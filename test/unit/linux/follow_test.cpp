// SPDX-License-Identifier: MIT
// The rules follow the interfaces.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client.h"
#include "world.h"

using testing::HasSubstr;
using testing::Not;

class Rules : public World {
 protected:
    // Runs the commands, which bring about one change of the rules, and awaits it.
    static void change(const std::string& command) {
        RuleChanges changes;
        run(command);
        changes.await();
    }
};

TEST_F(Rules, FollowTwoInterfacesThatSwapTheirNames) {
    Client client;
    for (const char* interface : {"bcm0.20", "bcm0.30"})
        run(std::string("ip link set ") + interface + " down");
    change("ip link set bcm0.20 name swapped");
    change("ip link set bcm0.30 name bcm0.20");
    change("ip link set swapped name bcm0.30");
    run("ip link set bcm0.30 up");
    send(packet(Ipv4{}));
    const Delivered delivered = client.next();
    EXPECT_EQ(delivered.frame.size(), 1418U);
    EXPECT_EQ(+delivered.control.egress, indexOf("bcm0.30"));
    EXPECT_EQ(handedOver("bcm0.30"), 1U);
    EXPECT_EQ(handedOver("bcm0.20"), 0U);
}

// nft takes a number for a name if an interface is so named.
TEST_F(Rules, AreNotConfusedByAnInterfaceNamedLikeAnIndex) {
    const std::string name = std::to_string(indexOf("bcm0.20"));
    run("ip link add " + name + " index 100 type veth peer name other");
    Client client;
    ASSERT_EQ(client.attached(), 0);
    send(packet(Ipv4{}));
    EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.20"));
}

TEST_F(Rules, TakeInAnIngressThatAppears) {
    run("ip link set bcm0.10 down");
    run("ip link set bcm0.10 name plain0");
    Client client;
    change("ip link set plain0 name bcm0.77");
    run("ip link set bcm0.77 up");
    awaitLink("bcm0.77");
    onHost("a", [] { awaitLink("eth0"); });
    send(packet(Ipv4{}));
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

TEST_F(Rules, TouchOneVlanAtATime) {
    Client client;
    const std::string before = output("nft -a list chain inet pmtud to-bcm0.30");
    EXPECT_THAT(before, HasSubstr(" snaplen 1500 # handle "));
    change("ip link set bcm0.20 mtu 1400");
    EXPECT_EQ(output("nft -a list chain inet pmtud to-bcm0.30"), before);
}

TEST_F(Rules, CountOnWhenTheMtuChanges) {
    Client client;
    send(packet(Ipv4{}));
    client.next();
    EXPECT_EQ(handedOver("bcm0.20"), 1U);
    change("ip link set bcm0.20 mtu 1300");
    EXPECT_EQ(handedOver("bcm0.20"), 1U);
    send(packet(Ipv4{}));
    client.next();
    EXPECT_EQ(handedOver("bcm0.20"), 2U);
}

TEST_F(Rules, StayWhereABridgeLetsItsPortGo) {
    run("ip link add br0 type bridge");
    run("ip link set bcm0.30 master br0");
    Client client;
    RuleChanges changes;
    run("ip link set bcm0.30 nomaster");
    run("ip link set bcm0.20 mtu 1400");
    changes.await();
    EXPECT_THAT(ruleset(), HasSubstr("chain to-bcm0.30"));
}
