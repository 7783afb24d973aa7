// SPDX-License-Identifier: MIT
// Every egress VLAN that the configuration service can answer, and those far outside the range.
#include <limits>
#include <vector>

#include "exhaustive.h"

namespace {

using engine_test::Bytes;
using engine_test::EngineTest;
using engine_test::ipv4Frame;
using engine_test::ipv6Frame;
using engine_test::Lines;
using exhaustive::forgetCalls;
using expected::text;

/// -2 to 4,100, then the extremes and what 12-bit or 16-bit arithmetic would take for valid.
std::vector<int> everyVlan() {
    std::vector<int> vlans;
    for (int vlan = -2; vlan <= 4100; ++vlan) vlans.push_back(vlan);
    vlans.insert(vlans.end(),
                 {std::numeric_limits<int>::min(), std::numeric_limits<int>::max(), -4094, -65535,
                  -65436, 8190, 8192, 8292, 65536, 65537, 65636, 69630,
                  std::numeric_limits<int>::min() + 1, std::numeric_limits<int>::min() + 100});
    return vlans;
}

bool isAnswered(int vlan) { return vlan >= 1 && vlan <= 4094; }

class EveryEgressVlan : public EngineTest {
 protected:
    template <typename Check>
    void forEachVlan(Check check) {
        for (const int vlan : everyVlan()) {
            answerVlan(vlan);
            forgetCalls();
            check(vlan);
            if (HasFatalFailure()) return;
        }
    }
};

TEST_F(EveryEgressVlan, From1To4094IsAskedForItsMtuByTheIpv4Reply) {
    Bytes frame = ipv4Frame();
    forEachVlan([&](int vlan) {
        const bool answered = app.sendICMP4PacketTooBig(frame.data(), frame.size());
        ASSERT_EQ(answered, isAnswered(vlan)) << "VLAN " << vlan;
        ASSERT_EQ(fake::syscalls().sent.size(), answered ? 1U : 0U) << "VLAN " << vlan;
        Lines calls = {"cfg_vlan_l3_get_dest_vlan(77)"};
        if (answered) calls.push_back(text("cfg_vlan_l3_get_mtu(%d)", vlan));
        ASSERT_EQ(fake::platform().calls, calls);
    });
}

TEST_F(EveryEgressVlan, OutsideOf1To4094EndsTheIpv4ReplyWithALine) {
    Bytes frame = ipv4Frame();
    forEachVlan([&](int vlan) {
        if (isAnswered(vlan)) return;
        app.sendICMP4PacketTooBig(frame.data(), frame.size());
        ASSERT_EQ(fake::syscalls().calls, Lines()) << "VLAN " << vlan;
        ASSERT_EQ(fake::platform().debugTexts(),
                  Lines({text(" PMTUD-Prot: Invalid VLAN ID - VLAN ID: %d Egress: 77", vlan)}));
    });
}

TEST_F(EveryEgressVlan, From1To4094IsAskedForItsMtuByTheIpv6Reply) {
    const Bytes frame = ipv6Frame(1460);
    forEachVlan([&](int vlan) {
        const bool answered = reply6(frame);
        ASSERT_EQ(answered, isAnswered(vlan)) << "VLAN " << vlan;
        Lines calls = {"cfg_vlan_l3_get_dest_vlan(77)"};
        if (answered) {
            calls.push_back(text("cfg_vlan_l3_get_mtu(%d)", vlan));
            calls.emplace_back("arpd_icmp6_socket_create(\"bcm0.20\")");
            calls.emplace_back("arpd_ipv6_pkt_send(606, 7)");
        }
        ASSERT_EQ(fake::platform().calls, calls);
    });
}

TEST_F(EveryEgressVlan, OutsideOf1To4094EndsTheIpv6ReplyWithALine) {
    const Bytes frame = ipv6Frame(1460);
    forEachVlan([&](int vlan) {
        if (isAnswered(vlan)) return;
        reply6(frame);
        ASSERT_EQ(fake::syscalls().calls, Lines()) << "VLAN " << vlan;
        ASSERT_EQ(fake::platform().debugTexts(),
                  Lines({text(" PMTUD-Prot: Invalid VLAN ID: %d(Egress ID: 77)", vlan)}));
    });
}

}  // namespace
