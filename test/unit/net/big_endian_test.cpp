// SPDX-License-Identifier: MIT
// Numbers in network order, at addresses that are not aligned.
#include "BigEndian.h"

#include <gtest/gtest.h>

#include <array>

namespace {

constexpr uint8_t kOld = 0xEE;
using Bytes = std::array<uint8_t, 6>;

TEST(BigEndian, StoresAllFourBytesOfANumber) {
    Bytes bytes = {kOld, kOld, kOld, kOld, kOld, kOld};
    big_endian::store32(&bytes[1], 0x12345678);
    EXPECT_EQ(bytes, (Bytes{kOld, 0x12, 0x34, 0x56, 0x78, kOld}));
    big_endian::store32(&bytes[1], 0xFFFE0000);
    EXPECT_EQ(bytes, (Bytes{kOld, 0xFF, 0xFE, 0x00, 0x00, kOld}));
}

TEST(BigEndian, StoresBothBytesOfAShortNumber) {
    Bytes bytes = {kOld, kOld, kOld, kOld, kOld, kOld};
    big_endian::store16(&bytes[1], 0xFE12);
    EXPECT_EQ(bytes, (Bytes{kOld, 0xFE, 0x12, kOld, kOld, kOld}));
}

TEST(BigEndian, LoadsAllBytesWithoutASign) {
    const Bytes bytes = {0x7F, 0xFE, 0xDC, 0xBA, 0x98, 0x7F};
    EXPECT_EQ(big_endian::load32(&bytes[1]), 0xFEDCBA98U);
    EXPECT_EQ(big_endian::load16(&bytes[1]), 0xFEDCU);
    EXPECT_EQ(big_endian::load16(&bytes[3]), 0xBA98U);
}

}  // namespace
