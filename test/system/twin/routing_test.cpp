// SPDX-License-Identifier: MIT
// Routes and policies: the VLAN a packet leaves by need not be the one its addresses suggest.
#include "twin_fixture.h"

namespace twin {

namespace {

using Routing = TwinTest;

class ReversePath : public TwinTest, public testing::WithParamInterface<int> {};

// Another VLAN's sources, the router's own addresses, and an honest one.
TEST_P(ReversePath, ForeignSourcesAreTreatedAlike) {
    const int filter = GetParam();
    Twins twins(run);
    for (const char* const scope : {"all", "bcm0.10"})
        twins.sysctl(std::string("ipv4/conf/") + scope + "/rp_filter", std::to_string(filter));
    twins.send(Ipv4{});
    twins.send(Ipv4{.from = "10.0.20.2"});
    twins.send(Ipv4{.from = "10.0.30.2"});
    twins.send(Ipv4{.from = "10.0.10.1"});
    twins.send(Ipv4{.from = "10.0.20.1"});
    twins.send(Ipv4{.from = "198.51.100.1"});
    twins.send(Ipv4{.from = "10.0.30.2", .to = "10.0.30.3"});
    expectAlike(twins, filter == 1 ? 1 : 3);
}

INSTANTIATE_TEST_SUITE_P(Filter, ReversePath, testing::Values(0, 1, 2));

TEST_F(Routing, ForeignIpv6SourcesAreTreatedAlike) {
    Twins twins(run);
    twins.send(Ipv6{});
    twins.send(Ipv6{.from = "2001:db8:30::2"}, kKernelOnly);
    twins.send(Ipv6{.from = "2001:db8:20::2"}, kKernelOnly);
    twins.send(Ipv6{.from = "2001:db8:10::1"});
    twins.send(Ipv6{.from = "2001:db8:99::1"});
    expectAlike(twins, 3);
}

// The way back leads through another VLAN than the one the packet came from.
TEST_F(Routing, SenderReachedThroughAnotherVlanIsTold) {
    Twins twins(run);
    twins.ip(R"(route add 10.9.0.0/24 via 10.0.30.2
route add 2001:db8:900::/64 via 2001:db8:30::2)");
    twins.send(Ipv4{.from = "10.9.0.1"});
    twins.send(Ipv6{.from = "2001:db8:900::1"}, kKernelOnly);
    expectAlike(twins, 2);
}

TEST_F(Routing, SenderBeyondAnotherRouterOfItsVlanIsTold) {
    Twins twins(run);
    twins.ip(R"(route add 10.9.0.0/24 via 10.0.10.3
route add 2001:db8:900::/64 via 2001:db8:10::3)");
    twins.send(Ipv4{.from = "10.9.0.1"});
    twins.send(Ipv6{.from = "2001:db8:900::1"});
    expectAlike(twins, 2);
}

struct Rule {
    const char* name;
    const char* selector;
};

// What matches is routed to VLAN 30, which takes 1500 bytes, or is 1300 bytes long at most.
class Policy : public TwinTest, public testing::WithParamInterface<Rule> {
 protected:
    static void build(Twins& twins) {
        const std::string selector = GetParam().selector;
        for (const char* const family : {"-4", "-6"}) {
            const std::string ip = std::string("ip ") + family;
            const bool isIpv4 = family[1] == '4';
            std::string words = selector;
            const size_t at = words.find("SENDER");
            if (at != words.npos) words.replace(at, 6, isIpv4 ? "10.0.10.3" : "2001:db8:10::3");
            twins.shell(ip + " rule add " + words + " lookup 77");
            twins.shell(ip + " route add default via " + (isIpv4 ? "10.0.30.2" : "2001:db8:30::2") +
                        " table 77");
        }
        if (selector.find("fwmark") != selector.npos)
            twins.nft(R"(table inet mangle {
    chain prerouting {
        type filter hook prerouting priority -150; policy accept;
        udp dport 5003 meta mark set 5
    }
})");
    }
    static void fill(Twins& twins, const How& how) {
        for (const size_t size : {1300, 1400, 1500}) {
            const uint8_t tos = 0x10;
            twins.send(Ipv4{.size = size});
            twins.send(Ipv6{.size = size});
            twins.send(Ipv4{.size = size, .from = "10.0.10.3", .tos = tos, .toPort = 5003}, how);
            twins.send(
                Ipv6{.size = size, .from = "2001:db8:10::3", .trafficClass = tos, .toPort = 5003},
                how);
        }
    }
};

// The packets that match fit.
TEST_P(Policy, PacketsRoutedToALargerVlanArrive) {
    Twins twins(run);
    build(twins);
    fill(twins, {});
    expectAlike(twins, 2);
}

// The packets that match do not fit where they go, but would where they do not go.
TEST_P(Policy, PacketsRoutedToASmallerVlanAreToldAlike) {
    Twins twins(run, {.b = 1500, .c = 1300});
    build(twins);
    // A lookup by addresses, mark and class of service knows neither port nor ingress.
    const std::string name = GetParam().name;
    fill(twins, {.tellsNobodyIfMute = name == "Port" || name == "Dscp"});
    expectAlike(twins, 4);
}

INSTANTIATE_TEST_SUITE_P(By, Policy,
                         testing::Values(Rule{"Source", "from SENDER"}, Rule{"Mark", "fwmark 5"},
                                         Rule{"Port", "ipproto udp dport 5003"},
                                         Rule{"Dscp", "tos 0x10 iif bcm0.10"}),
                         [](const testing::TestParamInfo<Rule>& rule) {
                             return std::string(rule.param.name);
                         });

TEST_F(Routing, PolicyByIngressIsTreatedAlike) {
    Twins twins(run, {.b = 1400, .c = 1300});
    for (const char* const ip : {"ip -4 ", "ip -6 "})
        twins.shell(std::string(ip) + "rule add iif bcm0.10 lookup 77");
    twins.shell("ip -4 route add default via 10.0.30.2 table 77");
    twins.shell("ip -6 route add default via 2001:db8:30::2 table 77");
    twins.send(Ipv4{.size = 1350}, kKernelOnly);
    twins.send(Ipv6{.size = 1350}, kKernelOnly);
    // Too large for both VLANs, but the kernel's message names the other's MTU.
    twins.send(Ipv4{.size = 1450}, kKernelOnly);
    twins.send(Ipv6{.size = 1450}, kKernelOnly);
    expectAlike(twins, 4);
}

// Four next hops with different MTUs, for many flows; which one a flow takes is the kernel's
// choice, and the answer names the MTU of the one taken.
TEST_F(Routing, MultipathToVlansOfDifferentMtusIsTreatedAlike) {
    Twins twins(run);
    twins.addVlan(40, "d", 1300);
    twins.sysctl("ipv4/fib_multipath_hash_policy", "1");
    twins.sysctl("ipv6/fib_multipath_hash_policy", "1");
    twins.ip(
        R"(route add 10.8.0.0/24 nexthop via 10.0.20.2 nexthop via 10.0.30.2 nexthop via 10.0.40.2
route add 2001:db8:800::/64 nexthop via 2001:db8:20::2 nexthop via 2001:db8:30::2 nexthop via 2001:db8:40::2)");
    for (uint16_t flow = 0; flow < 30; ++flow) {
        const auto port = static_cast<uint16_t>(6000 + flow);
        for (const size_t size : {1350, 1450}) {
            twins.send(Ipv4{.size = size, .to = "10.8.0.1", .toPort = port});
            twins.send(Ipv6{.size = size, .to = "2001:db8:800::1", .toPort = port});
        }
    }
    const Comparison result = twins.compare(false);
    EXPECT_GT(result.told, 20U);
    EXPECT_GT(result.forwarded, 20U);
    expectNoDifference(result);
}

// Every way back leads to the sender; which one an answer takes is its sender's choice.
TEST_F(Routing, SenderWithSeveralWaysBackIsTold) {
    Twins twins(run);
    twins.ip(R"(route add 10.9.0.0/24 nexthop via 10.0.10.3 nexthop via 10.0.30.2
route add 2001:db8:900::/64 nexthop via 2001:db8:10::3 nexthop via 2001:db8:30::2)");
    twins.ignoreAnswerHost();
    for (int sender = 1; sender < 20; ++sender) {
        twins.send(Ipv4{.from = "10.9.0." + std::to_string(sender)});
        twins.send(Ipv6{.from = "2001:db8:900::" + std::to_string(sender)});
    }
    const Comparison result = twins.compare(false);
    EXPECT_EQ(result.told, 38U);
    expectNoDifference(result);
}

TEST_F(Routing, RouteWithItsOwnMtuIsAnsweredWithIt) {
    Twins twins(run);
    twins.ip(R"(route add 10.0.20.4/32 dev bcm0.20 mtu 1300
route add 2001:db8:20::4/128 dev bcm0.20 mtu 1300)");
    twins.send(Ipv4{.size = 1350, .to = "10.0.20.4"}, kKernelOnly);
    twins.send(Ipv6{.size = 1350, .to = "2001:db8:20::4"}, kKernelOnly);
    twins.send(Ipv4{.size = 1450, .to = "10.0.20.4"}, kKernelOnly);
    // The kernel compares it with the device's MTU first.
    twins.send(Ipv6{.size = 1450, .to = "2001:db8:20::4"});
    twins.send(Ipv4{.size = 1300, .to = "10.0.20.4"});
    twins.send(Ipv6{.size = 1300, .to = "2001:db8:20::4"});
    twins.send(Ipv4{});
    twins.send(Ipv6{});
    expectAlike(twins, 6);
}

// The message names a served MTU, but not that of the packet's egress.
TEST_F(Routing, RouteWhoseMtuIsThatOfAnotherVlanIsAnsweredWithIt) {
    Twins twins(run, {.b = 1400, .c = 1300});
    twins.ip(R"(route add 10.0.20.4/32 dev bcm0.20 mtu 1300
route add 2001:db8:20::4/128 dev bcm0.20 mtu 1300)");
    twins.send(Ipv4{.size = 1350, .to = "10.0.20.4"}, kKernelOnly);
    twins.send(Ipv6{.size = 1350, .to = "2001:db8:20::4"}, kKernelOnly);
    twins.send(Ipv4{.size = 1450, .to = "10.0.20.4"}, kKernelOnly);
    twins.send(Ipv6{.size = 1450, .to = "2001:db8:20::4"});
    expectAlike(twins, 4);
}

TEST_F(Routing, RouteWhoseMtuIsLargerThanTheVlansIsTreatedAlike) {
    Twins twins(run);
    twins.ip(R"(route add 10.0.20.4/32 dev bcm0.20 mtu 1450
route add 2001:db8:20::4/128 dev bcm0.20 mtu lock 1450)");
    for (const size_t size : {1400, 1420, 1450, 1460}) {
        twins.send(Ipv4{.size = size, .to = "10.0.20.4"}, kKernelOnly);
        twins.send(Ipv6{.size = size, .to = "2001:db8:20::4"}, kKernelOnly);
    }
    expectAlike(twins, 2);
}

TEST_F(Routing, RoutesThatForbidAreTreatedAlike) {
    Twins twins(run);
    twins.ip(R"(route add blackhole 10.8.0.0/24
route add prohibit 10.8.1.0/24
route add unreachable 10.8.2.0/24
route add blackhole 2001:db8:800::/64
route add prohibit 2001:db8:801::/64
route add unreachable 2001:db8:802::/64)");
    for (const char* const net : {"0", "1", "2", "3"}) {
        twins.send(Ipv4{.to = std::string("10.8.") + net + ".1"});
        twins.send(Ipv6{.to = std::string("2001:db8:80") + net + "::1"});
    }
    expectAlike(twins, 0);
}

// The daemon goes by the names: these have no VLAN in them.
TEST_F(Routing, InterfacesThatAreNotVlansAreLeftToTheKernel) {
    Twins twins(run);
    twins.addVlan(40, "d", 1300);
    twins.addVlan(50, "e", 1500);
    twins.ip(
        "link set dev bcm0.40 down\nlink set dev bcm0.40 name uplink\nlink set dev uplink up\n"
        "addr replace 10.0.40.1/24 dev uplink\n"
        "addr replace 2001:db8:40::1/64 dev uplink nodad\n"
        "neigh replace 10.0.40.2 lladdr 02:00:00:00:40:02 dev uplink\n"
        "neigh replace 2001:db8:40::2 lladdr 02:00:00:00:40:02 dev uplink");
    twins.ip(
        "link set dev bcm0.50 down\nlink set dev bcm0.50 name downlink\n"
        "link set dev downlink up\n"
        "addr replace 10.0.50.1/24 dev downlink\n"
        "addr replace 2001:db8:50::1/64 dev downlink nodad\n"
        "neigh replace 10.0.50.2 lladdr 02:00:00:00:50:02 dev downlink\n"
        "neigh replace 2001:db8:50::2 lladdr 02:00:00:00:50:02 dev downlink");
    twins.send(Ipv4{.to = "10.0.40.2"}, kKernelOnly);
    twins.send(Ipv6{.to = "2001:db8:40::2"}, kKernelOnly);
    twins.send(Ipv4{.from = "10.0.50.2"}, {.from = "e", .tellsNobodyIfMute = true});
    twins.send(Ipv6{.from = "2001:db8:50::2"}, {.from = "e", .tellsNobodyIfMute = true});
    expectAlike(twins, 4);
}

}  // namespace

}  // namespace twin
