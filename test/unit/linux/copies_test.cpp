// SPDX-License-Identifier: MIT
// Which copy a quote belongs to.
#include "copies.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

using pmtud_linux::Copies;
using pmtud_linux::Copy;
using pmtud_linux::LogMessage;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

using Bytes = std::vector<uint8_t>;

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

LogMessage logged(const Bytes& packet) {
    LogMessage message;
    message.ingress = 5;
    message.linkHeader = kLinkHeader;
    message.payload = packet;
    return message;
}

Bytes changed(Bytes bytes, size_t at) {
    bytes[at] ^= 0xff;
    return bytes;
}

Bytes first(const Bytes& bytes, size_t size) {
    return {bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size)};
}

// Identified by its identification field.
Bytes numbered(uint16_t number) {
    Bytes bytes = kIpv4;
    bytes[4] = static_cast<uint8_t>(number >> 8);
    bytes[5] = static_cast<uint8_t>(number);
    return bytes;
}

// IPv4 that claims a size and was copied so far.
Bytes sized(size_t claimed, size_t copied) {
    Bytes bytes = kIpv4;
    bytes[2] = static_cast<uint8_t>(claimed >> 8);
    bytes[3] = static_cast<uint8_t>(claimed);
    bytes.resize(copied, 0xa5);
    return bytes;
}

bool matches(const Bytes& packet, const Bytes& quote) {
    Copies copies;
    EXPECT_TRUE(copies.keep(logged(packet), 20));
    return copies.take(quote) != nullptr;
}

}  // namespace

TEST(Copies, GiveBackWhatTheyWereGiven) {
    Copies copies;
    ASSERT_TRUE(copies.keep(logged(kIpv4), 20));
    const Copy* const copy = copies.take(kIpv4);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->ingress, 5U);
    EXPECT_EQ(copy->egressVlan, 20);
    EXPECT_THAT(copy->addresses, ElementsAre(2, 0, 0, 0, 0x10, 1, 2, 0, 0, 0, 0x10, 2));
    EXPECT_THAT(copy->packet(), ElementsAreArray(kIpv4));
    EXPECT_EQ(copy->packetSize(), 28U);
}

TEST(Copies, AreTakenOnce) {
    Copies copies;
    ASSERT_TRUE(copies.keep(logged(kIpv4), 20));
    EXPECT_NE(copies.take(kIpv4), nullptr);
    EXPECT_EQ(copies.take(kIpv4), nullptr);
}

TEST(Copies, OfEqualPacketsAreTakenNewestFirst) {
    Copies copies;
    for (const int vlan : {20, 30, 40}) ASSERT_TRUE(copies.keep(logged(kIpv4), vlan));
    for (const int vlan : {40, 30, 20}) {
        const Copy* const copy = copies.take(kIpv4);
        ASSERT_NE(copy, nullptr);
        EXPECT_EQ(copy->egressVlan, vlan);
    }
    EXPECT_EQ(copies.take(kIpv4), nullptr);
}

TEST(Copies, AreFoundByTheirQuoteAmongOthers) {
    Copies copies;
    ASSERT_TRUE(copies.keep(logged(numbered(1)), 20));
    ASSERT_TRUE(copies.keep(logged(kIpv6), 30));
    ASSERT_TRUE(copies.keep(logged(numbered(2)), 40));
    const Copy* const copy = copies.take(numbered(1));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->egressVlan, 20);
}

TEST(Copies, ForgetTheOldestOf129) {
    Copies copies;
    for (uint16_t number = 0; number < 129; ++number)
        ASSERT_TRUE(copies.keep(logged(numbered(number)), 20));
    EXPECT_EQ(copies.take(numbered(0)), nullptr);
    EXPECT_NE(copies.take(numbered(1)), nullptr);
    EXPECT_NE(copies.take(numbered(128)), nullptr);
}

TEST(Copies, ThatWereNeverKeptAreNotThere) {
    Copies copies;
    EXPECT_EQ(copies.take(kIpv4), nullptr);
    EXPECT_EQ(copies.take(Bytes(40, 0x60)), nullptr);
}

