// SPDX-License-Identifier: MIT
// Interfaces that are VLANs because of an alternative name, with the real kernel.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "cfg.h"
#include "client.h"
#include "log_daemon.h"
#include "world.h"

using testing::HasSubstr;
using testing::Not;

namespace {

constexpr char kAlsoNamed31[] =
    "89 PMTUD-Linux: bcm0.30: the interface is also named bcm0.31; only the lower VLAN is served, "
    "so remove one of the names";

// Renames the interface, and restores the addresses that it loses by going down.
void rename(const std::string& from, const std::string& to, const std::string& vlan) {
    run("ip link set " + from + " down && ip link set " + from + " name " + to + " up");
    run("ip addr add 2001:db8:" + vlan + "::1/64 dev " + to + " nodad");
    for (const std::string& host : {"10.0." + vlan + ".2", "2001:db8:" + vlan + "::2"})
        run("ip neigh add " + host + " lladdr 02:00:00:00:" + vlan + ":02 dev " + to);
    awaitLink(to);
}

}  // namespace

// The interfaces of the VLANs 10 and 20 are eth0.10 and eth0.20; bcm0.30 has its own name.
class AlternativeNameOnTheKernel : public World {
 protected:
    void SetUp() override {
        World::SetUp();
        for (const std::string vlan : {"10", "20"}) {
            rename("bcm0." + vlan, "eth0." + vlan, vlan);
            run("ip link property add dev eth0." + vlan + " altname bcm0." + vlan);
        }
        for (const char* const host : {"a", "b"}) inNetwork(host, [] { awaitLink("eth0"); });
    }

    // The names change while the client's thread is in the callback with the packet for bcm0.30,
    // and the rules have withdrawn the answer to one for bcm0.20.
    void expectTheKernelsAnswerAfter(const std::string& commands) {
        Client client({.gated = true});
        Capture atA("a");
        sendFence();
        await("the fence", [] { return handedOver("bcm0.30") == 1; });
        awaitEmptyQueues();
        send(bytesOf(Ipv4{}));
        await("a withdrawn answer", [] { return handedOver("bcm0.20") == 1; });
        batch(commands);
        client.openGate();
        EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.30"));
        EXPECT_EQ(atA.nextAnswer().mtu, kAnsweredMtu);
        EXPECT_EQ(atA.nextAnswer().mtu, 1280U);
        sendFence();
        EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.30"));
    }
};

// The kernel does not announce a name that it gives to an interface that is down.
TEST_F(AlternativeNameOnTheKernel, GivenToAnInterfaceThatIsDownTakesEffectOnceItIsUp) {
    run("ip link property del dev eth0.20 altname bcm0.20 && ip link set eth0.20 down");
    Client client;
    run("ip link property add dev eth0.20 altname bcm0.20");
    changeRules("ip link set eth0.20 up");
    EXPECT_THAT(ruleset(), HasSubstr("chain to-bcm0.20"));
    changeRules("ip link property del dev eth0.20 altname bcm0.20 && ip link set eth0.20 down");
    EXPECT_THAT(ruleset(), Not(HasSubstr("bcm0.20")));
}

TEST_F(AlternativeNameOnTheKernel, RemovedWhileAnAnswerIsDueLetsTheKernelAnswer) {
    expectTheKernelsAnswerAfter("link property del dev eth0.20 altname bcm0.20\n");
}

TEST_F(AlternativeNameOnTheKernel, SwappedWhileAnAnswerIsDueLetsTheKernelAnswer) {
    expectTheKernelsAnswerAfter(R"(link property del dev eth0.10 altname bcm0.10
link property del dev eth0.20 altname bcm0.20
link property add dev eth0.10 altname bcm0.20
link property add dev eth0.20 altname bcm0.10
)");
}

