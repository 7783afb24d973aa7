// SPDX-License-Identifier: MIT
// Routes and policies: a packet may leave on a different VLAN than its addresses suggest.
#include <iostream>

#include "twin_fixture.h"

namespace twin {
namespace {

// Packets that match are routed to VLAN 30, whose MTU is 1500 or 1300.
const std::string kPolicy = R"($1
sh ip -4 rule add $2 lookup 77
sh ip -6 rule add $3 lookup 77
sh ip -4 route add default via 10.0.30.2 table 77
sh ip -6 route add default via 2001:db8:30::2 table 77
v46 size=1300|1400|1500
v46 size=1300|1400|1500 from=10.3 tos=0x10 dport=5003 $4)";

constexpr char kMark[] =
    "nft table inet mangle { chain prerouting { type filter hook prerouting priority -150; "
    "udp dport 5003 meta mark set 5; }; }";

// How many senders are told, and who answers the packets whose route a lookup by addresses, mark
// and class of service cannot predict, because it knows neither port nor ingress.
std::vector<Variant> policies(size_t told, const char* unforeseen) {
    return {
        {"BySource", told, {"", "from 10.0.10.3", "from 2001:db8:10::3", ""}},
        {"ByMark", told, {kMark, "fwmark 5", "fwmark 5", ""}},
        {"ByPort", told, {"", "ipproto udp dport 5003", "ipproto udp dport 5003", unforeseen}},
        {"ByDscp", told, {"", "tos 0x10 iif bcm0.10", "tos 0x10 iif bcm0.10", unforeseen}},
    };
}

const std::vector<Case> kCases{
    // Another VLAN's sources, the router's own addresses, and an honest one.
    {"ForeignSources",
     0,
     R"(sysctl ipv4/conf/all/rp_filter $1
sysctl ipv4/conf/bcm0.10/rp_filter $1
v4 from=10.2|20.2|30.2|10.1|20.1|198.51.100.1
v4 from=30.2 to=30.3)",
     {{"Unfiltered", 3, {"0"}}, {"FilteredStrictly", 1, {"1"}}, {"FilteredLoosely", 3, {"2"}}}},
    {"ForeignIpv6Sources", 3,
     R"(v6 from=10.2|10.1|2001:db8:99::1
v6 from=30.2|20.2 kernel)"},
    // The way back leads through another VLAN than the one the packet came from.
    {"SenderReachedThroughAnotherVlan", 2,
     R"(ip route add 10.9.0.0/24 via 10.0.30.2
ip route add 2001:db8:900::/64 via 2001:db8:30::2
v4 from=10.9.0.1
v6 from=2001:db8:900::1 kernel)"},
    {"SenderBeyondAnotherRouterOfItsVlan", 2,
     R"(ip route add 10.9.0.0/24 via 10.0.10.3
ip route add 2001:db8:900::/64 via 2001:db8:10::3
v4 from=10.9.0.1
v6 from=2001:db8:900::1)"},

    // The packets that match fit VLAN 30.
    {"PacketsRoutedToALargerVlanArrive", 2, kPolicy, policies(2, "")},
    // The packets that match do not fit VLAN 30, but would fit VLAN 20.
    {"PacketsRoutedToASmallerVlan", 4,
     "ip link set dev bcm0.20 mtu 1500\nip link set dev bcm0.30 mtu 1300\n" + kPolicy,
     policies(4, "kernel")},
    // 1450 bytes are too large for both VLANs, but the kernel's message names the other's MTU.
    {"PolicyByIngress", 4,
     R"(ip link set dev bcm0.30 mtu 1300
sh ip -4|-6 rule add iif bcm0.10 lookup 77
sh ip -4 route add default via 10.0.30.2 table 77
sh ip -6 route add default via 2001:db8:30::2 table 77
v46 size=1350|1450 kernel)"},

