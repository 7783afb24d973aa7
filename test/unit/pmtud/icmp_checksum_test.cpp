// SPDX-License-Identifier: MIT
// Tests of the checksum routine.  The sums in the comments were added up by hand.
#include "icmp_checksum.h"

#include <type_traits>

#include "engine_test.h"

namespace {

using engine_test::Bytes;
using engine_test::GuardedBytes;

static_assert(std::is_same_v<decltype(icmpChecksum), uint16_t(const uint8_t*, uint16_t)>,
              "a length of 16 bits");

uint16_t checksum(const Bytes& bytes) {
    return icmpChecksum(bytes.data(), static_cast<uint16_t>(bytes.size()));
}

// RFC 1071 section 3: the words sum to 2DDF0, folded DDF2.
TEST(IcmpChecksumTest, OfTheExampleInRfc1071) {
    EXPECT_EQ(checksum({0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7}), 0x220d);
}

TEST(IcmpChecksumTest, ReadsWordsInNetworkOrder) { EXPECT_EQ(checksum({0x01, 0x02}), 0xfefd); }

TEST(IcmpChecksumTest, OfNothingIsAllOnes) { EXPECT_EQ(icmpChecksum(nullptr, 0), 0xffff); }

// FFFF + FFFF + 0001 = 1FFFF, folded 10000.  With the carry of the fold added back it were FFFE.
TEST(IcmpChecksumTest, FoldsOnceSoThatASumOf1FFFFGivesFFFF) {
    EXPECT_EQ(checksum({0xff, 0xff, 0xff, 0xff, 0x00, 0x01}), 0xffff);
}

// FFFF + FFFF + 0002 = 20000, folded 0002.
TEST(IcmpChecksumTest, AddsTheCarriesOfTheSumBackIn) {
    EXPECT_EQ(checksum({0xff, 0xff, 0xff, 0xff, 0x00, 0x02}), 0xfffd);
}

// FFFE + FFFF + 0002 = 1FFFF: the order of the words does not matter.
TEST(IcmpChecksumTest, IsTheSameInAnyOrderOfTheWords) {
    EXPECT_EQ(checksum({0x00, 0x02, 0xff, 0xff, 0xff, 0xfe}), 0xffff);
    EXPECT_EQ(checksum({0xff, 0xfe, 0x00, 0x02, 0xff, 0xff}), 0xffff);
}

// 0102 + (0304 << 8) = 30502, folded 0505.  RFC 1071 pads with a zero byte: FBFD.
TEST(IcmpChecksumTest, OfAnOddLengthAddsTheLastByteAndTheNextShiftedByEight) {
    const Bytes bytes = {0x01, 0x02, 0x03, 0x04};
    EXPECT_EQ(icmpChecksum(bytes.data(), 3), 0xfafa);
}

// AB00 << 8 = AB0000, folded 00AB.
TEST(IcmpChecksumTest, OfAnOddLengthBeforeAZeroByte) {
    const Bytes bytes = {0xab, 0x00};
    EXPECT_EQ(icmpChecksum(bytes.data(), 1), 0xff54);
}

// ABCD << 8 = ABCD00, folded CD00 + AB = CDAB.
TEST(IcmpChecksumTest, OfOneByte) {
    const Bytes bytes = {0xab, 0xcd};
    EXPECT_EQ(icmpChecksum(bytes.data(), 1), 0x3254);
}

// FFFF + (FFFF << 8) = 100FEFF, folded FEFF + 100 = FFFF.
TEST(IcmpChecksumTest, OfAnOddLengthOfOnes) {
    const Bytes bytes = {0xff, 0xff, 0xff, 0xff};
    EXPECT_EQ(icmpChecksum(bytes.data(), 3), 0x0000);
}

// 7FFF times FFFF = 7FFE8001, folded 8001 + 7FFE = FFFF.
TEST(IcmpChecksumTest, OfTheGreatestEvenLength) { EXPECT_EQ(checksum(Bytes(65534, 0xff)), 0x0000); }

TEST(IcmpChecksumTest, OfAnEvenLengthReadsNoByteBehindTheMessage) {
    const GuardedBytes bytes({0x01, 0x02, 0x03, 0x04});
    EXPECT_EQ(icmpChecksum(bytes.data(), 4), 0xfbf9);
}

TEST(IcmpChecksumTest, OfAnOddLengthReadsOneByteBehindTheMessage) {
    const GuardedBytes bytes({0x01, 0x02, 0x03, 0x04});
    EXPECT_EQ(icmpChecksum(bytes.data(), 3), 0xfafa);
}

TEST(IcmpChecksumTest, TakesAMessageAtAnOddAddress) {
    alignas(4) const uint8_t bytes[] = {0xee, 0x01, 0x02, 0x03, 0x04};
    EXPECT_EQ(icmpChecksum(bytes + 1, 4), 0xfbf9);
}

class FlippedBitTest : public testing::TestWithParam<std::size_t> {};

TEST_P(FlippedBitTest, IsNoticed) {
    Bytes message = {0x03, 0x04, 0x00, 0x00, 0x00, 0x00, 0x05, 0xdc, 0x45, 0x00, 0x06, 0x2e};
    ASSERT_EQ(checksum(message), 0xabf1);  // 0304 + 05DC + 4500 + 062E = 540E
    message[GetParam() / 8] ^= static_cast<uint8_t>(0x80U >> GetParam() % 8);
    EXPECT_NE(checksum(message), 0xabf1);
}

INSTANTIATE_TEST_SUITE_P(EachBit, FlippedBitTest, testing::Range(std::size_t{0}, std::size_t{96}));

}  // namespace
