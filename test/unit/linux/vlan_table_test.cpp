// SPDX-License-Identifier: MIT
// Which interface names are VLANs, and what link messages make of the table of VLANs.
#include "vlan_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "vlan_name.h"

using pmtud_linux::Link;
using pmtud_linux::nameOfVlan;
using pmtud_linux::putName;
using pmtud_linux::Vlan;
using pmtud_linux::vlanOfName;
using pmtud_linux::Vlans;
using pmtud_linux::VlanTable;
using testing::IsEmpty;

TEST(VlanName, IsThePrefixAndTheVlanInDecimal) {
    for (const int vlan : {1, 10, 4094}) {
        EXPECT_EQ(vlanOfName("bcm0." + std::to_string(vlan)), vlan);
        EXPECT_EQ(nameOfVlan(vlan), "bcm0." + std::to_string(vlan));
    }
    for (const char* name : {"", "bcm0", "bcm0.", "bcm0.0", "bcm0.4095", "bcm0.9999999999",
                             "bcm0.010", "bcm0.00", "bcm0.x", "bcm0.1x", "bcm0.1.2", "bcm0.-1",
                             "bcm0.+1", "bcm0. 1", "bcm0.1 ", "bcm1.10", "xbcm0.10", "BCM0.10"})
        EXPECT_EQ(vlanOfName(name), 0) << name;
}

TEST(VlanName, ThatIsTooLongForTheKernelIsNotCutShort) {
    ifreq request;
    memset(&request, 0xee, sizeof request);
    EXPECT_FALSE(putName(request, "bcm0.10-and-more"));
    EXPECT_EQ(static_cast<unsigned char>(request.ifr_name[0]), 0xee);
    EXPECT_TRUE(putName(request, "bcm0.10-and-mor"));
    EXPECT_STREQ(request.ifr_name, "bcm0.10-and-mor");
}

namespace {

Link ethernet(uint32_t ifindex, const char* name, uint32_t mtu = 1280) {
    Link link;
    link.ifindex = ifindex;
    link.name = name;
    link.mtu = mtu;
    link.ethernet = true;
    return link;
}

Link gone(Link link) {
    link.gone = true;
    return link;
}

Link enslaved(Link link) {
    link.inVrf = true;
    return link;
}

Link tunnel(Link link) {
    link.ethernet = false;
    return link;
}

// One message after bcm0.20 with the index 7.
struct Step {
    const char* name;
    Link message;
    bool changes;
    Vlans after;
};

class TableOfVlans : public testing::TestWithParam<Step> {};

}  // namespace

TEST_P(TableOfVlans, Follows) {
    VlanTable table;
    ASSERT_TRUE(table.apply(ethernet(7, "bcm0.20")));
    EXPECT_EQ(table.vlanOf(7), 20);
    EXPECT_EQ(table.apply(GetParam().message), GetParam().changes);
    EXPECT_EQ(table.vlans(), GetParam().after);
    for (const uint32_t ifindex : {5U, 7U, 9U}) {
        int expected = 0;
        for (const auto& [number, vlan] : GetParam().after)
            if (vlan.ifindex == ifindex) expected = number;
        EXPECT_EQ(table.vlanOf(ifindex), expected) << ifindex;
    }
    EXPECT_FALSE(table.apply(GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    OneLinkMessage, TableOfVlans,
    testing::Values(
        Step{"Nothing", ethernet(7, "bcm0.20"), false, {{20, {7, 1280, false}}}},
        Step{"AnotherVlan",
             ethernet(5, "bcm0.10", 1500),
             true,
             {{10, {5, 1500, false}}, {20, {7, 1280, false}}}},
        Step{"AForeignName", ethernet(5, "eth0"), false, {{20, {7, 1280, false}}}},
        Step{"ALeadingZero", ethernet(5, "bcm0.010"), false, {{20, {7, 1280, false}}}},
        Step{"ATunnel", tunnel(ethernet(5, "bcm0.10")), false, {{20, {7, 1280, false}}}},
        Step{"ARemovalOfAForeignName", gone(ethernet(8, "eth0")), false, {{20, {7, 1280, false}}}},
        Step{"AnMtu", ethernet(7, "bcm0.20", 1400), true, {{20, {7, 1400, false}}}},
        Step{"AVrf", enslaved(ethernet(7, "bcm0.20")), true, {{20, {7, 1280, true}}}},
        Step{"ARemoval", gone(ethernet(7, "bcm0.20")), true, {}},
        Step{"ARename", ethernet(7, "bcm0.21"), true, {{21, {7, 1280, false}}}},
        Step{"ARenameToAForeignName", ethernet(7, "uplink"), true, {}},
        Step{"AnInterfaceThatTookTheName", ethernet(9, "bcm0.20"), true, {{20, {9, 1280, false}}}}),
    [](const auto& step) { return std::string(step.param.name); });

TEST(TableOfVlans, LetsTwoInterfacesSwapTheirNames) {
    VlanTable table;
    for (const Link& link :
         {ethernet(5, "bcm0.10", 1500), ethernet(7, "bcm0.20"), ethernet(5, "swap", 1500),
          ethernet(7, "bcm0.10"), ethernet(5, "bcm0.20", 1500)})
        EXPECT_TRUE(table.apply(link));
    EXPECT_EQ(table.vlans(), (Vlans{{10, {7, 1280, false}}, {20, {5, 1500, false}}}));
    EXPECT_EQ(table.vlanOf(5), 20);
    EXPECT_EQ(table.vlanOf(7), 10);
}
