// SPDX-License-Identifier: MIT
// The view of an IPv6 header: every field against literal bytes.
#include "Ipv6Header.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <type_traits>

namespace {

using Bytes = std::array<uint8_t, 40>;

constexpr Bytes kHeader = {0x6A, 0xBC, 0xDE, 0xF1, 0x05, 0xb4, 0x06, 0x3f,  //
                           0x20, 0x01, 0x0d, 0xb8, 0,    0,    0,    0,     //
                           0,    0,    0,    0,    0,    0,    0,    1,     //
                           0xfe, 0x80, 0,    0,    0,    0,    0,    0,     //
                           0,    0,    0,    0,    0,    0,    0xab, 0xcd};

Bytes withPayloadLength(uint8_t high, uint8_t low) {
    Bytes bytes = kHeader;
    bytes[4] = high;
    bytes[5] = low;
    return bytes;
}

TEST(Ipv6Header, PointsBackToItsFirstByte) {
    EXPECT_EQ(Ipv6Header(kHeader.data()).data(), kHeader.data());
}

TEST(Ipv6Header, FirstWordIsVersionAndFlowLabelAndNoTrafficClass) {
    const Ipv6Header header(kHeader.data());
    EXPECT_EQ(header.version(), 6);
    EXPECT_EQ(header.trafficClass(), 0);
    EXPECT_EQ(header.flowLabel(), 0xCDEF1U);
}

TEST(Ipv6Header, PayloadLengthIsBytes4And5) {
    EXPECT_EQ(Ipv6Header(kHeader.data()).payloadLength(), 1460);
}

TEST(Ipv6Header, NextHeaderIsByte6) { EXPECT_EQ(Ipv6Header(kHeader.data()).nextHeader(), 6); }

TEST(Ipv6Header, HopLimitIsByte7) { EXPECT_EQ(Ipv6Header(kHeader.data()).hopLimit(), 63); }

TEST(Ipv6Header, SourceIsBytes8To23InWireOrder) {
    EXPECT_EQ(Ipv6Header(kHeader.data()).src().to_string(), "2001:db8::1");
}

TEST(Ipv6Header, DestinationIsBytes24To39WithoutAScope) {
    EXPECT_EQ(Ipv6Header(kHeader.data()).dst().to_string(), "fe80::abcd");
    EXPECT_EQ(Ipv6Header(kHeader.data()).dst().scope_id(), 0U);
}

TEST(Ipv6Header, TotalLengthIsThePayloadsAndForty) {
    EXPECT_EQ(Ipv6Header(kHeader.data()).totalLength(), 1500U);
}

TEST(Ipv6Header, PayloadLengthOf0GivesATotalLengthOf40) {
    EXPECT_EQ(Ipv6Header(withPayloadLength(0, 0).data()).totalLength(), 40U);
}

TEST(Ipv6Header, PayloadLengthOf65535GivesATotalLengthOf65575) {
    EXPECT_EQ(Ipv6Header(withPayloadLength(0xFF, 0xFF).data()).totalLength(), 65575U);
}

TEST(Ipv6Header, MayStandAtAnOddAddress) {
    alignas(8) std::array<uint8_t, 41> buffer{};
    std::copy(kHeader.begin(), kHeader.end(), buffer.begin() + 1);
    const Ipv6Header header(buffer.data() + 1);
    EXPECT_EQ(header.version(), 6);
    EXPECT_EQ(header.trafficClass(), 0);
    EXPECT_EQ(header.flowLabel(), 0xCDEF1U);
    EXPECT_EQ(header.payloadLength(), 1460);
    EXPECT_EQ(header.nextHeader(), 6);
    EXPECT_EQ(header.hopLimit(), 63);
    EXPECT_EQ(header.src().to_string(), "2001:db8::1");
    EXPECT_EQ(header.dst().to_string(), "fe80::abcd");
    EXPECT_EQ(header.totalLength(), 1500U);
}

TEST(Ipv6Header, FieldsOfAllOnesAreTheLargestAndTrafficClassStays0) {
    Bytes bytes;
    bytes.fill(0xFF);
    const Ipv6Header header(bytes.data());
    EXPECT_EQ(header.version(), 15);
    EXPECT_EQ(header.trafficClass(), 0);
    EXPECT_EQ(header.flowLabel(), 0xFFFFFU);
    EXPECT_EQ(header.payloadLength(), 65535);
    EXPECT_EQ(header.nextHeader(), 255);
    EXPECT_EQ(header.hopLimit(), 255);
    EXPECT_EQ(header.src().to_string(), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    EXPECT_EQ(header.dst().to_string(), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
}

TEST(Ipv6Header, SourceHasNoScope) {
    Bytes linkLocal = kHeader;
    linkLocal[8] = 0xfe;
    linkLocal[9] = 0x80;
    EXPECT_EQ(Ipv6Header(linkLocal.data()).src().scope_id(), 0U);
}

TEST(Ipv6Header, YieldsFieldsOfTheWidthsThatItNames) {
    const Ipv6Header header(kHeader.data());
    EXPECT_TRUE((std::is_same_v<decltype(header.version()), uint8_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.trafficClass()), uint8_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.flowLabel()), uint32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.payloadLength()), uint16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.nextHeader()), uint8_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.hopLimit()), uint8_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.src()), boost::asio::ip::address_v6>));
    EXPECT_TRUE((std::is_same_v<decltype(header.dst()), boost::asio::ip::address_v6>));
    EXPECT_TRUE((std::is_same_v<decltype(header.totalLength()), uint32_t>));
}

TEST(Ipv6Header, HoldsAPointerAndNothingElse) {
    EXPECT_EQ(sizeof(Ipv6Header), sizeof(const uint8_t*));
    EXPECT_TRUE(std::is_trivially_copyable_v<Ipv6Header>);
}

TEST(Ipv6Header, GivesItsBytesForReadingOnly) {
    EXPECT_TRUE((std::is_same_v<decltype(Ipv6Header(nullptr).data()), const uint8_t*>));
}

/// A view reads a field and nothing else: the caller answers for the buffer's length.
TEST(Ipv6Header, DoesNotNoticeABufferThatEndsBehindTheFieldRead) {
    const std::array<uint8_t, 6> bytes = {0x60, 0, 0, 0, 0x05, 0xb4};
    EXPECT_EQ(Ipv6Header(bytes.data()).totalLength(), 1500U);
}

}  // namespace
