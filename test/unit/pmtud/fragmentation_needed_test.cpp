// SPDX-License-Identifier: MIT
// Tests of the IPv4 reply: its message, the calls that send it, its lines and its failures.
#include <stdexcept>

#include "engine_test.h"
#include "icmp_checksum.h"

using engine_test::Bytes;
using engine_test::EngineTest;
using engine_test::ipv4Frame;
using engine_test::Journal;
using engine_test::last;
using engine_test::Lines;
using engine_test::logAt;
using engine_test::slice;
using engine_test::operator+;

namespace {

class FragmentationNeededTest : public EngineTest {
 protected:
    static const fake::SentMessage& sent() { return fake::syscalls().sent.at(0); }
};

// The checksums below are RFC 1071's over the literal bytes, worked out apart from the code.

TEST_F(FragmentationNeededTest, IsOneMessageOf68BytesThatQuotesSixtyBytesOfThePacket) {
    EXPECT_TRUE(reply4(ipv4Frame()));
    ASSERT_EQ(fake::syscalls().sent.size(), 1U);
    const Bytes expected = {
        0x03, 0x04, 0x79, 0x8e, 0x00, 0x00, 0x05, 0xdc,                          // ICMP
        0x45, 0x00, 0x06, 0x2e, 0x12, 0x34, 0x40, 0x00, 0x40, 0x11, 0x36, 0x39,  // quote
        0xc0, 0x00, 0x02, 0x0a, 0xc6, 0x33, 0x64, 0x14, 0x00, 0x01, 0x02, 0x03,
        0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f,
        0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x1b,
        0x1c, 0x1d, 0x1e, 0x1f, 0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27};
    EXPECT_EQ(sent().bytes, expected);
}

TEST_F(FragmentationNeededTest, GoesToThePacketsSourceWithPortAndPaddingZero) {
    reply4(ipv4Frame());
    const Bytes address = {0xc0, 0x00, 0x02, 0x0a};
    const auto* const bytes = reinterpret_cast<const uint8_t*>(&sent().to.sin_addr);
    EXPECT_EQ(sent().to.sin_family, 2);
    EXPECT_EQ(Bytes(bytes, bytes + 4), address);
    EXPECT_EQ(sent().to.sin_port, 0);
    EXPECT_EQ(sent().addressLength, 16U);
    EXPECT_EQ(sent().flags, 0);
}

struct Carried {
    uint32_t mtu;
    uint8_t checksum[2];
    uint8_t field[2];
};

class CarriedMtuTest : public FragmentationNeededTest,
                       public testing::WithParamInterface<Carried> {};

TEST_P(CarriedMtuTest, IsTheNextHopMtuOfAMessageOf68Bytes) {
    answerMtu(GetParam().mtu);
    EXPECT_TRUE(reply4(ipv4Frame()));
    const auto& [mtu, checksum, field] = GetParam();
    EXPECT_EQ(sent().bytes.size(), 68U);
    EXPECT_EQ(slice(sent().bytes, 0, 8),
              Bytes({3, 4, checksum[0], checksum[1], 0, 0, field[0], field[1]}));
}

INSTANTIATE_TEST_SUITE_P(Mtus, CarriedMtuTest,
                         testing::Values(Carried{576, {0x7d, 0x2a}, {0x02, 0x40}},
                                         Carried{1400, {0x79, 0xf2}, {0x05, 0x78}},
                                         Carried{9000, {0x5c, 0x42}, {0x23, 0x28}},
                                         Carried{16383, {0x3f, 0x6b}, {0x3f, 0xff}}),
                         [](const auto& row) { return std::to_string(row.param.mtu); });

TEST_F(FragmentationNeededTest, QuotesAHeaderWithOptionsOverItsSixtyBytes) {
    Bytes frame = ipv4Frame();
    frame[18] = 0x4F;
    reply4(frame);
    EXPECT_EQ(slice(sent().bytes, 8, 68), slice(frame, 18, 78));
}

TEST_F(FragmentationNeededTest, QuotesSixtyBytesWhateverTheTotalLengthSays) {
    Bytes frame = ipv4Frame();
    frame[20] = 0x00;
    frame[21] = 0x14;
    reply4(frame);
    EXPECT_EQ(slice(sent().bytes, 8, 68), slice(frame, 18, 78));
}

TEST_F(FragmentationNeededTest, OpensSetsSendsAndClosesInThisOrder) {
    reply4(ipv4Frame());
    EXPECT_EQ(fake::syscalls().calls, Lines({"socket(2, 3, 1)", "setsockopt(404, 0, 2, [64], 1)",
                                             "sendto(404, 68 bytes, 0, 16)", "close(404)"}));
}

TEST_F(FragmentationNeededTest, WritesTheseLinesAndMakesTheseCallsInThisOrder) {
    Journal journal(qv::INFO);
    reply4(ipv4Frame());
    EXPECT_EQ(journal.entries(),
              Lines({"cfg_vlan_l3_get_dest_vlan(77)", "cfg_vlan_l3_get_mtu(100)",
                     " PMTUD-Prot: Received IPv4 packet len 1600:",
                     " PMTUD-Prot:    From: 192.0.2.10", " PMTUD-Prot:    To: 198.51.100.20",
                     " PMTUD-Prot:    Dest VLAN ID: 100", " PMTUD-Prot:    Dest VLAN MTU: 1500",
                     "socket(2, 3, 1)", "setsockopt(404, 0, 2, [64], 1)",
                     " PMTUD-Prot: Creating ICMP Dest. Unreach. Need Frag. message. MTU size: 1500",
                     "sendto(404, 68 bytes, 0, 16)",
                     " PMTUD-Prot: ICMP message sent to source 192.0.2.10", "close(404)"}));
}

TEST_F(FragmentationNeededTest, WritesFourStatementsAtDebug) {
    const Lines lines = logAt(qv::DEBUG, [this] { reply4(ipv4Frame()); });
    const std::string place = " | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] ";
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_TRUE(lines.at(0).starts_with("14:03:07.2 DEBUG: [PMTUDApp:103" + place +
                                        "\n===== [ETH DUMP] =====\ndata[18]: [00 1a 2b"));
    EXPECT_TRUE(lines.at(1).starts_with("14:03:07.2 DEBUG: [PMTUDApp:106" + place +
                                        "\n===== [IPv4 DUMP] =====\ndata[60]: [45 00 06 2e"));
    EXPECT_EQ(lines.at(2),
              "14:03:07.2 DEBUG: [PMTUDApp:127" + place + "MTU VLAN: 1500 VLAN:20\r\n");
    EXPECT_EQ(lines.at(3), "14:03:07.2 DEBUG: [PMTUDApp:142" + place +
                               "Src: 00:00:5e:00:53:01 Dest: 00:1a:2b:3c:4d:5e VLAN: 20 "
                               "packet_len: 68\r\n");
}

TEST_F(FragmentationNeededTest, OfNoFrameIsFalseAndSilent) {
    Journal journal(qv::DEBUG4);
    EXPECT_FALSE(app.sendICMP4PacketTooBig(nullptr, 1600));
    EXPECT_EQ(journal.entries(), Lines());
}

TEST_F(FragmentationNeededTest, SaysTwiceThatTheVlanIsInvalidAndAsksForNoMtu) {
    answerVlan(-1);
    Journal journal(qv::DEBUG);
    EXPECT_FALSE(reply4(ipv4Frame()));
    const Lines& entries = journal.entries();
    ASSERT_EQ(entries.size(), 5U);
    EXPECT_EQ(entries[2], "cfg_vlan_l3_get_dest_vlan(77)");
    EXPECT_EQ(entries[3],
              "14:03:07.2 DEBUG: [PMTUDApp:115 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, "
              "size_t)] Invalid VLAN ID - VLAN ID: -1 Egress: 77\r\n");
    EXPECT_EQ(entries[4], " PMTUD-Prot: Invalid VLAN ID - VLAN ID: -1 Egress: 77");
}

TEST_F(FragmentationNeededTest, SaysTwiceThatTheMtuIsInvalidAndOpensNoSocket) {
    answerMtu(4294967295U);
    adapter.setFrameInfo(0, 4, -1, 20, 2048, -7);
    Journal journal(qv::DEBUG);
    EXPECT_FALSE(reply4(ipv4Frame()));
    const Lines& entries = journal.entries();
    ASSERT_EQ(entries.size(), 6U);
    EXPECT_EQ(entries[4],
              "14:03:07.2 DEBUG: [PMTUDApp:122 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, "
              "size_t)] Invalid VLAN MTU - VLAN ID: 100 Egress: -7 VLAN MTU: 4294967295\r\n");
    EXPECT_EQ(entries[5],
              " PMTUD-Prot: Invalid VLAN MTU - VLAN ID: 100 Egress: -7 VLAN MTU: 4294967295");
}

TEST_F(FragmentationNeededTest, SaysThatTheSocketFailedAndIsFalse) {
    fake::syscalls().socket = [] { return -1; };
    EXPECT_FALSE(reply4(ipv4Frame()));
    EXPECT_EQ(last(fake::platform().debugTexts()), " PMTUD-Prot: Error creating socket");
    EXPECT_EQ(fake::syscalls().calls, Lines({"socket(2, 3, 1)"}));
}

TEST_F(FragmentationNeededTest, GoesOnWhereTheTimeToLiveCannotBeSet) {
    fake::syscalls().setsockopt = [] { return -1; };
    EXPECT_TRUE(reply4(ipv4Frame()));
    EXPECT_EQ(last(fake::platform().debugTexts()),
              " PMTUD-Prot: ICMP message sent to source 192.0.2.10");
}

TEST_F(FragmentationNeededTest, IsTrueAndClosesTheSocketWhereTheSendFailed) {
    fake::syscalls().sendto = [](std::size_t) { return -1L; };
    EXPECT_TRUE(reply4(ipv4Frame()));
    EXPECT_EQ(last(fake::platform().debugTexts()),
              " PMTUD-Prot: Creating ICMP Dest. Unreach. Need Frag. message. MTU size: 1500");
    EXPECT_EQ(last(fake::syscalls().calls), "close(404)");
}

TEST_F(FragmentationNeededTest, SaysThatItWasSentWhereTheSendTookNothing) {
    fake::syscalls().sendto = [](std::size_t) { return 0L; };
    EXPECT_TRUE(reply4(ipv4Frame()));
    EXPECT_EQ(last(fake::platform().debugTexts()),
              " PMTUD-Prot: ICMP message sent to source 192.0.2.10");
}

TEST_F(FragmentationNeededTest, OpensASocketForEachReply) {
    reply4(ipv4Frame());
    reply4(ipv4Frame());
    EXPECT_EQ(fake::syscalls().calls.size(), 8U);
    EXPECT_EQ(fake::syscalls().calls.at(4), "socket(2, 3, 1)");
}

TEST_F(FragmentationNeededTest, LetsAnExceptionOfTheConfigurationThrough) {
    fake::platform().vlanMtu = [](int) -> uint32_t { throw std::runtime_error("gone"); };
    EXPECT_THROW(reply4(ipv4Frame()), std::runtime_error);
    EXPECT_EQ(fake::syscalls().calls, Lines());
}

TEST_F(FragmentationNeededTest, SendsNothingOfAnEarlierFrame) {
    reply4(ipv4Frame());
    Bytes frame = slice(ipv4Frame(), 0, 38) + Bytes(40);
    reply4(frame);
    EXPECT_EQ(slice(fake::syscalls().sent.at(1).bytes, 8, 68), slice(frame, 18, 78));
}

// The checksum.

TEST_F(FragmentationNeededTest, HasTheChecksumOfItselfWithTheFieldZero) {
    reply4(ipv4Frame());
    Bytes message = sent().bytes;
    const int stored = message[2] << 8 | message[3];
    message[2] = message[3] = 0;
    EXPECT_EQ(icmpChecksum(message.data(), 68), stored);
}

/// The 16-bit one's complement sum of RFC 1071, carried round after every byte.
unsigned onesComplementSum(const Bytes& bytes) {
    unsigned sum = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        sum += i % 2 == 0 ? bytes[i] * 256U : bytes[i];
        if (sum > 0xFFFF) sum -= 0xFFFF;
    }
    return sum;
}

