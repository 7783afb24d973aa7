// SPDX-License-Identifier: MIT
// Which interface names are layer-3 VLAN interfaces.
#include "vlan_name.h"

#include <gtest/gtest.h>

using pmtud_linux::nameOfVlan;
using pmtud_linux::vlanOfName;

TEST(VlanName, IsTheVlanBehindThePrefix) {
    EXPECT_EQ(vlanOfName("bcm0.1"), 1);
    EXPECT_EQ(vlanOfName("bcm0.10"), 10);
    EXPECT_EQ(vlanOfName("bcm0.4094"), 4094);
}

TEST(VlanName, OutsideTheRangeIsForeign) {
    EXPECT_EQ(vlanOfName("bcm0.0"), 0);
    EXPECT_EQ(vlanOfName("bcm0.4095"), 0);
    EXPECT_EQ(vlanOfName("bcm0.4096"), 0);
    EXPECT_EQ(vlanOfName("bcm0.9999999999"), 0);
}

TEST(VlanName, WithLeadingZerosIsForeign) {
    EXPECT_EQ(vlanOfName("bcm0.010"), 0);
    EXPECT_EQ(vlanOfName("bcm0.00"), 0);
}

TEST(VlanName, WithAnythingElseIsForeign) {
    for (const char* name : {"", "bcm0", "bcm0.", "bcm0.x", "bcm0.1x", "bcm0.1.2", "bcm0.-1",
                             "bcm0.+1", "bcm0. 1", "bcm0.1 ", "bcm1.10", "xbcm0.10", "BCM0.10"})
        EXPECT_EQ(vlanOfName(name), 0) << name;
}

TEST(VlanName, OfAVlanIsThePrefixAndItsNumber) {
    EXPECT_EQ(nameOfVlan(1), "bcm0.1");
    EXPECT_EQ(nameOfVlan(4094), "bcm0.4094");
}
