// SPDX-License-Identifier: MIT
// The owner of a descriptor.
#include "descriptor.h"

#include <gtest/gtest.h>

using pmtud_linux::Descriptor;

// A daemon whose standard input is closed gets this one.
TEST(DescriptorOwner, MayOwnNumberZero) {
    Descriptor zero(0);
    EXPECT_TRUE(zero.valid());
    EXPECT_EQ(zero.release(), 0);
    EXPECT_FALSE(zero.valid());
}