TEST_F(FragmentationNeededTest, SumsToAllOnesAtItsReceiver) {
    reply4(ipv4Frame());
    EXPECT_EQ(onesComplementSum(sent().bytes), 0xFFFFU);
}

// Every IPv4 frame is answered.

struct Change {
    const char* name;
    std::size_t offset;
    uint8_t value;
};

class ChangedFrameTest : public FragmentationNeededTest,
                         public testing::WithParamInterface<Change> {};

TEST_P(ChangedFrameTest, IsAnsweredAndQuotedAsItIs) {
    Bytes frame = ipv4Frame();
    frame[GetParam().offset] = GetParam().value;
    EXPECT_TRUE(reply4(frame));
    EXPECT_EQ(sent().bytes.size(), 68U);
    EXPECT_EQ(slice(sent().bytes, 8, 68), slice(frame, 18, 78));
}

INSTANTIATE_TEST_SUITE_P(
    Changes, ChangedFrameTest,
    testing::Values(Change{"AnotherTagProtocol", 12, 0x88}, Change{"AnotherEtherType", 16, 0x86},
                    Change{"AnotherVersion", 18, 0x65}, Change{"NoHeaderLength", 18, 0x40},
                    Change{"TheGreatestHeaderLength", 18, 0x4F}, Change{"AnotherTos", 19, 0xFF},
                    Change{"AGreaterTotalLength", 20, 0xFF},
                    Change{"ASmallerTotalLength", 20, 0x00}, Change{"NoFlags", 24, 0x00},
                    Change{"AllFlags", 24, 0xE0}, Change{"ALaterFragment", 25, 0x01},
                    Change{"NoTimeToLive", 26, 0x00}, Change{"Icmp", 27, 0x01},
                    Change{"AWrongChecksum", 28, 0x00}, Change{"AMulticastSource", 30, 0xE0},
                    Change{"AMulticastDestination", 34, 0xE0},
                    Change{"TheLastQuotedByte", 77, 0xFF}),
    [](const auto& row) { return row.param.name; });

