// SPDX-License-Identifier: MIT
// A VLAN's interface that is a bridge, whose frames the rules of a router see as well.
#include "twin_fixture.h"

namespace twin {

namespace {

class Bridge : public TwinTest, public testing::WithParamInterface<const char*> {
 protected:
    // bcm0.10 is a bridge between the hosts a and d.
    static void build(Twins& twins) {
        twins.addVlan(40, "d", 1500);
        twins.ip(R"(link del dev bcm0.40
link del dev bcm0.10
link add bcm0.10 address 02:00:00:00:10:01 type bridge stp_state 0 mcast_snooping 0
link set dev bcm0.10 addrgenmode none
link set dev bcm0.10 up
addr add 10.0.10.1/24 dev bcm0.10
addr add 2001:db8:10::1/64 dev bcm0.10 nodad)");
        twins.addPort("bcm0.10", "a", "02:00:00:00:10:02");
        twins.addPort("bcm0.10", "d", "02:00:00:00:40:02");
        twins.ip(R"(neigh add 10.0.10.2 lladdr 02:00:00:00:10:02 dev bcm0.10
neigh add 2001:db8:10::2 lladdr 02:00:00:00:10:02 dev bcm0.10
neigh add 10.0.10.4 lladdr 02:00:00:00:40:02 dev bcm0.10
neigh add 2001:db8:10::4 lladdr 02:00:00:00:40:02 dev bcm0.10)");
        for (const char* const rules : {"iptables", "ip6tables"})
            twins.sysctl(std::string("bridge/bridge-nf-call-") + rules, GetParam());
    }

    static constexpr Mac kNeighbour{2, 0, 0, 0, 0x40, 2};
};

// Another router on the bridge: the packets are too large for this router's VLAN 20, through
// which they do not go.
TEST_P(Bridge, FrameThatIsBridgedToAnotherRouterArrivesUnanswered) {
    Twins twins(run);
    build(twins);
    twins.send(Ipv4{}, {.to = kNeighbour});
    twins.send(Ipv6{}, {.to = kNeighbour});
    twins.send(Ipv4{.size = 1400}, {.to = kNeighbour});
    expectAlike(twins, 0);
}

TEST_P(Bridge, SenderOnTheBridgeIsToldByTheRouter) {
    Twins twins(run);
    build(twins);
    twins.send(Ipv4{});
    twins.send(Ipv6{});
    twins.send(Ipv4{.from = "10.0.10.4"}, {.from = "d", .to = {2, 0, 0, 0, 0x10, 1}});
    twins.send(Ipv6{.from = "2001:db8:10::4"}, {.from = "d", .to = {2, 0, 0, 0, 0x10, 1}});
    twins.send(Ipv4{.size = 1400});
    expectAlike(twins, 4);
}

INSTANTIATE_TEST_SUITE_P(WithCallToTheRules, Bridge, testing::Values("0", "1"),
                         [](const testing::TestParamInfo<const char*>& call) {
                             return call.param[0] == '0' ? "Off" : "On";
                         });

}  // namespace

}  // namespace twin
