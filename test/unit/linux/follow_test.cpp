// SPDX-License-Identifier: MIT
// The rules follow the interfaces.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include "client.h"
#include "world.h"

using testing::HasSubstr;
using testing::Not;

namespace {

int32_t indexOf(const char* name) { return static_cast<int32_t>(if_nametoindex(name)); }

std::string ruleset() { return output("nft list ruleset"); }

}  // namespace

class Rules : public World {
 protected:
    // Runs the commands, which bring about one change of the rules, and awaits it.
    static void change(const std::string& command) {
        RuleChanges changes;
        run(command);
        changes.await();
    }
};

TEST_F(Rules, FollowAnMtuThatGrows) {
    Client client;
    Capture atB("b");
    change("ip link set bcm0.20 mtu 1400");
    send(packet(Ipv4{}));
    EXPECT_EQ(atB.next([](const Bytes& bytes) { return bytes[0] == 0x45; }).size(), 1400U);
    Ipv4 longer;
    longer.size = 1401;
    send(packet(longer));
    EXPECT_EQ(client.next().frame.size(), 1419U);
}

TEST_F(Rules, FollowAnMtuThatShrinks) {
    Client client;
    change("ip link set bcm0.20 mtu 1000");
    Ipv4 ipv4;
    ipv4.size = 1001;
    send(packet(ipv4));
    EXPECT_EQ(client.next().frame.size(), 1019U);
}

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

// nft takes a number with a leading zero for octal.
TEST_F(Rules, AreNotConfusedByAnIndexWithoutEightAndNine) {
    run("ip link add bcm0.40 index 1012 mtu 900 type veth peer name peer40");
    run("ip addr add 10.0.40.1/24 dev bcm0.40");
    run("ip link set bcm0.40 up");
    Client client;
    Ipv4 ipv4;
    ipv4.destination = "10.0.40.2";
    send(packet(ipv4));
    EXPECT_EQ(+client.next().control.egress, 1012);
}

TEST_F(Rules, TakeInAnInterfaceThatAppears) {
    Client client;
    {
        RuleChanges changes;
        run("ip link add bcm0.40 mtu 900 type veth peer name peer40");
        changes.await();
    }
    run("ip addr add 10.0.40.1/24 dev bcm0.40");
    run("ip link set peer40 up");
    run("ip link set bcm0.40 up");
    Ipv4 ipv4;
    ipv4.destination = "10.0.40.2";
    send(packet(ipv4));
    EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.40"));
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

TEST_F(Rules, ForgetAnInterfaceThatDisappears) {
    Client client;
    EXPECT_THAT(ruleset(), HasSubstr("bcm0.20"));
    change("ip link del bcm0.20");
    EXPECT_THAT(ruleset(), Not(HasSubstr("bcm0.20")));
    EXPECT_THAT(ruleset(), HasSubstr("chain to-bcm0.10"));
    sendFence();
    EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.30"));
}

TEST_F(Rules, FollowARename) {
    Client client;
    run("ip link set bcm0.20 down");
    change("ip link set bcm0.20 name bcm0.21");
    run("ip link set bcm0.21 up");
    run("ip neigh add 10.0.20.2 lladdr 02:00:00:00:20:02 dev bcm0.21");
    EXPECT_THAT(ruleset(), Not(HasSubstr("bcm0.20")));
    send(packet(Ipv4{}));
    EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.21"));
}

TEST_F(Rules, FollowARenameToAForeignName) {
    Client client;
    run("ip link set bcm0.20 down");
    change("ip link set bcm0.20 name uplink");
    EXPECT_THAT(ruleset(), Not(HasSubstr("bcm0.20")));
    EXPECT_THAT(ruleset(), Not(HasSubstr("uplink")));
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

TEST_F(Rules, LeaveAnEgressWithAnMtuThatTheDaemonRefusesToTheKernel) {
    Client client;
    Capture atA("a");
    change("ip link set bcm0.20 mtu 575");
    EXPECT_THAT(ruleset(), Not(HasSubstr("to-bcm0.20")));
    send(packet(Ipv4{}));
    const Bytes answer =
        atA.next([](const Bytes& bytes) { return bytes[0] >> 4 == 4 && bytes[9] == 1; });
    EXPECT_EQ(answer[20], 3);  // the kernel's own Fragmentation Needed,
    EXPECT_EQ(answer[21], 4);
    EXPECT_EQ(Bytes(answer.begin() + 26, answer.begin() + 28), Bytes({0x02, 0x3f}));  // of 575
    sendFence();
    EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.30"));

    run("ip link set bcm0.20 mtu 16384");
    change("ip link set bcm0.30 mtu 1001");
    EXPECT_THAT(ruleset(), Not(HasSubstr("to-bcm0.20")));
    change("ip link set bcm0.20 mtu 16383");
    EXPECT_THAT(ruleset(), HasSubstr("chain to-bcm0.20"));
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