TEST(Copies, AreComparedAsFarAsTheShorterGoes) {
    EXPECT_TRUE(matches(kIpv4, first(kIpv4, 24)));
    EXPECT_TRUE(matches(kIpv4, first(kIpv4, 20)));
    EXPECT_TRUE(matches(kIpv6, first(kIpv6, 40)));
    Bytes longer = kIpv4;
    longer.push_back(0x99);
    EXPECT_TRUE(matches(kIpv4, longer));
}

TEST(Copies, OfIpv4AreComparedButForTheChecksum) {
    for (size_t at = 0; at < kIpv4.size(); ++at)
        EXPECT_EQ(matches(kIpv4, changed(kIpv4, at)), at == 10 || at == 11) << at;
}

TEST(Copies, OfIpv4AreComparedButForTheOptions) {
    for (size_t at = 0; at < kWithOptions.size(); ++at)
        EXPECT_EQ(matches(kWithOptions, changed(kWithOptions, at)),
                  at == 10 || at == 11 || (at >= 20 && at < 24))
            << at;
}

TEST(Copies, OfIpv6AreComparedToTheLastBit) {
    for (size_t at = 0; at < kIpv6.size(); ++at)
        EXPECT_FALSE(matches(kIpv6, changed(kIpv6, at))) << at;
}

TEST(Copies, AreNotTakenByAQuoteWithoutAWholeHeader) {
    EXPECT_FALSE(matches(kIpv4, {}));
    EXPECT_FALSE(matches(kIpv4, first(kIpv4, 19)));
    EXPECT_FALSE(matches(kWithOptions, first(kWithOptions, 23)));
    EXPECT_FALSE(matches(kIpv6, first(kIpv6, 39)));
}

TEST(Copies, RefuseAPacketWithoutAWholeHeader) {
    Copies copies;
    EXPECT_FALSE(copies.keep(logged({}), 20));
    EXPECT_FALSE(copies.keep(logged(first(kIpv4, 19)), 20));
    EXPECT_FALSE(copies.keep(logged(first(kIpv6, 39)), 20));
    EXPECT_FALSE(copies.keep(logged(Bytes(60, 0x55)), 20));
}

TEST(Copies, RefuseAPacketWithoutIngress) {
    Copies copies;
    for (const uint32_t index : {0U, 0x80000000U, 0xffffffffU}) {
        LogMessage message = logged(kIpv4);
        message.ingress = index;
        EXPECT_FALSE(copies.keep(message, 20)) << index;
    }
    EXPECT_EQ(copies.take(kIpv4), nullptr);
    LogMessage message = logged(kIpv4);
    message.ingress = 0x7fffffff;
    EXPECT_TRUE(copies.keep(message, 20));
}

TEST(Copies, RefuseAPacketThatWasCutShorterThanTheRulesCut) {
    Copies copies;
    EXPECT_FALSE(copies.keep(logged(sized(1400, 1399)), 20));
    EXPECT_TRUE(copies.keep(logged(sized(1400, 1400)), 20));
    EXPECT_FALSE(copies.keep(logged(sized(9000, 1499)), 20));
    EXPECT_TRUE(copies.keep(logged(sized(9000, 1500)), 20));
    EXPECT_FALSE(copies.keep(logged(sized(9000, 1501)), 20));
}

TEST(Copies, TellTheSizeThatTheHeaderClaimsOrTheirOwnIfItIsLarger) {
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
    const Bytes shorter = {2, 0, 0, 0, 0x10, 1, 2};
    message.linkHeader = shorter;
    ASSERT_TRUE(copies.keep(message, 20));
    EXPECT_THAT(copies.take(kIpv4)->addresses, ElementsAre(2, 0, 0, 0, 0x10, 1, 2, 0, 0, 0, 0, 0));
    message.linkHeader = {};
    ASSERT_TRUE(copies.keep(message, 20));
    EXPECT_THAT(copies.take(kIpv4)->addresses, Each(0));
}
