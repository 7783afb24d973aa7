// SPDX-License-Identifier: MIT
// The view of an Ethernet header with one tag: every field against literal bytes.
#include "EthVlanHeader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <type_traits>

namespace {

using Bytes = std::array<uint8_t, 18>;

constexpr Bytes kHeader = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0x60, 0x71, 0x82,
                           0x93, 0xa4, 0xb5, 0x81, 0x00, 0xb1, 0x23, 0x86, 0xdd};

Bytes withTci(uint8_t high, uint8_t low) {
    Bytes bytes = kHeader;
    bytes[14] = high;
    bytes[15] = low;
    return bytes;
}

TEST(EthVlanHeader, PointsBackToItsFirstByte) {
    EXPECT_EQ(EthVlanHeader(kHeader.data()).data(), kHeader.data());
}

TEST(EthVlanHeader, IsAlwaysEighteenBytesLong) {
    Bytes untagged = kHeader;
    untagged[12] = 0x08;
    EXPECT_EQ(EthVlanHeader(kHeader.data()).size(), 18U);
    EXPECT_EQ(EthVlanHeader(untagged.data()).size(), 18U);
}

TEST(EthVlanHeader, PayloadBeginsEighteenBytesBehindItsFirst) {
    EXPECT_EQ(EthVlanHeader(kHeader.data()).payload(), kHeader.data() + 18);
}

TEST(EthVlanHeader, DestinationIsAPointerToBytes0To5) {
    EXPECT_EQ(static_cast<const void*>(EthVlanHeader(kHeader.data()).dest()), kHeader.data());
    const ether_addr expected = {{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}};
    EXPECT_EQ(memcmp(EthVlanHeader(kHeader.data()).dest(), &expected, 6), 0);
}

TEST(EthVlanHeader, SourceIsAPointerToBytes6To11) {
    EXPECT_EQ(static_cast<const void*>(EthVlanHeader(kHeader.data()).source()), &kHeader[6]);
    const ether_addr expected = {{0x60, 0x71, 0x82, 0x93, 0xa4, 0xb5}};
    EXPECT_EQ(memcmp(EthVlanHeader(kHeader.data()).source(), &expected, 6), 0);
}

TEST(EthVlanHeader, TpidIsBytes12And13BigEndian) {
    EXPECT_EQ(EthVlanHeader(kHeader.data()).vlan_tpid(), 0x8100);
}

TEST(EthVlanHeader, TciIsBytes14And15BigEndian) {
    EXPECT_EQ(EthVlanHeader(kHeader.data()).vlan_tci(), 0xB123);
}

TEST(EthVlanHeader, ProtoIsBytes16And17BigEndian) {
    EXPECT_EQ(EthVlanHeader(kHeader.data()).proto(), 0x86DD);
}

TEST(EthVlanHeader, SplitsATagIntoPriorityDropEligibilityAndVlan) {
    const EthVlanHeader header(kHeader.data());
    EXPECT_EQ(header.vlan_pcp(), 5);
    EXPECT_TRUE(header.vlan_dei());
    EXPECT_EQ(header.vlan_id(), 0x123);
}

TEST(EthVlanHeader, TagOfAllOnesYieldsTheLargestOfEach) {
    const Bytes bytes = withTci(0xFF, 0xFF);
    const EthVlanHeader header(bytes.data());
    EXPECT_EQ(header.vlan_pcp(), 7);
    EXPECT_TRUE(header.vlan_dei());
    EXPECT_EQ(header.vlan_id(), 4095);
}

TEST(EthVlanHeader, Tag0x1000IsDropEligibilityAlone) {
    const Bytes bytes = withTci(0x10, 0x00);
    const EthVlanHeader header(bytes.data());
    EXPECT_EQ(header.vlan_pcp(), 0);
    EXPECT_TRUE(header.vlan_dei());
    EXPECT_EQ(header.vlan_id(), 0);
}

TEST(EthVlanHeader, Tag0xEFFFIsAllButDropEligibility) {
    const Bytes bytes = withTci(0xEF, 0xFF);
    const EthVlanHeader header(bytes.data());
    EXPECT_EQ(header.vlan_pcp(), 7);
    EXPECT_FALSE(header.vlan_dei());
    EXPECT_EQ(header.vlan_id(), 4095);
}

TEST(EthVlanHeader, MayStandAtAnOddAddress) {
    alignas(8) std::array<uint8_t, 19> buffer{};
    std::copy(kHeader.begin(), kHeader.end(), buffer.begin() + 1);
    const EthVlanHeader header(buffer.data() + 1);
    EXPECT_EQ(static_cast<const void*>(header.dest()), &buffer[1]);
    EXPECT_EQ(static_cast<const void*>(header.source()), &buffer[7]);
    EXPECT_EQ(header.source()->ether_addr_octet[5], 0xb5);
    EXPECT_EQ(header.vlan_tpid(), 0x8100);
    EXPECT_EQ(header.vlan_tci(), 0xB123);
    EXPECT_EQ(header.vlan_pcp(), 5);
    EXPECT_TRUE(header.vlan_dei());
    EXPECT_EQ(header.vlan_id(), 0x123);
    EXPECT_EQ(header.proto(), 0x86DD);
    EXPECT_EQ(header.payload(), buffer.data() + 19);
}

TEST(EthVlanHeader, YieldsFieldsOfTheWidthsThatItNames) {
    const EthVlanHeader header(kHeader.data());
    EXPECT_TRUE((std::is_same_v<decltype(header.dest()), const ether_addr*>));
    EXPECT_TRUE((std::is_same_v<decltype(header.source()), const ether_addr*>));
    EXPECT_TRUE((std::is_same_v<decltype(header.vlan_tpid()), uint16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.vlan_tci()), uint16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.vlan_pcp()), uint16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.vlan_dei()), bool>));
    EXPECT_TRUE((std::is_same_v<decltype(header.vlan_id()), uint16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.proto()), uint16_t>));
}

TEST(EthVlanHeader, HoldsAPointerAndNothingElse) {
    EXPECT_EQ(sizeof(EthVlanHeader), sizeof(const uint8_t*));
    EXPECT_TRUE(std::is_trivially_copyable_v<EthVlanHeader>);
}

TEST(EthVlanHeader, GivesItsBytesForReadingOnly) {
    EXPECT_TRUE((std::is_same_v<decltype(EthVlanHeader(nullptr).data()), const uint8_t*>));
    EXPECT_TRUE((std::is_same_v<decltype(EthVlanHeader(nullptr).payload()), const uint8_t*>));
}

TEST(EthVlanHeader, SeesWhatTheBufferHoldsWhenItIsRead) {
    Bytes bytes = kHeader;
    const EthVlanHeader header(bytes.data());
    bytes[16] = 0x08;
    bytes[17] = 0x00;
    EXPECT_EQ(header.proto(), 0x0800);
}

/// A view reads a field and nothing else: the caller answers for the buffer's length.
TEST(EthVlanHeader, DoesNotNoticeABufferThatEndsBehindTheFieldRead) {
    const std::array<uint8_t, 14> shortFrame = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x08, 0x06};
    EXPECT_EQ(EthVlanHeader(shortFrame.data()).vlan_tpid(), 0x0806);
}

}  // namespace
