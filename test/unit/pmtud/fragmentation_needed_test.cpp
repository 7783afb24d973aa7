// SPDX-License-Identifier: MIT
// Tests of the IPv4 reply: its message, and what does not keep it from being sent. The lines and
// calls of the whole path, and its failures, are in unit/daemon.
#include "engine_test.h"

namespace engine_test {
namespace {

class FragmentationNeededTest : public EngineTest {};

// The checksums below are RFC 1071's over the literal bytes, worked out apart from the code.

TEST_F(FragmentationNeededTest, IsOneMessageOf68BytesThatQuotesSixtyBytesOfThePacket) {
    EXPECT_TRUE(reply4(ipv4Frame()));
    ASSERT_EQ(messages(), 1U);
    EXPECT_EQ(sent4().bytes, (Bytes{0x03, 0x04, 0x79, 0x8e, 0x00, 0x00, 0x05, 0xdc,  // ICMP
                                    0x45, 0x00, 0x06, 0x2e, 0x12, 0x34, 0x40, 0x00,
                                    0x40, 0x11, 0x36, 0x39,  // quote
                                    0xc0, 0x00, 0x02, 0x0a, 0xc6, 0x33, 0x64, 0x14}) +
                                 packets::payload(40));
}

TEST_F(FragmentationNeededTest, GoesToThePacketsSourceWithPortAndPaddingZero) {
    reply4(ipv4Frame());
    sockaddr_in expected{};
    expected.sin_family = 2;
    memcpy(&expected.sin_addr, Bytes{0xc0, 0x00, 0x02, 0x0a}.data(), 4);
    EXPECT_EQ(memcmp(&sent4().to, &expected, sizeof expected), 0);
}

TEST_F(FragmentationNeededTest, GoesToABroadcastSourceAsToAnyOther) {
    EXPECT_TRUE(reply4(with(ipv4Frame(), 30, {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0})));
    EXPECT_EQ(sent4().to.sin_addr.s_addr, 0xFFFFFFFFU);
    EXPECT_EQ(texts().at(1), " PMTUD-Prot:    From: 255.255.255.255");
    EXPECT_EQ(texts().at(2), " PMTUD-Prot:    To: 0.0.0.0");
    EXPECT_EQ(last(texts()), " PMTUD-Prot: ICMP message sent to source 255.255.255.255");
}

struct Carried {
    uint16_t mtu;
    uint16_t checksum;
};

class CarriedMtuTest : public EngineTest, public testing::WithParamInterface<Carried> {};

TEST_P(CarriedMtuTest, IsTheNextHopMtuOfAMessageOf68Bytes) {
    answerMtu(GetParam().mtu);
    EXPECT_TRUE(reply4(ipv4Frame()));
    EXPECT_EQ(sent4().bytes.size(), 68U);
    EXPECT_EQ(slice(sent4().bytes, 0, 8),
              (Bytes{3, 4} + bytesOf(GetParam().checksum) + Bytes{0, 0} + bytesOf(GetParam().mtu)));
}

INSTANTIATE_TEST_SUITE_P(Mtus, CarriedMtuTest,
                         testing::Values(Carried{576, 0x7d2a}, Carried{1400, 0x79f2},
                                         Carried{9000, 0x5c42}, Carried{16383, 0x3f6b}),
                         [](const auto& row) { return std::to_string(row.param.mtu); });

TEST_F(FragmentationNeededTest, OfNoFrameIsFalseAndSilent) {
    Journal journal(qv::DEBUG4);
    EXPECT_FALSE(app.sendICMP4PacketTooBig(nullptr, 1600));
    EXPECT_EQ(journal.entries, Lines());
}

TEST_F(FragmentationNeededTest, SendsNothingOfAnEarlierFrameThroughASocketOfItsOwn) {
    reply4(ipv4Frame());
    const Bytes frame = slice(ipv4Frame(), 0, 38) + Bytes(40);
    reply4(frame);
    EXPECT_EQ(slice(fake::syscalls().sent.at(1).bytes, 8, 68), slice(frame, 18, 78));
    EXPECT_EQ(fake::syscalls().calls.at(4), "socket(2, 3, 1)");
    EXPECT_EQ(fake::syscalls().calls.size(), 8U);
}

TEST_F(FragmentationNeededTest, AnswersAsManyFramesAsCome) {
    for (int i = 0; i < 500; ++i) ASSERT_TRUE(reply4(ipv4Frame()));
    EXPECT_EQ(messages(), 500U);
    EXPECT_TRUE(fake::openSockets.empty());
}

// The sums in the comments are the literal words added up apart from the code.
// 0304 + 0240 (ICMP) + 4500 + C000 + 020A + F3B1 (quote) = 1FFFF, folded 10000, complement FFFF.
// With the carry of the fold added back it would be FFFE.
TEST_F(FragmentationNeededTest, HasAChecksumWhoseFoldDropsItsCarry) {
    answerMtu(576);
    Bytes frame = slice(ipv4Frame(), 0, 18) + Bytes(60);
    frame[18] = 0x45;
    frame = with(with(frame, 30, {0xc0, 0x00, 0x02, 0x0a}), 38, {0xf3, 0xb1});
    reply4(frame);
    EXPECT_EQ(slice(sent4().bytes, 0, 8), (Bytes{3, 4, 0xff, 0xff, 0, 0, 0x02, 0x40}));
}

// 0304 + 05DC (ICMP) + 4F00 + 29 * FFFF (quote) = 1D57C3, folded 57E0, complement A81F.
TEST_F(FragmentationNeededTest, QuotesAHeaderWithAllItsOptionsToItsLastByte) {
    reply4(slice(ipv4Frame(), 0, 18) + Bytes{0x4F, 0x00} + Bytes(58, 0xFF) + Bytes{0xEE});
    EXPECT_EQ(sent4().bytes,
              (Bytes{3, 4, 0xa8, 0x1f, 0, 0, 0x05, 0xdc, 0x4F, 0x00}) + Bytes(58, 0xFF));
}

class ChangedFrameTest : public EngineTest, public testing::WithParamInterface<Change> {};

TEST_P(ChangedFrameTest, IsAnsweredAndQuotedAsItIs) {
    const Bytes frame = with(ipv4Frame(), GetParam().offset, {GetParam().value});
    EXPECT_TRUE(reply4(frame));
    EXPECT_EQ(sent4().bytes.size(), 68U);
    EXPECT_EQ(slice(sent4().bytes, 8, 68), slice(frame, 18, 78));
}

INSTANTIATE_TEST_SUITE_P(
    Changes, ChangedFrameTest,
    testing::Values(Change{"AnotherTagProtocol", 12, 0x88}, Change{"AnotherEtherType", 16, 0x86},
                    Change{"AnotherVersion", 18, 0x65}, Change{"NoHeaderLength", 18, 0x40},
                    Change{"TheGreatestHeaderLength", 18, 0x4F}, Change{"AnotherTos", 19, 0xFF},
                    Change{"AGreaterTotalLength", 20, 0xFF},
                    Change{"ASmallerTotalLength", 20, 0x00}, Change{"WithoutDf", 24, 0x00},
                    Change{"AllFlags", 24, 0xE0}, Change{"ALaterFragment", 25, 0x01},
                    Change{"NoTimeToLive", 26, 0x00}, Change{"Icmp", 27, 0x01},
                    Change{"AWrongChecksum", 28, 0x00}, Change{"AMulticastSource", 30, 0xE0},
                    Change{"AMulticastDestination", 34, 0xE0},
                    Change{"TheLastQuotedByte", 77, 0xFF}),
    kCaseName);

}  // namespace
}  // namespace engine_test
