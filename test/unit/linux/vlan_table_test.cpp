// SPDX-License-Identifier: MIT
// Which interface names are VLANs, and how link messages change the table of VLANs.
#include "vlan_table.h"

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

Link named(const char* name, const std::vector<std::string>& alternativeNames) {
    Link link = ethernet(7, name);
    link.alternativeNames = alternativeNames;
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

Link other(Link link) {
    link.ifindex = 9;
    return link;
}

const Vlans kVlan20 = {{20, {7, 1280}}};

struct Step {
    const char* name;
    std::vector<Link> before;
    Link message;
    bool changes;
    Vlans after;
};

class TableOfVlans : public testing::TestWithParam<Step> {};

std::string nameOf(const testing::TestParamInfo<Step>& step) { return step.param.name; }

}  // namespace

TEST_P(TableOfVlans, Follows) {
    VlanTable table;
    for (const Link& link : GetParam().before) ASSERT_TRUE(table.apply(link));
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

const Link kBcm20 = ethernet(7, "bcm0.20");

INSTANTIATE_TEST_SUITE_P(
    OneLinkMessage, TableOfVlans,
    testing::Values(
        Step{"Nothing", {kBcm20}, kBcm20, false, kVlan20},
        Step{"AnotherVlan",
             {kBcm20},
             ethernet(5, "bcm0.10", 1500),
             true,
             {{10, {5, 1500}}, {20, {7, 1280}}}},
        Step{"AForeignName", {kBcm20}, ethernet(5, "eth0"), false, kVlan20},
        Step{"ALeadingZero", {kBcm20}, ethernet(5, "bcm0.010"), false, kVlan20},
        Step{"ATunnel", {kBcm20}, tunnel(ethernet(5, "bcm0.10")), false, kVlan20},
        Step{"ARemovalOfAForeignName", {kBcm20}, gone(ethernet(8, "eth0")), false, kVlan20},
        Step{"AnMtu", {kBcm20}, ethernet(7, "bcm0.20", 1400), true, {{20, {7, 1400}}}},
        Step{"AVrf", {kBcm20}, enslaved(kBcm20), true, {{20, {7, 1280, true}}}},
        Step{"ARemoval", {kBcm20}, gone(kBcm20), true, {}},
        Step{"ARename", {kBcm20}, ethernet(7, "bcm0.21"), true, {{21, {7, 1280}}}},
        Step{"ARenameToAForeignName", {kBcm20}, ethernet(7, "uplink"), true, {}},
        Step{"AnInterfaceThatTookTheName", {kBcm20}, other(kBcm20), true, {{20, {9, 1280}}}}),
    nameOf);

const Link kNamed20 = named("eth0.20", {"bcm0.20"});

INSTANTIATE_TEST_SUITE_P(
    AnAlternativeName, TableOfVlans,
    testing::Values(
        Step{"ThatMakesTheInterfaceAVlan",
             {},
             named("eth0.20", {"enp1s0v20", "bcm0.20"}),
             true,
             kVlan20},
        Step{"ThatIsNoLongerListed", {kNamed20}, named("eth0.20", {}), true, {}},
        Step{"ThatStaysWhenTheInterfaceIsRenamed",
             {kNamed20},
             named("wire20", {"bcm0.20"}),
             false,
             kVlan20},
        Step{"OfALowerVlanThanTheInterfacesOwn",
             {},
             named("bcm0.20", {"bcm0.9"}),
             true,
             {{9, {7, 1280, false, 20}}}},
        Step{"OfAHigherVlanWhichIsOnlyRemembered",
             {kBcm20},
             named("bcm0.20", {"bcm0.100", "bcm0.30"}),
             true,
             {{20, {7, 1280, false, 30}}}},
        Step{"ThatIsLeftWhenTheLowerOneGoes",
             {named("eth0.20", {"bcm0.20", "bcm0.30"})},
             named("eth0.20", {"bcm0.30"}),
             true,
             {{30, {7, 1280}}}},
        Step{"OfATunnel", {}, tunnel(named("tun0", {"bcm0.20"})), false, {}},
        Step{"ThatMovesToAnotherInterface", {kNamed20}, other(kNamed20), true, {{20, {9, 1280}}}}),
    nameOf);

TEST(TableOfVlans, LetsTwoInterfacesSwapTheirNames) {
    VlanTable table;
    for (const Link& link :
         {ethernet(5, "bcm0.10", 1500), ethernet(7, "bcm0.20"), ethernet(5, "swap", 1500),
          ethernet(7, "bcm0.10"), ethernet(5, "bcm0.20", 1500)})
        EXPECT_TRUE(table.apply(link));
    EXPECT_EQ(table.vlans(), (Vlans{{10, {7, 1280}}, {20, {5, 1500}}}));
    EXPECT_EQ(table.vlanOf(5), 20);
    EXPECT_EQ(table.vlanOf(7), 10);
}
