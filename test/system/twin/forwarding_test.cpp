// SPDX-License-Identifier: MIT
// Packets of all lengths around an MTU, and routers whose addresses or settings are unusual.
#include "twin_fixture.h"

namespace twin {

namespace {

struct Pair {
    int ingress;
    int egress;
};

class MtuPair : public TwinTest, public testing::WithParamInterface<Pair> {};

TEST_P(MtuPair, EveryPacketIsForwardedFragmentedOrRefusedAlike) {
    const auto [ingress, egress] = GetParam();
    Twins twins(run, {.a = ingress, .b = egress});
    const auto mtu = static_cast<size_t>(egress);
    const auto largest = static_cast<size_t>(ingress);
    for (const size_t size : {size_t{60}, mtu - 1, mtu, mtu + 1, largest}) {
        twins.send(Ipv4{.size = size});
        twins.send(Ipv4{.size = size, .dontFragment = false});
        if (egress >= 1280) twins.send(Ipv6{.size = size});
    }
    expectAlike(twins, egress >= 1280 ? 4 : 2);
}

INSTANTIATE_TEST_SUITE_P(Of, MtuPair,
                         testing::Values(Pair{9000, 1500}, Pair{1500, 1400}, Pair{1500, 1280},
                                         Pair{1500, 576}, Pair{1500, 577}, Pair{16383, 9000}),
                         [](const testing::TestParamInfo<Pair>& pair) {
                             return std::to_string(pair.param.ingress) + "To" +
                                    std::to_string(pair.param.egress);
                         });

using Forwarding = TwinTest;

TEST_F(Forwarding, SeveralSendersAreToldEachAboutItsOwnPacket) {
    Twins twins(run);
    for (const char* const last : {"2", "3", "4", "55"}) {
        twins.send(Ipv4{.from = std::string("10.0.10.") + last});
        twins.send(Ipv6{.from = std::string("2001:db8:10::") + last});
        twins.send(Ipv4{.from = std::string("10.0.30.") + last}, {.from = "c"});
        twins.send(Ipv6{.from = std::string("2001:db8:30::") + last}, {.from = "c"});
    }
    expectAlike(twins, 16);
}

TEST_F(Forwarding, SamePacketSentThreeTimesIsToldOfThreeTimes) {
    Twins twins(run);
    for (int i = 0; i < 3; ++i) {
        twins.send(Ipv4{.id = 7});
        twins.send(Ipv6{.flowLabel = 7});
    }
    expectAlike(twins, 6);
}

// Neither is the packet forwarded, nor is anybody told of its size (finding: forwarding off).
TEST_F(Forwarding, RouterThatDoesNotForwardTellsNobody) {
    Twins twins(run);
    twins.sysctl("ipv4/ip_forward", "0");
    twins.sysctl("ipv6/conf/all/forwarding", "0");
    twins.sysctl("ipv4/conf/bcm0.4000/forwarding", "1");  // the fence's way
    twins.send(Ipv4{});
    twins.send(Ipv4{.size = 1000});
    twins.send(Ipv6{});
    twins.send(Ipv6{.size = 1300});
    expectAlike(twins, 0);
}

TEST_F(Forwarding, InterfaceThatDoesNotForwardTellsNobody) {
    Twins twins(run);
    twins.sysctl("ipv4/conf/bcm0.10/forwarding", "0");
    twins.send(Ipv4{});
    twins.send(Ipv4{.from = "10.0.30.2"}, {.from = "c"});
    expectAlike(twins, 1);
}

// The kernel answers from 192.0.0.8 (RFC 7600), whatever the daemon does.
TEST_F(Forwarding, RouterWithoutAnIpv4AddressAnswers) {
    Twins twins(run);
    twins.fenceByIpv6();
    twins.ip(R"(addr flush dev bcm0.10 scope global
addr flush dev bcm0.20 scope global
addr flush dev bcm0.30 scope global
addr flush dev bcm0.4000 scope global
addr flush dev bcm0.4001 scope global
addr flush dev lo
addr add 2001:db8:10::1/64 dev bcm0.10 nodad
addr add 2001:db8:20::1/64 dev bcm0.20 nodad
addr add 2001:db8:4000::1/64 dev bcm0.4000 nodad
addr add 2001:db8:4001::1/64 dev bcm0.4001 nodad
route add 10.0.10.0/24 dev bcm0.10
route add 10.0.20.0/24 dev bcm0.20
neigh replace 10.0.10.2 lladdr 02:00:00:00:10:02 dev bcm0.10
neigh replace 10.0.20.2 lladdr 02:00:00:00:20:02 dev bcm0.20)");
    twins.send(Ipv4{.size = 1400});
    twins.send(Ipv4{}, kKernelOnly);
    twins.send(Ipv6{});
    expectAlike(twins, 2);
}

TEST_F(Forwarding, EgressBelowTheSmallestMtuIsLeftToTheKernel) {
    Twins twins(run, {.b = 575});
    twins.send(Ipv4{}, kKernelOnly);
    twins.send(Ipv4{.size = 576}, kKernelOnly);
    twins.send(Ipv4{.size = 575});
    expectAlike(twins, 2);
}

TEST_F(Forwarding, EgressAboveTheLargestMtuIsLeftToTheKernel) {
    Twins twins(run, {.a = 17000, .b = 16384});
    twins.send(Ipv4{.size = 16385}, kKernelOnly);
    twins.send(Ipv6{.size = 16385}, kKernelOnly);
    twins.send(Ipv4{.size = 16384});
    twins.send(Ipv6{.size = 16384});
    expectAlike(twins, 2);
}

// A device takes a few bytes more than its MTU from the link.
TEST_F(Forwarding, PacketLongerThanItsIngressTakesIsTreatedAlike) {
    Twins twins(run, {.a = 1280, .b = 1280, .c = 1400});
    twins.send(Ipv6{.size = 1281});
    twins.send(Ipv4{.size = 1281});
    twins.send(Ipv6{.size = 1281, .to = "2001:db8:30::2"});
    twins.send(Ipv4{.size = 1281, .to = "10.0.30.2"});
    expectAlike(twins, 2);
}

TEST_F(Forwarding, PacketsThatGoBackWhereTheyCameFromAreTreatedAlike) {
    Twins twins(run, {.a = 1400});
    twins.send(Ipv4{.size = 1404, .to = "10.0.10.3"});
    twins.send(Ipv6{.size = 1404, .to = "2001:db8:10::3"});
    twins.send(Ipv4{.size = 1300, .to = "10.0.10.3"});
    twins.send(Ipv6{.size = 1300, .to = "2001:db8:10::3"});
    expectAlike(twins, 2);
}

TEST_F(Forwarding, AnswersFromTheAddressOfTheIngressAreToldAlike) {
    Twins twins(run);
    twins.sysctl("ipv4/icmp_errors_use_inbound_ifaddr", "1");
    twins.ignoreAnswerSource();
    twins.ip("addr add 10.0.10.99/24 dev bcm0.10");
    twins.send(Ipv4{});
    expectAlike(twins, 1);
}

}  // namespace

}  // namespace twin