    // The kernel compares an IPv6 packet with the device's MTU first.
    {"RouteWithAnMtuIsAnsweredWithThatMtu",
     0,
     R"($1
ip route add 10.0.20.4/32 dev bcm0.20 mtu 1300
ip route add 2001:db8:20::4/128 dev bcm0.20 mtu 1300
v46 to=20.4 size=1350 kernel
v46 to=20.4 size=1450 kernel4
v46 to=20.4 size=1300
v46)",
     {{"OfNoOtherVlan", 6, {""}}, {"OfAnotherVlan", 6, {"ip link set dev bcm0.30 mtu 1300"}}}},
    {"RouteWhoseMtuIsLargerThanTheVlans", 2,
     R"(ip route add 10.0.20.4/32 dev bcm0.20 mtu 1450
ip route add 2001:db8:20::4/128 dev bcm0.20 mtu lock 1450
v46 to=20.4 size=1400|1420|1450|1460 kernel)"},
    {"RoutesThatForbid", 0,
     R"(ip route add blackhole 10.8.0.0/24
ip route add prohibit 10.8.1.0/24
ip route add unreachable 10.8.2.0/24
ip route add blackhole 2001:db8:800::/64
ip route add prohibit 2001:db8:801::/64
ip route add unreachable 2001:db8:802::/64
v4 to=10.8.0.1|10.8.1.1|10.8.2.1|10.8.3.1
v6 to=2001:db8:800::1|2001:db8:801::1|2001:db8:802::1|2001:db8:803::1)"},

    // The daemon recognises interfaces by name, and these names contain no VLAN.
    {"InterfacesThatAreNotVlansAreLeftToTheKernel", 4,
     R"(vlan 40 d 1300
vlan 50 e 1500
ip link set dev bcm0.40|bcm0.50 down
ip link set dev bcm0.40 name uplink
ip link set dev bcm0.50 name downlink
ip link set dev uplink|downlink up
ip addr replace 10.0.40.1/24 dev uplink
ip addr replace 2001:db8:40::1/64 dev uplink nodad
ip neigh replace 10.0.40.2|2001:db8:40::2 lladdr 02:00:00:00:40:02 dev uplink
ip addr replace 10.0.50.1/24 dev downlink
ip addr replace 2001:db8:50::1/64 dev downlink nodad
ip neigh replace 10.0.50.2|2001:db8:50::2 lladdr 02:00:00:00:50:02 dev downlink
v46 to=40.2 kernel
v46 host=e kernel)"},
};

INSTANTIATE_TEST_SUITE_P(Routing, Alike, testing::ValuesIn(expanded(kCases)), nameOf);

// Three next hops with different MTUs, for many flows; which one a flow takes is the kernel's
// choice, and the answer names the MTU of the one taken.
TEST(Routing, AnswersNameTheMtuOfTheNextHopThatAFlowTakes) {
    std::string lines = R"(vlan 40 d 1300
sysctl ipv4/fib_multipath_hash_policy|ipv6/fib_multipath_hash_policy 1
ip route add 10.8.0.0/24 nexthop via 10.0.20.2 nexthop via 10.0.30.2 nexthop via 10.0.40.2
ip route add 2001:db8:800::/64 nexthop via 2001:db8:20::2 nexthop via 2001:db8:30::2 nexthop via 2001:db8:40::2
)";
    for (int port = 6000; port < 6030; ++port)
        for (const char* const packet : {"v4 to=10.8.0.1", "v6 to=2001:db8:800::1"})
            lines += packet + (" size=1350|1450 dport=" + std::to_string(port)) + "\n";
    Twins twins;
    play(twins, lines);
    const Comparison result = twins.compare(false);
    EXPECT_GT(result.told, 20U);
    EXPECT_GT(result.forwarded, 20U);
    expectNoDifference(result);
}

// Every route back leads to the sender. The daemon and the kernel may choose different ones.
TEST(Routing, SenderWithSeveralRoutesBackIsTold) {
    std::string lines = R"(ip route add 10.9.0.0/24 nexthop via 10.0.10.3 nexthop via 10.0.30.2
ip route add 2001:db8:900::/64 nexthop via 2001:db8:10::3 nexthop via 2001:db8:30::2
ignore host
)";
    for (int sender = 1; sender < 20; ++sender)
        lines += "v4 from=10.9.0." + std::to_string(sender) +
                 "\nv6 from=2001:db8:900::" + std::to_string(sender) + "\n";
    expectTold(lines, 38);
}

// A kernel without VRFs has nothing to compare. It must refuse the VRF for that reason and no
// other.
TEST(Routing, SendersInAVrfAreTold) {
    std::string refusal;
    try {
        Namespace("probe").ip("link add red type vrf table 100");
    } catch (const std::runtime_error& error) {
        refusal = error.what();
    }
    if (!refusal.empty()) {
        EXPECT_NE(refusal.find("Unknown device type"), refusal.npos) << refusal;
        std::cout << "NOT RUN: this kernel has no VRF: " << refusal << std::endl;
        return;
    }
    Twins twins;
    play(twins, R"(ip link add red type vrf table 100
ip link set dev red up
ip link set dev bcm0.10|bcm0.20 master red
ip addr replace 2001:db8:10::1/64 dev bcm0.10 nodad
ip addr replace 2001:db8:20::1/64 dev bcm0.20 nodad
v46 kernel4
v46 size=1400)");
    expectAlike(twins, 2);
}

}  // namespace
}  // namespace twin
