// SPDX-License-Identifier: MIT
// Fields of IP headers, and the copy that a quote belongs to.
#include "copies.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ip_packet.h"
#include "messages.h"

using pmtud_linux::claimedSize;
using pmtud_linux::Copies;
using pmtud_linux::Copy;
using pmtud_linux::ipHeaderSize;
using pmtud_linux::ipVersion;
using pmtud_linux::LogMessage;
using pmtud_linux::quoteOf;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

const Bytes kLinkHeader = {0x02, 0, 0, 0, 0x10, 0x01, 0x02, 0, 0, 0, 0x10, 0x02, 0x08, 0x00};

// IPv4 with 28 bytes: no two bytes are alike.
const Bytes kIpv4 = {0x45, 0x01, 0x00, 0x1c, 0x12, 0x34, 0x40, 0x02, 0x3f, 0x11,
                     0xfd, 0x9a, 0x0a, 0x03, 0x0b, 0x04, 0x0c, 0x05, 0x14, 0x06,
                     0xde, 0xad, 0xbe, 0xef, 0x21, 0x22, 0x23, 0x24};

// The same with four bytes of options.
const Bytes kWithOptions = {0x46, 0x01, 0x00, 0x20, 0x12, 0x34, 0x40, 0x02, 0x3f, 0x11, 0xfd,
                            0x9a, 0x0a, 0x03, 0x0b, 0x04, 0x0c, 0x05, 0x14, 0x06, 0x07, 0x08,
                            0x09, 0x00, 0xde, 0xad, 0xbe, 0xef, 0x21, 0x22, 0x23, 0x24};

// IPv6 with 48 bytes.
const Bytes kIpv6 = {0x60, 0x01, 0x02, 0x03, 0x00, 0x08, 0x11, 0x40, 0xfd, 0x04, 0x05, 0x10,
                     0x07, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f, 0x12, 0x13, 0x14, 0x15,
                     0xfe, 0x16, 0x17, 0x20, 0x18, 0x19, 0x1a, 0x1b, 0x1c, 0x1d, 0x1e, 0x1f,
                     0x21, 0x22, 0x23, 0x24, 0xde, 0xad, 0xbe, 0xef, 0x31, 0x32, 0x33, 0x34};

LogMessage logged(const Bytes& packet, uint32_t ingress = 5) {
    LogMessage message;
    message.ingress = ingress;
    message.linkHeader = kLinkHeader;
    message.payload = packet;
    return message;
}

Bytes first(const Bytes& bytes, size_t size) { return cut(bytes, 0, size); }

// Identified by its identification field.
Bytes numbered(uint16_t number) {
    Bytes bytes = kIpv4;
    put16(bytes, 4, number);
    return bytes;
}

// An IPv4 packet whose header claims one size, of which `copied` bytes were copied.
Bytes sized(size_t claimed, size_t copied) {
    Bytes bytes = kIpv4;
    put16(bytes, 2, claimed);
    bytes.resize(copied, 0xa5);
    return bytes;
}

bool matches(const Bytes& packet, const Bytes& quote) {
    Copies copies;
    EXPECT_TRUE(copies.keep(logged(packet), 20));
    return copies.take(quote) != nullptr;
}

Bytes filled(uint8_t firstByte, size_t size) {
    Bytes bytes(size, 0xa5);
    bytes[0] = firstByte;
    return bytes;
}

}  // namespace

TEST(IpPacket, HasItsVersionInTheFirstFourBits) {
    EXPECT_EQ(ipVersion({}), 0);
    EXPECT_EQ(ipVersion(Bytes{0x45}), 4);
    EXPECT_EQ(ipVersion(Bytes{0x6f}), 6);
    EXPECT_EQ(ipVersion(Bytes{0xf4}), 15);
}