TEST_F(FragmentationNeededTest, ShowsAddressesInDottedDecimal) {
    Bytes frame = ipv4Frame();
    std::fill(frame.begin() + 30, frame.begin() + 34, uint8_t{0xFF});
    std::fill(frame.begin() + 34, frame.begin() + 38, uint8_t{0x00});
    reply4(frame);
    const Lines texts = fake::platform().debugTexts();
    EXPECT_EQ(texts.at(1), " PMTUD-Prot:    From: 255.255.255.255");
    EXPECT_EQ(texts.at(2), " PMTUD-Prot:    To: 0.0.0.0");
    EXPECT_EQ(last(texts), " PMTUD-Prot: ICMP message sent to source 255.255.255.255");
}

struct InvalidVlan {
    const char* name;
    int vlan;
    const char* text;
};

class InvalidVlanTextTest : public FragmentationNeededTest,
                            public testing::WithParamInterface<InvalidVlan> {};

TEST_P(InvalidVlanTextTest, IsTheOnlyOneForTheDebugProcessAndTheLastOfTheFileChannel) {
    answerVlan(GetParam().vlan);
    const Lines lines = logAt(qv::DEBUG, [this] { EXPECT_FALSE(reply4(ipv4Frame())); });
    const std::string text = GetParam().text;
    EXPECT_EQ(fake::platform().debugTexts(), Lines({" PMTUD-Prot: " + text}));
    EXPECT_EQ(last(lines),
              "14:03:07.2 DEBUG: [PMTUDApp:115 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, "
              "size_t)] " +
                  text + "\r\n");
}

INSTANTIATE_TEST_SUITE_P(
    Vlans, InvalidVlanTextTest,
    testing::Values(InvalidVlan{"Zero", 0, "Invalid VLAN ID - VLAN ID: 0 Egress: 77"},
                    InvalidVlan{"Vlan4095", 4095, "Invalid VLAN ID - VLAN ID: 4095 Egress: 77"},
                    InvalidVlan{"MinusOne", -1, "Invalid VLAN ID - VLAN ID: -1 Egress: 77"}),
    [](const auto& row) { return row.param.name; });

TEST_F(FragmentationNeededTest, AnswersAsManyFramesAsCome) {
    for (int i = 0; i < 500; ++i) ASSERT_TRUE(reply4(ipv4Frame()));
    EXPECT_EQ(fake::syscalls().sent.size(), 500U);
}

}  // namespace