TEST_F(AlternativeNameOnTheKernel, OutlivesARename) {
    Client client;
    send(bytesOf(Ipv4{}));
    client.next();
    rename("eth0.20", "wire20", "20");
    changeRules("ip link set bcm0.30 mtu 1001");
    send(bytesOf(Ipv4{}));
    EXPECT_EQ(+client.next().control.egress, indexOf("wire20"));
    EXPECT_EQ(handedOver("bcm0.20"), 2U);
}

TEST_F(AlternativeNameOnTheKernel, LeavesWithItsInterfaceForAnotherNamespace) {
    Client client;
    changeRules("ip link set eth0.20 netns a");
    EXPECT_THAT(ruleset(), Not(HasSubstr("bcm0.20")));
    EXPECT_THAT(ruleset(), HasSubstr("chain to-bcm0.30"));
}

TEST_F(AlternativeNameOnTheKernel, MovesFromOneInterfaceToAnother) {
    Client client;
    changeRules("ip link property del dev eth0.20 altname bcm0.20");
    changeRules("ip link property add dev fence altname bcm0.20");
    EXPECT_THAT(output("nft list map inet pmtud egress"), HasSubstr("\"fence\" : goto to-bcm0.20"));
}

TEST_F(AlternativeNameOnTheKernel, OfASecondVlanIsLoggedOnceAndTheLowerVlanCounts) {
    LogDaemon log;
    Client client;
    changeRules("ip link property add dev eth0.20 altname bcm0.5");
    const std::string warning = log.next();
    EXPECT_EQ(lineOf(warning),
              "89 PMTUD-Linux: bcm0.5: the interface is also named bcm0.20; only the lower VLAN "
              "is served, so remove one of the names");
    EXPECT_EQ(priorityOf(warning), "<28>");
    send(bytesOf(Ipv4{}));
    client.next();
    EXPECT_EQ(handedOver("bcm0.5"), 1U);
    EXPECT_THAT(ruleset(), Not(HasSubstr("bcm0.20")));

    changeRules("ip link set eth0.20 mtu 1300");
    run("ip link property add dev bcm0.30 altname bcm0.31");
    EXPECT_EQ(lineOf(log.next()), kAlsoNamed31);
}

TEST_F(AlternativeNameOnTheKernel, OfASecondVlanIsLoggedAtTheStart) {
    LogDaemon log;
    run("ip link property add dev bcm0.30 altname bcm0.31");
    Client client;
    EXPECT_EQ(lineOf(log.next()), kAlsoNamed31);
}

// The kernel describes such an interface in one message, and lists it in one datagram with others.
TEST_F(AlternativeNameOnTheKernel, IsFoundAmongHundredsOfTheLongestNames) {
    std::string names;
    for (int number = 100; number < 500; ++number)
        names += "link property add dev eth0.20 altname " + std::to_string(number) +
                 std::string(124, 'x') + "\n";
    batch(names);
    Client client;
    EXPECT_THAT(ruleset(), HasSubstr("chain to-bcm0.10"));
    EXPECT_THAT(ruleset(), HasSubstr("chain to-bcm0.20"));
    changeRules("ip link set eth0.20 mtu 1300");
    EXPECT_THAT(ruleset(), HasSubstr("meta length <= 1300"));
}

TEST_F(AlternativeNameOnTheKernel, IsKnownToTheConfigurationService) {
    inOwnProcess([] {
        ASSERT_EQ(cfg_init(), 0);
        EXPECT_EQ(cfg_vlan_l3_get_dest_vlan(indexOf("eth0.20")), 20);
        EXPECT_EQ(cfg_vlan_l3_get_mtu(20), 1280U);
        EXPECT_EQ(cfg_vlan_l3_get_mtu_vlan(20), 20);
        run("ip link property add dev bcm0.30 altname bcm0.1");
        EXPECT_EQ(cfg_vlan_l3_get_dest_vlan(indexOf("bcm0.30")), 1);
        run("ip link property del dev eth0.20 altname bcm0.20");
        EXPECT_EQ(cfg_vlan_l3_get_dest_vlan(indexOf("eth0.20")), -1);
        EXPECT_EQ(cfg_vlan_l3_get_mtu(20), 0U);
    });
}
