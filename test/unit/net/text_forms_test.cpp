// SPDX-License-Identifier: MIT
// The small text forms that log messages share.
#include <gtest/gtest.h>

#include <array>
#include <sstream>

#include "dumps.h"

namespace {

constexpr ether_addr kAddress = {{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}};

TEST(DecHex, IsDecimalAndPrefixedHexadecimalInBrackets) { EXPECT_EQ(decHex(69), "69 [0x45]"); }

TEST(DecHex, HasNoPrefixForZero) { EXPECT_EQ(decHex(0), "0 [0]"); }

TEST(DecHex, BeginsHexadecimalLettersAtTen) {
    EXPECT_EQ(decHex(9), "9 [0x9]");
    EXPECT_EQ(decHex(10), "10 [0xa]");
}

TEST(DecHex, WritesLowerCaseDigits) { EXPECT_EQ(decHex(48879), "48879 [0xbeef]"); }

TEST(DecHex, WritesANegativeNumberAsItsThirtyTwoBits) {
    EXPECT_EQ(decHex(-1), "-1 [0xffffffff]");
    EXPECT_EQ(decHex(-2147483647 - 1), "-2147483648 [0x80000000]");
}

TEST(DecHex, WritesTheLargestNumber) { EXPECT_EQ(decHex(2147483647), "2147483647 [0x7fffffff]"); }

constexpr std::array<uint8_t, 3> kBytes = {0x00, 0x0A, 0xFF};

TEST(HexDump, IsTwoDigitsAByteWithoutATrailingBlank) {
    EXPECT_EQ(hexDump(kBytes.data(), 3), "00 0a ff");
}

constexpr std::array<uint8_t, 9> kEveryDigit = {0x10, 0x23, 0x45, 0x67, 0x89,
                                                0xab, 0xcd, 0xef, 0x01};

TEST(HexDump, WritesEveryDigitInLowerCase) {
    EXPECT_EQ(hexDump(kEveryDigit.data(), 9), "10 23 45 67 89 ab cd ef 01");
}

TEST(HexDump, OfOneByteHasNoBlank) { EXPECT_EQ(hexDump(kBytes.data(), 1), "00"); }

TEST(HexDump, OfNoBytesIsEmpty) { EXPECT_EQ(hexDump(kBytes.data(), 0), ""); }

TEST(ByteDump, HasNoLeadingZerosAndNoTrailingBlank) {
    EXPECT_EQ(byteDump(kBytes.data(), 3), "0 a ff");
}

TEST(ByteDump, KeepsAZeroThatIsNotLeading) {
    constexpr std::array<uint8_t, 2> kPair = {0x10, 0xF0};
    EXPECT_EQ(byteDump(kPair.data(), 2), "10 f0");
}

TEST(ByteDump, WritesEveryDigitInLowerCase) {
    EXPECT_EQ(byteDump(kEveryDigit.data(), 9), "10 23 45 67 89 ab cd ef 1");
}

TEST(ByteDump, OfOneByteHasNoBlank) { EXPECT_EQ(byteDump(kBytes.data(), 1), "0"); }

TEST(ByteDump, WritesFifteenAsOneDigitAndSixteenAsTwo) {
    constexpr std::array<uint8_t, 2> kPair = {0x0F, 0x10};
    EXPECT_EQ(byteDump(kPair.data(), 2), "f 10");
}

TEST(ByteDump, OfNoBytesIsEmpty) { EXPECT_EQ(byteDump(kBytes.data(), 0), ""); }

TEST(MacToString, IsTwoDigitsAByteJoinedByColons) {
    EXPECT_EQ(macToString(kAddress), "00:1a:2b:3c:4d:5e");
}

TEST(MacToString, WritesAllOnesInLowerCase) {
    EXPECT_EQ(macToString({{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}), "ff:ff:ff:ff:ff:ff");
}

TEST(EthernetAddressInsertion, LeavesOutLeadingZerosUnlikeMacToString) {
    std::ostringstream os;
    os << kAddress;
    EXPECT_EQ(os.str(), "0:1a:2b:3c:4d:5e");
}

TEST(EthernetAddressInsertion, WritesAllOnesWhole) {
    std::ostringstream os;
    os << ether_addr{{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}};
    EXPECT_EQ(os.str(), "ff:ff:ff:ff:ff:ff");
}

TEST(EthernetAddressInsertion, ReturnsTheStream) {
    std::ostringstream os;
    EXPECT_EQ(&(os << kAddress), &os);
}

}  // namespace
