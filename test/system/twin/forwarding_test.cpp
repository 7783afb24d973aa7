// SPDX-License-Identifier: MIT
// Packets of all lengths around an MTU, merged packets, and routers whose addresses, settings or
// interfaces are unusual.
#include "twin_fixture.h"

namespace twin {
namespace {

// bcm0.10 becomes a bridge between the hosts a and d. A router's rules may see their frames.
const std::string kBridge = R"(vlan 40 d 1500
ip link del dev bcm0.40
ip link del dev bcm0.10
ip link add bcm0.10 address 02:00:00:00:10:01 type bridge stp_state 0 mcast_snooping 0
ip link set dev bcm0.10 addrgenmode none
ip link set dev bcm0.10 up
ip addr add 10.0.10.1/24 dev bcm0.10
ip addr add 2001:db8:10::1/64 dev bcm0.10 nodad
port bcm0.10 a 02:00:00:00:10:02
port bcm0.10 d 02:00:00:00:40:02
ip neigh add 10.0.10.2|2001:db8:10::2 lladdr 02:00:00:00:10:02 dev bcm0.10
ip neigh add 10.0.10.4|2001:db8:10::4 lladdr 02:00:00:00:40:02 dev bcm0.10
sysctl bridge/bridge-nf-call-iptables|bridge/bridge-nf-call-ip6tables $1
)";

// How many senders are told if packets are merged by the sender, by the router's ingress, by both
// or by neither.
std::vector<Variant> merging(size_t off, size_t sender, size_t router, size_t both) {
    return {
        {"Unmerged", off, {"gro off", "tso off gso off tx-udp-segmentation off"}},
        {"MergedByTheSender", sender, {"gro off", "tso on gso on"}},
        {"MergedByTheRouter", router, {"gro on", "tx off tso off gso off tx-udp-segmentation off"}},
        {"MergedByBoth", both, {"gro on", "tso on gso on"}},
    };
}

const std::string kMerging = R"(sh ethtool -K bcm0.10 $1
hosts ethtool -K a $2
)";

const std::string kJumbo = R"(ip link set dev bcm0.10 mtu 9000
ip link set dev bcm0.20 mtu 1500
)";

