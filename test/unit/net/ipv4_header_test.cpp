// SPDX-License-Identifier: MIT
// The view of an IPv4 header: every field against literal bytes.
#include "Ipv4Header.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <type_traits>

namespace {

using Bytes = std::array<uint8_t, 20>;

constexpr Bytes kHeader = {0x4f, 0xb8, 0x05, 0xdc, 0x12, 0x34, 0x5f, 0xfe, 0x3f, 0x11,
                           0xbe, 0xef, 0xc0, 0x00, 0x02, 0x01, 0xcb, 0x00, 0x71, 0x09};

Bytes with(std::size_t offset, std::initializer_list<uint8_t> changed) {
    Bytes bytes = kHeader;
    std::copy(changed.begin(), changed.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    return bytes;
}

TEST(Ipv4Header, PointsBackToItsFirstByte) {
    EXPECT_EQ(Ipv4Header(kHeader.data()).data(), kHeader.data());
}

TEST(Ipv4Header, SizeIsTheLargestHeaderWhateverTheIhl) {
    EXPECT_EQ(Ipv4Header(with(0, {0x45}).data()).size(), 60U);
    EXPECT_EQ(Ipv4Header(with(0, {0x4F}).data()).size(), 60U);
}

TEST(Ipv4Header, FirstByte0x45IsVersion4AndTwentyBytes) {
    const Bytes bytes = with(0, {0x45});
    const Ipv4Header header(bytes.data());
    EXPECT_EQ(header.version(), 4);
    EXPECT_EQ(header.ihlRaw(), 5);
    EXPECT_EQ(header.ihl(), 20U);
}

TEST(Ipv4Header, FirstByte0x4FIsSixtyBytes) {
    EXPECT_EQ(Ipv4Header(kHeader.data()).ihlRaw(), 15);
    EXPECT_EQ(Ipv4Header(kHeader.data()).ihl(), 60U);
}

TEST(Ipv4Header, VersionIsTheUpperHalfOfTheFirstByte) {
    EXPECT_EQ(Ipv4Header(with(0, {0xF5}).data()).version(), 15);
}

TEST(Ipv4Header, TosIsByte1AsItStands) { EXPECT_EQ(Ipv4Header(kHeader.data()).tos(), 0xb8); }

TEST(Ipv4Header, TotalLengthIsBytes2And3) {
    EXPECT_EQ(Ipv4Header(kHeader.data()).totalLength(), 1500);
}

TEST(Ipv4Header, IdIsBytes4And5) { EXPECT_EQ(Ipv4Header(kHeader.data()).id(), 0x1234); }

TEST(Ipv4Header, Flags0x40IsDontFragmentAlone) {
    const Bytes bytes = with(6, {0x40});
    const Ipv4Header header(bytes.data());
    EXPECT_EQ(header.flags(), 2);
    EXPECT_EQ(header.df(), 1);
    EXPECT_EQ(header.mf(), 0);
}

TEST(Ipv4Header, Flags0x20IsMoreFragmentsAlone) {
    const Bytes bytes = with(6, {0x20});
    const Ipv4Header header(bytes.data());
    EXPECT_EQ(header.flags(), 1);
    EXPECT_EQ(header.df(), 0);
    EXPECT_EQ(header.mf(), 1);
}

TEST(Ipv4Header, Flags0xE0IncludeTheReservedBit) {
    const Bytes bytes = with(6, {0xE0});
    const Ipv4Header header(bytes.data());
    EXPECT_EQ(header.flags(), 7);
    EXPECT_EQ(header.df(), 1);
    EXPECT_EQ(header.mf(), 1);
}

TEST(Ipv4Header, FragmentOffsetIsThirteenBitsAndNotMultiplied) {
    EXPECT_EQ(Ipv4Header(with(6, {0x3F, 0xFF}).data()).fragmentOffset(), 8191);
    EXPECT_EQ(Ipv4Header(with(6, {0xE0, 0x01}).data()).fragmentOffset(), 1);
}

TEST(Ipv4Header, TtlIsByte8) { EXPECT_EQ(Ipv4Header(kHeader.data()).ttl(), 0x3f); }

TEST(Ipv4Header, ProtocolIsByte9) { EXPECT_EQ(Ipv4Header(kHeader.data()).protocol(), 17); }

TEST(Ipv4Header, ChecksumIsBytes10And11UnverifiedAsANumber) {
    EXPECT_EQ(Ipv4Header(kHeader.data()).checksum(), 0xbeef);
}

TEST(Ipv4Header, SourceIsBytes12To15InWireOrder) {
    EXPECT_EQ(Ipv4Header(kHeader.data()).src().to_string(), "192.0.2.1");
}

TEST(Ipv4Header, DestinationIsBytes16To19InWireOrder) {
    EXPECT_EQ(Ipv4Header(kHeader.data()).dst().to_string(), "203.0.113.9");
}

TEST(Ipv4Header, MayStandAtAnOddAddress) {
    alignas(8) std::array<uint8_t, 21> buffer{};
    std::copy(kHeader.begin(), kHeader.end(), buffer.begin() + 1);
    const Ipv4Header header(buffer.data() + 1);
    EXPECT_EQ(header.version(), 4);
    EXPECT_EQ(header.ihlRaw(), 15);
    EXPECT_EQ(header.ihl(), 60U);
    EXPECT_EQ(header.tos(), 0xb8);
    EXPECT_EQ(header.totalLength(), 1500);
    EXPECT_EQ(header.id(), 0x1234);
    EXPECT_EQ(header.flags(), 2);
    EXPECT_EQ(header.df(), 1);
    EXPECT_EQ(header.mf(), 0);
    EXPECT_EQ(header.fragmentOffset(), 0x1ffe);
    EXPECT_EQ(header.ttl(), 63);
    EXPECT_EQ(header.protocol(), 17);
    EXPECT_EQ(header.checksum(), 0xbeef);
    EXPECT_EQ(header.src().to_string(), "192.0.2.1");
    EXPECT_EQ(header.dst().to_string(), "203.0.113.9");
}

TEST(Ipv4Header, FirstByte0x40IsNoBytes) {
    const Bytes bytes = with(0, {0x40});
    const Ipv4Header header(bytes.data());
    EXPECT_EQ(header.version(), 4);
    EXPECT_EQ(header.ihlRaw(), 0);
    EXPECT_EQ(header.ihl(), 0U);
}

TEST(Ipv4Header, Flags0x80IsTheReservedBitAlone) {
    const Bytes bytes = with(6, {0x80});
    const Ipv4Header header(bytes.data());
    EXPECT_EQ(header.flags(), 4);
    EXPECT_EQ(header.df(), 0);
    EXPECT_EQ(header.mf(), 0);
}

TEST(Ipv4Header, Flags0x1FAreTheOffsetsBitsAndNoFlag) {
    const Bytes bytes = with(6, {0x1F});
    const Ipv4Header header(bytes.data());
    EXPECT_EQ(header.flags(), 0);
    EXPECT_EQ(header.df(), 0);
    EXPECT_EQ(header.mf(), 0);
}

TEST(Ipv4Header, NumbersOfAllOnesAreTheLargest) {
    Bytes bytes;
    bytes.fill(0xFF);
    const Ipv4Header header(bytes.data());
    EXPECT_EQ(header.tos(), 255);
    EXPECT_EQ(header.totalLength(), 65535);
    EXPECT_EQ(header.id(), 65535);
    EXPECT_EQ(header.ttl(), 255);
    EXPECT_EQ(header.protocol(), 255);
    EXPECT_EQ(header.checksum(), 65535);
    EXPECT_EQ(header.src().to_string(), "255.255.255.255");
    EXPECT_EQ(header.dst().to_string(), "255.255.255.255");
}

TEST(Ipv4Header, YieldsFieldsOfTheWidthsThatItNames) {
    const Ipv4Header header(kHeader.data());
    EXPECT_TRUE((std::is_same_v<decltype(header.version()), uint8_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.ihlRaw()), uint8_t>));
    EXPECT_TRUE((std::is_unsigned_v<decltype(header.ihl())>));
    EXPECT_TRUE((std::is_same_v<decltype(header.tos()), uint8_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.totalLength()), uint16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.id()), uint16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.flags()), uint8_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.fragmentOffset()), uint16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.ttl()), uint8_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.protocol()), uint8_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.checksum()), uint16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(header.src()), boost::asio::ip::address_v4>));
    EXPECT_TRUE((std::is_same_v<decltype(header.dst()), boost::asio::ip::address_v4>));
}

TEST(Ipv4Header, HoldsAPointerAndNothingElse) {
    EXPECT_EQ(sizeof(Ipv4Header), sizeof(const uint8_t*));
    EXPECT_TRUE(std::is_trivially_copyable_v<Ipv4Header>);
}

TEST(Ipv4Header, GivesItsBytesForReadingOnly) {
    EXPECT_TRUE((std::is_same_v<decltype(Ipv4Header(nullptr).data()), const uint8_t*>));
}

/// A view reads a field and nothing else: the caller answers for the buffer's length.
TEST(Ipv4Header, DoesNotNoticeABufferThatEndsBehindTheFieldRead) {
    const std::array<uint8_t, 1> bytes = {0x45};
    EXPECT_EQ(Ipv4Header(bytes.data()).version(), 4);
}

}  // namespace
