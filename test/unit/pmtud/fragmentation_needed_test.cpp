// SPDX-License-Identifier: MIT
// Tests of the IPv4 reply: its message, and what does not keep it from being sent. The lines and
// calls of the whole path, and its failures, are in unit/daemon.
#include "engine_test.h"

namespace engine_test {
namespace {

class FragmentationNeededTest : public EngineTest {};

// The checksums below were computed by hand from the literal bytes (RFC 1071).

TEST_F(FragmentationNeededTest, IsOneMessageOf68BytesThatQuotesSixtyBytesOfThePacket) {
    EXPECT_TRUE(reply4(ipv4Frame()));
    ASSERT_EQ(messages(), 1U);
    EXPECT_EQ(sent4().bytes, (Bytes{0x03, 0x04, 0x79, 0x8e, 0x00, 0x00, 0x05, 0xdc,  // ICMP
                                    0x45, 0x00, 0x06, 0x2e, 0x12, 0x34, 0x40, 0x00,
                                    0x40, 0x11, 0x36, 0x39,  // quote
                                    0xc0, 0x00, 0x02, 0x0a, 0xc6, 0x33, 0x64, 0x14}) +
                                 packets::payload(40));
}

TEST_F(FragmentationNeededTest, GoesToABroadcastSourceTooWithPortAndPaddingZero) {
    EXPECT_TRUE(reply4(with(ipv4Frame(), 30, {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0})));
    EXPECT_EQ(texts().at(1), " PMTUD-Prot:    From: 255.255.255.255");
    EXPECT_EQ(texts().at(2), " PMTUD-Prot:    To: 0.0.0.0");
    EXPECT_EQ(last(texts()), " PMTUD-Prot: ICMP message sent to source 255.255.255.255");
    sockaddr_in expected{};
    expected.sin_family = 2;
    memset(&expected.sin_addr, 0xFF, 4);
    EXPECT_EQ(memcmp(&sent4().to, &expected, sizeof expected), 0);
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
    EXPECT_EQ(cut(sent4().bytes, 0, 8),
              (Bytes{3, 4} + bytesOf(GetParam().checksum) + Bytes{0, 0} + bytesOf(GetParam().mtu)));
}

INSTANTIATE_TEST_SUITE_P(Mtus, CarriedMtuTest,
                         testing::Values(Carried{576, 0x7d2a}, Carried{1400, 0x79f2},
                                         Carried{9000, 0x5c42}, Carried{16383, 0x3f6b}),
                         [](const auto& row) { return std::to_string(row.param.mtu); });

TEST_F(FragmentationNeededTest, IsNeitherSentNorLoggedWithoutAFrame) {
    Journal journal(qv::DEBUG4);
    EXPECT_FALSE(app.sendICMP4PacketTooBig(nullptr, 1600));
    EXPECT_EQ(journal.entries, Lines());
}

TEST_F(FragmentationNeededTest, SendsNothingOfAnEarlierFrameAndOpensAnotherSocket) {
    reply4(ipv4Frame());
    const Bytes frame = cut(ipv4Frame(), 0, 38) + Bytes(40);
    reply4(frame);
    EXPECT_EQ(cut(fake::syscalls().sent.at(1).bytes, 8, 68), cut(frame, 18, 78));
    EXPECT_EQ(fake::syscalls().calls.at(4), "socket(2, 3, 1)");
    EXPECT_EQ(fake::syscalls().calls.size(), 8U);
}

class ChangedFrameTest : public EngineTest, public testing::WithParamInterface<Change> {};

TEST_P(ChangedFrameTest, IsAnsweredAndQuotedAsItIs) {
    const Bytes frame = with(ipv4Frame(), GetParam().offset, {GetParam().value});
    EXPECT_TRUE(reply4(frame));
    EXPECT_EQ(sent4().bytes.size(), 68U);
    EXPECT_EQ(cut(sent4().bytes, 8, 68), cut(frame, 18, 78));
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
