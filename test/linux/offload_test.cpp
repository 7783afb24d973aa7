// SPDX-License-Identifier: MIT
// What is said about receive offload.
#include "offload.h"

#include <gtest/gtest.h>

TEST(OffloadNote, NamesTheInterfaceAndTheRemedy) {
    EXPECT_EQ(pmtud_linux::offloadNote("bcm0.10", "gro off"),
              "bcm0.10: receive offload is on; the packets that it merges are left to the kernel; "
              "turn it off: ethtool -K bcm0.10 gro off");
}
