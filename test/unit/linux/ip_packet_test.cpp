// SPDX-License-Identifier: MIT
// What the platform reads of IP headers.
#include "ip_packet.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

using pmtud_linux::claimedSize;
using pmtud_linux::ipHeaderSize;
using pmtud_linux::ipVersion;
using pmtud_linux::quoteOf;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes filled(uint8_t first, size_t size) {
    Bytes bytes(size, 0xa5);
    bytes[0] = first;
    return bytes;
}

}  // namespace

TEST(IpPacket, HasItsVersionInTheFirstFourBits) {
    EXPECT_EQ(ipVersion({}), 0);
    EXPECT_EQ(ipVersion(Bytes{0x45}), 4);
    EXPECT_EQ(ipVersion(Bytes{0x6f}), 6);
    EXPECT_EQ(ipVersion(Bytes{0xf4}), 15);
}

TEST(IpPacket, OfIpv4HasAHeaderOfAsManyWordsAsItSays) {
    EXPECT_EQ(ipHeaderSize(filled(0x45, 60)), 20U);
    EXPECT_EQ(ipHeaderSize(filled(0x46, 60)), 24U);
    EXPECT_EQ(ipHeaderSize(filled(0x4f, 60)), 60U);
}

TEST(IpPacket, OfIpv4WithAHeaderOfLessThanFiveWordsHasNone) {
    EXPECT_EQ(ipHeaderSize(filled(0x44, 60)), 0U);
    EXPECT_EQ(ipHeaderSize(filled(0x40, 60)), 0U);
}

TEST(IpPacket, OfIpv6HasAHeaderOf40Bytes) {
    EXPECT_EQ(ipHeaderSize(filled(0x60, 100)), 40U);
    EXPECT_EQ(ipHeaderSize(filled(0x6f, 40)), 40U);
}

TEST(IpPacket, WithoutItsWholeHeaderHasNone) {
    EXPECT_EQ(ipHeaderSize({}), 0U);
    EXPECT_EQ(ipHeaderSize(filled(0x45, 19)), 0U);
    EXPECT_EQ(ipHeaderSize(filled(0x45, 20)), 20U);
    EXPECT_EQ(ipHeaderSize(filled(0x4f, 59)), 0U);
    EXPECT_EQ(ipHeaderSize(filled(0x60, 39)), 0U);
}

TEST(IpPacket, OfAnotherVersionHasNoHeader) {
    for (const uint8_t first : Bytes{0x05, 0x15, 0x55, 0x75, 0xf5})
        EXPECT_EQ(ipHeaderSize(filled(first, 100)), 0U) << +first;
}

TEST(IpPacket, ClaimsItsTotalLengthOrItsPayloadLengthAndHeader) {
    Bytes ipv4 = filled(0x45, 20);
    ipv4[2] = 0x05;
    ipv4[3] = 0x78;
    EXPECT_EQ(claimedSize(ipv4), 1400U);
    Bytes ipv6 = filled(0x60, 40);
    ipv6[4] = 0x05;
    ipv6[5] = 0x50;
    EXPECT_EQ(claimedSize(ipv6), 1400U);
    ipv6[4] = ipv6[5] = 0xff;
    EXPECT_EQ(claimedSize(ipv6), 65575U);
}

TEST(IpPacket, QuotedByAnErrorFollowsTheEightBytesAfterTheHeader) {
    Bytes plain = filled(0x45, 31);
    plain[27] = 0xee;
    plain[28] = 1;
    plain[29] = 2;
    plain[30] = 3;
    EXPECT_THAT(quoteOf(plain), ElementsAre(1, 2, 3));
    Bytes withOptions = filled(0x46, 34);
    withOptions[31] = 0xee;
    withOptions[32] = 1;
    withOptions[33] = 2;
    EXPECT_THAT(quoteOf(withOptions), ElementsAre(1, 2));
    Bytes ipv6 = filled(0x60, 49);
    ipv6[47] = 0xee;
    ipv6[48] = 1;
    EXPECT_THAT(quoteOf(ipv6), ElementsAre(1));
}

TEST(IpPacket, QuotedByAnErrorThatEndsTooEarlyIsEmpty) {
    EXPECT_THAT(quoteOf({}), IsEmpty());
    EXPECT_THAT(quoteOf(filled(0x45, 19)), IsEmpty());
    EXPECT_THAT(quoteOf(filled(0x45, 27)), IsEmpty());
    EXPECT_THAT(quoteOf(filled(0x45, 28)), IsEmpty());
    EXPECT_THAT(quoteOf(filled(0x44, 60)), IsEmpty());
    EXPECT_THAT(quoteOf(filled(0x60, 47)), IsEmpty());
}
