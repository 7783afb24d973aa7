// SPDX-License-Identifier: MIT
// What the link messages make of the table of layer-3 VLAN interfaces.
#include "vlan_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using pmtud_linux::Link;
using pmtud_linux::Vlan;
using pmtud_linux::VlanTable;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

Link ethernet(uint32_t ifindex, const char* name, uint32_t mtu) {
    Link link;
    link.ifindex = ifindex;
    link.name = name;
    link.mtu = mtu;
    link.ethernet = true;
    return link;
}

Link removed(uint32_t ifindex, const char* name) {
    Link link = ethernet(ifindex, name, 1500);
    link.gone = true;
    return link;
}

}  // namespace

TEST(VlanTable, HoldsInterfacesByVlanAndByIndex) {
    VlanTable table;
    EXPECT_TRUE(table.apply(ethernet(7, "bcm0.20", 1280)));
    EXPECT_TRUE(table.apply(ethernet(5, "bcm0.10", 1500)));

    EXPECT_THAT(table.vlans(),
                ElementsAre(Pair(10, Vlan{5, 1500, false}), Pair(20, Vlan{7, 1280, false})));
    EXPECT_EQ(table.vlanOf(5), 10);
    EXPECT_EQ(table.vlanOf(7), 20);
    EXPECT_EQ(table.vlanOf(6), 0);
}

TEST(VlanTable, LeavesForeignInterfacesOut) {
    VlanTable table;
    EXPECT_FALSE(table.apply(ethernet(2, "eth0", 1500)));
    EXPECT_FALSE(table.apply(ethernet(3, "bcm0.010", 1500)));
    Link tunnel = ethernet(4, "bcm0.10", 1500);
    tunnel.ethernet = false;
    EXPECT_FALSE(table.apply(tunnel));
    EXPECT_THAT(table.vlans(), IsEmpty());
}

TEST(VlanTable, KnowsThatNothingChanged) {
    VlanTable table;
    table.apply(ethernet(7, "bcm0.20", 1280));
    EXPECT_FALSE(table.apply(ethernet(7, "bcm0.20", 1280)));
    EXPECT_FALSE(table.apply(removed(8, "eth0")));
}

TEST(VlanTable, FollowsAnMtu) {
    VlanTable table;
    table.apply(ethernet(7, "bcm0.20", 1280));
    EXPECT_TRUE(table.apply(ethernet(7, "bcm0.20", 1400)));
    EXPECT_THAT(table.vlans(), ElementsAre(Pair(20, Vlan{7, 1400, false})));
    EXPECT_EQ(table.vlanOf(7), 20);
}

TEST(VlanTable, FollowsAnInterfaceIntoAVrf) {
    VlanTable table;
    table.apply(ethernet(7, "bcm0.20", 1280));
    Link enslaved = ethernet(7, "bcm0.20", 1280);
    enslaved.inVrf = true;
    EXPECT_TRUE(table.apply(enslaved));
    EXPECT_FALSE(table.apply(enslaved));
    EXPECT_THAT(table.vlans(), ElementsAre(Pair(20, Vlan{7, 1280, true})));
}

TEST(VlanTable, FollowsARemoval) {
    VlanTable table;
    table.apply(ethernet(7, "bcm0.20", 1280));
    EXPECT_TRUE(table.apply(removed(7, "bcm0.20")));
    EXPECT_THAT(table.vlans(), IsEmpty());
    EXPECT_EQ(table.vlanOf(7), 0);
}

TEST(VlanTable, FollowsARenameFromVlanToVlan) {
    VlanTable table;
    table.apply(ethernet(7, "bcm0.20", 1280));
    EXPECT_TRUE(table.apply(ethernet(7, "bcm0.21", 1280)));
    EXPECT_THAT(table.vlans(), ElementsAre(Pair(21, Vlan{7, 1280, false})));
    EXPECT_EQ(table.vlanOf(7), 21);
}

TEST(VlanTable, FollowsARenameToAForeignName) {
    VlanTable table;
    table.apply(ethernet(7, "bcm0.20", 1280));
    EXPECT_TRUE(table.apply(ethernet(7, "uplink", 1280)));
    EXPECT_THAT(table.vlans(), IsEmpty());
    EXPECT_EQ(table.vlanOf(7), 0);
}

TEST(VlanTable, GivesAVlanToTheInterfaceThatTookItsName) {
    VlanTable table;
    table.apply(ethernet(7, "bcm0.20", 1280));
    EXPECT_TRUE(table.apply(ethernet(9, "bcm0.20", 1280)));
    EXPECT_THAT(table.vlans(), ElementsAre(Pair(20, Vlan{9, 1280, false})));
    EXPECT_EQ(table.vlanOf(9), 20);
    EXPECT_EQ(table.vlanOf(7), 0);
}

TEST(VlanTable, LetsTwoInterfacesSwapTheirNames) {
    VlanTable table;
    table.apply(ethernet(5, "bcm0.10", 1500));
    table.apply(ethernet(7, "bcm0.20", 1280));
    table.apply(ethernet(5, "swap", 1500));
    table.apply(ethernet(7, "bcm0.10", 1280));
    table.apply(ethernet(5, "bcm0.20", 1500));
    EXPECT_THAT(table.vlans(),
                ElementsAre(Pair(10, Vlan{7, 1280, false}), Pair(20, Vlan{5, 1500, false})));
    EXPECT_EQ(table.vlanOf(5), 20);
    EXPECT_EQ(table.vlanOf(7), 10);
}