TEST(IpPacket, HasAWholeHeaderOfTheSizeThatItsVersionAndLengthName) {
    struct {
        uint8_t first;
        size_t size;
        size_t header;
    } const cases[] = {{0x45, 20, 20}, {0x45, 60, 20}, {0x46, 60, 24}, {0x4f, 60, 60},
                       {0x60, 40, 40}, {0x6f, 99, 40}, {0x45, 19, 0},  {0x4f, 59, 0},
                       {0x60, 39, 0},  {0x44, 60, 0},  {0x40, 60, 0},  {0x05, 99, 0},
                       {0x15, 99, 0},  {0x55, 99, 0},  {0x75, 99, 0},  {0xf5, 99, 0}};
    for (const auto& one : cases)
        EXPECT_EQ(ipHeaderSize(filled(one.first, one.size)), one.header) << +one.first;
    EXPECT_EQ(ipHeaderSize({}), 0U);
}

TEST(IpPacket, ClaimsItsTotalLengthOrItsPayloadLengthAndHeader) {
    EXPECT_EQ(claimedSize(sized(1400, 28)), 1400U);
    Bytes ipv6 = kIpv6;
    put16(ipv6, 4, 1360);
    EXPECT_EQ(claimedSize(ipv6), 1400U);
    put16(ipv6, 4, 65535);
    EXPECT_EQ(claimedSize(ipv6), 65575U);
}

TEST(IpPacket, QuotedByAnErrorFollowsTheEightBytesAfterTheHeader) {
    for (const auto& [firstByte, size] :
         std::vector<std::pair<uint8_t, size_t>>{{0x45, 28}, {0x46, 32}, {0x60, 48}}) {
        EXPECT_THAT(quoteOf(filled(firstByte, size) + Bytes{1, 2, 3}), ElementsAre(1, 2, 3));
        EXPECT_THAT(quoteOf(filled(firstByte, size)), IsEmpty());
        EXPECT_THAT(quoteOf(filled(firstByte, size - 1)), IsEmpty());
    }
    EXPECT_THAT(quoteOf({}), IsEmpty());
    EXPECT_THAT(quoteOf(filled(0x45, 19)), IsEmpty());
    EXPECT_THAT(quoteOf(filled(0x44, 60)), IsEmpty());
}

TEST(TooBig, NamesAnMtuOf16BitsInIpv4AndOf32BitsInIpv6) {
    EXPECT_EQ(pmtud_linux::mtuNamedBy(Bytes{0x45} + Bytes(19) + Bytes{3, 4, 0, 0, 1, 2, 5, 120}),
              1400U);
    EXPECT_EQ(pmtud_linux::mtuNamedBy(Bytes{0x60} + Bytes(39) + Bytes{2, 0, 0, 0, 1, 2, 5, 120}),
              16909688U);
}

TEST(Copies, AreReturnedOnceAsTheyWereKept) {
    Copies copies;
    EXPECT_EQ(copies.take(kIpv4), nullptr);
    EXPECT_EQ(copies.take(Bytes(40, 0x60)), nullptr);
    ASSERT_TRUE(copies.keep(logged(kIpv4), 20));
    const Copy* const copy = copies.take(kIpv4);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->ingress, 5U);
    EXPECT_EQ(copy->egressVlan, 20);
    EXPECT_THAT(copy->addresses, ElementsAre(2, 0, 0, 0, 0x10, 1, 2, 0, 0, 0, 0x10, 2));
    EXPECT_THAT(copy->packet(), ElementsAreArray(kIpv4));
    EXPECT_EQ(copy->packetSize(), 28U);
    EXPECT_EQ(copies.take(kIpv4), nullptr);
}

TEST(Copies, OfEqualPacketsAreTakenNewestFirst) {
    Copies copies;
    for (const int vlan : {20, 30, 40}) ASSERT_TRUE(copies.keep(logged(kIpv4), vlan));
    ASSERT_TRUE(copies.keep(logged(numbered(1)), 50));
    ASSERT_TRUE(copies.keep(logged(kIpv6), 60));
    for (const int vlan : {40, 30, 20}) {
        const Copy* const copy = copies.take(kIpv4);
        ASSERT_NE(copy, nullptr);
        EXPECT_EQ(copy->egressVlan, vlan);
    }
    EXPECT_EQ(copies.take(kIpv4), nullptr);
}

TEST(Copies, ForgetTheOldestOf129) {
    Copies copies;
    for (uint16_t number = 0; number < 129; ++number)
        ASSERT_TRUE(copies.keep(logged(numbered(number)), 20));
    EXPECT_EQ(copies.take(numbered(0)), nullptr);
    EXPECT_NE(copies.take(numbered(1)), nullptr);
    EXPECT_NE(copies.take(numbered(128)), nullptr);
}

