// SPDX-License-Identifier: MIT
// Alternative names in link messages and in the table of VLANs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if_arp.h>

#include <array>
#include <string>
#include <vector>

#include "link.h"
#include "vlan_table.h"

using pmtud_linux::Link;
using pmtud_linux::Vlan;
using pmtud_linux::VlanTable;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

Link ethernet(const char* name, const std::vector<std::string>& alternativeNames) {
    Link link;
    link.ifindex = 7;
    link.name = name;
    link.alternativeNames = alternativeNames;
    link.mtu = 1280;
    link.ethernet = true;
    return link;
}

}  // namespace

TEST(AlternativeName, IsReadFromTheLinksProperties) {
    alignas(nlmsghdr) std::array<char, 512> bytes{};
    nlmsghdr* const message = mnl_nlmsg_put_header(bytes.data());
    message->nlmsg_type = RTM_NEWLINK;
    auto* const header =
        static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg)));
    header->ifi_type = ARPHRD_ETHER;
    header->ifi_index = 7;
    mnl_attr_put_strz(message, IFLA_IFNAME, "eth0.20");
    mnl_attr_put_u32(message, IFLA_MTU, 1280);
    nlattr* const properties = mnl_attr_nest_start(message, IFLA_PROP_LIST);
    mnl_attr_put_strz(message, IFLA_ALT_IFNAME, "enp1s0v20");
    mnl_attr_put_u32(message, IFLA_MTU, 9000);
    // Without the zero that ends it.
    mnl_attr_put(message, IFLA_ALT_IFNAME, 7, "bcm0.20");
    mnl_attr_nest_end(message, properties);

    const auto link = pmtud_linux::decodeLink(*message);
    ASSERT_TRUE(link);
    EXPECT_EQ(link->name, "eth0.20");
    EXPECT_THAT(link->alternativeNames, ElementsAre("enp1s0v20", "bcm0.20"));
    EXPECT_EQ(link->mtu, 1280U);
}

TEST(AlternativeName, MakesTheInterfaceAVlan) {
    VlanTable table;
    EXPECT_TRUE(table.apply(ethernet("eth0.20", {"enp1s0v20", "bcm0.20"})));
    EXPECT_THAT(table.vlans(), ElementsAre(Pair(20, Vlan{7, 1280, false})));
    EXPECT_EQ(table.vlanOf(7), 20);
}

TEST(AlternativeName, ThatIsNoLongerListedEndsTheVlan) {
    VlanTable table;
    table.apply(ethernet("eth0.20", {"bcm0.20"}));
    EXPECT_TRUE(table.apply(ethernet("eth0.20", {})));
    EXPECT_THAT(table.vlans(), IsEmpty());
    EXPECT_EQ(table.vlanOf(7), 0);
}

TEST(AlternativeName, StaysWhenTheInterfaceIsRenamed) {
    VlanTable table;
    table.apply(ethernet("eth0.20", {"bcm0.20"}));
    EXPECT_FALSE(table.apply(ethernet("wire20", {"bcm0.20"})));
    EXPECT_EQ(table.vlanOf(7), 20);
}

TEST(AlternativeName, OfAVlanLowerThanTheInterfacesOwnCounts) {
    VlanTable table;
    EXPECT_TRUE(table.apply(ethernet("bcm0.20", {"bcm0.9"})));
    EXPECT_THAT(table.vlans(), ElementsAre(Pair(9, Vlan{7, 1280, false, 20})));
}

TEST(AlternativeName, OfAHigherVlanIsOnlyRemembered) {
    VlanTable table;
    table.apply(ethernet("bcm0.20", {}));
    EXPECT_TRUE(table.apply(ethernet("bcm0.20", {"bcm0.100", "bcm0.30"})));
    EXPECT_THAT(table.vlans(), ElementsAre(Pair(20, Vlan{7, 1280, false, 30})));
    EXPECT_EQ(table.vlanOf(7), 20);
}

TEST(AlternativeName, ThatIsLeftMakesTheInterfaceAnotherVlan) {
    VlanTable table;
    table.apply(ethernet("eth0.20", {"bcm0.20", "bcm0.30"}));
    EXPECT_TRUE(table.apply(ethernet("eth0.20", {"bcm0.30"})));
    EXPECT_THAT(table.vlans(), ElementsAre(Pair(30, Vlan{7, 1280, false})));
    EXPECT_EQ(table.vlanOf(7), 30);
}

TEST(AlternativeName, OfAnInterfaceThatIsNotEthernetIsForeign) {
    VlanTable table;
    Link tunnel = ethernet("tun0", {"bcm0.20"});
    tunnel.ethernet = false;
    EXPECT_FALSE(table.apply(tunnel));
    EXPECT_THAT(table.vlans(), IsEmpty());
}

TEST(AlternativeName, ThatMovesToAnotherInterfaceTakesTheVlanAlong) {
    VlanTable table;
    table.apply(ethernet("eth0.20", {"bcm0.20"}));
    Link other = ethernet("eth1.20", {"bcm0.20"});
    other.ifindex = 9;
    EXPECT_TRUE(table.apply(other));
    EXPECT_THAT(table.vlans(), ElementsAre(Pair(20, Vlan{9, 1280, false})));
    EXPECT_EQ(table.vlanOf(7), 0);
    EXPECT_EQ(table.vlanOf(9), 20);
}