const std::vector<Case> kCases{
    {"EveryPacketIsForwardedFragmentedOrRefused",
     0,
     R"(ip link set dev bcm0.10 mtu $1
ip link set dev bcm0.20 mtu $2
v4 size=60|$3|$2|$4|$1 df=0|1
$5)",
     {{"From9000To1500", 4, {"9000", "1500", "1499", "1501", "v6 size=60|1499|1500|1501|9000"}},
      {"From1500To1400", 4, {"1500", "1400", "1399", "1401", "v6 size=60|1399|1400|1401|1500"}},
      {"From1500To1280", 4, {"1500", "1280", "1279", "1281", "v6 size=60|1279|1280|1281|1500"}},
      {"From1500To576", 2, {"1500", "576", "575", "577", ""}},
      {"From1500To577", 2, {"1500", "577", "576", "578", ""}},
      {"From16383To9000",
       4,
       {"16383", "9000", "8999", "9001", "v6 size=60|8999|9000|9001|16383"}}}},
    {"SeveralSendersAreToldEachAboutItsOwnPacket", 16,
     R"(v46 from=10.2|10.3|10.4|10.55
v46 host=c from=30.2|30.3|30.4|30.55)"},
    {"SenderOfTheSamePacketThreeTimesIsToldThreeTimes", 6, "v46 id=7 times=3"},
    // The packet is dropped without an answer. The fences' VLAN still forwards.
    {"RouterThatDoesNotForwardTellsNobody", 0,
     R"(sysctl ipv4/ip_forward 0
sysctl ipv6/conf/all/forwarding 0
sysctl ipv4/conf/bcm0.80/forwarding 1
v4 size=1500|1000
v6 size=1500|1300)"},
    {"InterfaceThatDoesNotForwardTellsNobody", 1,
     R"(sysctl ipv4/conf/bcm0.10/forwarding 0
v4
v4 host=c)"},
    // The kernel answers from 192.0.0.8 (RFC 7600), whatever the daemon does.
    {"RouterWithoutAnIpv4AddressAnswers", 2,
     R"(fence6
ip addr flush dev bcm0.10|bcm0.20|bcm0.30|bcm0.80|bcm0.90 scope global
ip addr flush dev lo
ip addr add 2001:db8:10::1/64 dev bcm0.10 nodad
ip addr add 2001:db8:20::1/64 dev bcm0.20 nodad
ip addr add 2001:db8:80::1/64 dev bcm0.80 nodad
ip addr add 2001:db8:90::1/64 dev bcm0.90 nodad
ip route add 10.0.10.0/24 dev bcm0.10
ip route add 10.0.20.0/24 dev bcm0.20
ip neigh replace 10.0.10.2 lladdr 02:00:00:00:10:02 dev bcm0.10
ip neigh replace 10.0.20.2 lladdr 02:00:00:00:20:02 dev bcm0.20
v4 size=1400
v46 kernel4)"},
    {"EgressBelowTheSmallestMtuIsLeftToTheKernel", 2,
     R"(ip link set dev bcm0.20 mtu 575
v4 size=1500|576 kernel
v4 size=575)"},
    {"EgressAboveTheLargestMtuIsLeftToTheKernel", 2,
     R"(ip link set dev bcm0.10 mtu 17000
ip link set dev bcm0.20 mtu 16384
v46 size=16385 kernel
v46 size=16384)"},
    {"EgressOfTheLargestMtuIsServed", 2,
     R"(ip link set dev bcm0.10 mtu 17000
ip link set dev bcm0.20 mtu 16383
v46 size=16383|16384)"},
    // A device accepts a few bytes more than its MTU from the link.
    {"PacketLongerThanItsIngressTakes", 2,
     R"(ip link set dev bcm0.10|bcm0.20 mtu 1280
ip link set dev bcm0.30 mtu 1400
v46 size=1281 to=20.2|30.2)"},
    {"PacketsThatGoBackWhereTheyCameFrom", 2,
     "ip link set dev bcm0.10 mtu 1400\nv46 to=10.3 size=1404|1300"},
    {"AnswersFromTheAddressOfTheIngress", 1,
     R"(sysctl ipv4/icmp_errors_use_inbound_ifaddr 1
ignore source
ip addr add 10.0.10.99/24 dev bcm0.10
v4)"},

    // Another router on the bridge: the packets are too large for this router's VLAN 20, but do not
    // go there.
    {"FrameThatIsBridgedToAnotherRouterArrivesUnanswered",
     0,
     kBridge + "v46 mac=2.0*3.64.2\nv4 size=1400 mac=2.0*3.64.2",
     {{"UnseenByTheRules", 0, {"0"}}, {"SeenByTheRules", 0, {"1"}}}},
    {"SenderOnABridgeIsToldByTheRouter",
     0,
     kBridge + "v46\nv46 host=d from=10.4 mac=2.0*3.16.1\nv4 size=1400",
     {{"UnseenByTheRules", 4, {"0"}}, {"SeenByTheRules", 4, {"1"}}}},

    // Segments that fit the egress, and packets one byte longer.
    {"TcpOf9000To1500", 0, kJumbo + kMerging + "tcp46 each4=1460 each6=1440\nv46 size=1501|9000",
     merging(4, 4, 4, 4)},
    {"TcpOfTheLargestSegmentsOf9000To1500", 0,
     kJumbo + kMerging + "tcp4 bytes=8960 each=8960\ntcp6 bytes=8940 each=8940",
     merging(2, 2, 2, 2)},
    {"UdpThatIsMergedAndFits", 0, kMerging + "udp46 each4=1372 each6=1352", merging(0, 0, 0, 0)},
    {"TcpOf1500To1280ThatFits", 0,
     "ip link set dev bcm0.20 mtu 1280\n" + kMerging + "tcp46 each4=1240 each6=1220",
     merging(0, 0, 0, 0)},
    // One for each packet that the router sees.
    {"MergedPacketsThatDoNotFit", 0,
     kMerging + "tcp46 bytes=5600 each=1400\nudp46 bytes=5600 each=1400", merging(16, 4, 12, 4)},
};

INSTANTIATE_TEST_SUITE_P(Forwarding, Alike, testing::ValuesIn(expanded(kCases)), nameOf);

}  // namespace
}  // namespace twin