TEST(Copies, AreComparedAsFarAsTheShorterGoes) {
    EXPECT_TRUE(matches(kIpv4, first(kIpv4, 24)));
    EXPECT_TRUE(matches(kIpv4, first(kIpv4, 20)));
    EXPECT_TRUE(matches(kIpv6, first(kIpv6, 40)));
    EXPECT_TRUE(matches(kIpv4, kIpv4 + Bytes{0x99}));
}

// The kernel writes into the options before it refuses a packet, and the checksum follows.
TEST(Copies, AreComparedExceptForChecksumAndOptionsOfIpv4) {
    for (const Bytes& packet : {kIpv4, kWithOptions, kIpv6})
        for (size_t at = 0; at < packet.size(); ++at) {
            Bytes quote = packet;
            quote[at] ^= 0xff;
            const bool isFree = packet != kIpv6 &&
                                (at == 10 || at == 11 || (packet == kWithOptions && at / 4 == 5));
            EXPECT_EQ(matches(packet, quote), isFree) << at;
        }
}

TEST(Copies, AreNotTakenByAQuoteWithoutAWholeHeader) {
    EXPECT_FALSE(matches(kIpv4, {}));
    EXPECT_FALSE(matches(kIpv4, first(kIpv4, 19)));
    EXPECT_FALSE(matches(kWithOptions, first(kWithOptions, 23)));
    EXPECT_FALSE(matches(kIpv6, first(kIpv6, 39)));
}

TEST(Copies, RefuseAPacketWithoutAWholeHeaderOrWithoutIngress) {
    Copies copies;
    for (const Bytes& packet : {Bytes(), first(kIpv4, 19), first(kIpv6, 39), Bytes(60, 0x55)})
        EXPECT_FALSE(copies.keep(logged(packet), 20));
    for (const uint32_t ingress : {0U, 0x80000000U, 0xffffffffU})
        EXPECT_FALSE(copies.keep(logged(kIpv4, ingress), 20)) << ingress;
    EXPECT_EQ(copies.take(kIpv4), nullptr);
    EXPECT_TRUE(copies.keep(logged(kIpv4, 0x7fffffff), 20));
}

TEST(Copies, RefuseAPacketThatWasCutShorterThanTheRulesCut) {
    Copies copies;
    EXPECT_FALSE(copies.keep(logged(sized(1400, 1399)), 20));
    EXPECT_TRUE(copies.keep(logged(sized(1400, 1400)), 20));
    EXPECT_FALSE(copies.keep(logged(sized(9000, 1499)), 20));
    EXPECT_TRUE(copies.keep(logged(sized(9000, 1500)), 20));
    EXPECT_FALSE(copies.keep(logged(sized(9000, 1501)), 20));
}

TEST(Copies, HaveTheSizeThatTheHeaderClaimsOrTheirOwnIfItIsLarger) {
    Copies copies;
    ASSERT_TRUE(copies.keep(logged(sized(9000, 1500)), 20));
    EXPECT_EQ(copies.take(sized(9000, 28))->packetSize(), 9000U);
    ASSERT_TRUE(copies.keep(logged(sized(100, 120)), 20));
    EXPECT_EQ(copies.take(sized(100, 28))->packetSize(), 120U);
}

TEST(Copies, TakeTheAddressesOfTheirOwnLinkHeaderOnly) {
    Copies copies;
    for (int i = 0; i < 128; ++i) ASSERT_TRUE(copies.keep(logged(kIpv6), 20));
    LogMessage message = logged(kIpv4);
    message.linkHeader = message.linkHeader.first(7);
    ASSERT_TRUE(copies.keep(message, 20));
    EXPECT_THAT(copies.take(kIpv4)->addresses, ElementsAre(2, 0, 0, 0, 0x10, 1, 2, 0, 0, 0, 0, 0));
    message.linkHeader = {};
    ASSERT_TRUE(copies.keep(message, 20));
    EXPECT_THAT(copies.take(kIpv4)->addresses, Each(0));
}
