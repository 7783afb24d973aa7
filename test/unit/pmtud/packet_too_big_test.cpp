// SPDX-License-Identifier: MIT
// Tests of the IPv6 reply: its message, the calls that send it, its lines and its failures.
#include <stdexcept>

#include "engine_test.h"

using engine_test::Bytes;
using engine_test::EngineTest;
using engine_test::ipv6Frame;
using engine_test::Journal;
using engine_test::last;
using engine_test::Lines;
using engine_test::logAt;
using engine_test::slice;
using engine_test::operator+;

namespace {

/// Where the message and the stack were when the send library was last called.
uintptr_t handedOver = 0;
uintptr_t stackAtSend = 0;

}  // namespace

extern "C" {

int __real_arpd_ipv6_pkt_send(int32_t fd, const struct sockaddr_in6* to, const struct iovec* iov,
                              int iovcnt, uint32_t ifindex);

int __wrap_arpd_ipv6_pkt_send(int32_t fd, const struct sockaddr_in6* to, const struct iovec* iov,
                              int iovcnt, uint32_t ifindex) {
    const char here = 0;
    stackAtSend = reinterpret_cast<uintptr_t>(&here);
    handedOver = reinterpret_cast<uintptr_t>(iov->iov_base);
    return __real_arpd_ipv6_pkt_send(fd, to, iov, iovcnt, ifindex);
}

}  // extern "C"

namespace {

class PacketTooBigTest : public EngineTest {
 protected:
    static const fake::Icmp6Message& sent() { return fake::platform().icmp6Messages.at(0); }

    static Bytes taggedWith(Bytes frame, uint8_t high, uint8_t low) {
        frame[14] = high;
        frame[15] = low;
        return frame;
    }
};

TEST_F(PacketTooBigTest, Of1280IsOneMessageOf1280BytesOnTheTagsInterface) {
    answerMtu(1280);
    const Bytes frame = ipv6Frame(1460);
    ASSERT_EQ(frame.size(), 1518U);
    EXPECT_TRUE(reply6(frame));
    ASSERT_EQ(fake::platform().icmp6Messages.size(), 1U);
    EXPECT_EQ(sent().bytes, Bytes({2, 0, 0, 0, 0, 0, 0x05, 0x00}) + slice(frame, 18, 1290));
    EXPECT_EQ(fake::platform().calls.at(2), "arpd_icmp6_socket_create(\"bcm0.20\")");
}

TEST_F(PacketTooBigTest, GoesToThePacketsSourceAndLeavesTheRestOfTheAddressZero) {
    reply6(ipv6Frame(1460));
    const Bytes address = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0x10, 0, 0, 0, 0, 0, 0, 0, 0x0a};
    const uint8_t* const bytes = sent().to.sin6_addr.s6_addr;
    EXPECT_EQ(sent().to.sin6_family, 10);
    EXPECT_EQ(Bytes(bytes, bytes + 16), address);
    EXPECT_EQ(sent().to.sin6_port, 0);
    EXPECT_EQ(sent().to.sin6_flowinfo, 0U);
    EXPECT_EQ(sent().to.sin6_scope_id, 0U);
}

TEST_F(PacketTooBigTest, IsHandedOverAsOnePieceWithTheInterfacesIndex) {
    reply6(ipv6Frame(1460));
    EXPECT_EQ(sent().iovcnt, 1);
    EXPECT_EQ(sent().fd, 606);
    EXPECT_EQ(sent().ifindex, 7U);
}

struct Length {
    uint32_t mtu;
    uint16_t payload;
    std::size_t message;
    uint8_t field[4];
};

class MessageLengthTest : public PacketTooBigTest, public testing::WithParamInterface<Length> {};

TEST_P(MessageLengthTest, IsTheLeastOfMtu1500AndPacketWithHeader) {
    answerMtu(GetParam().mtu);
    const Bytes frame = ipv6Frame(GetParam().payload);
    EXPECT_TRUE(reply6(frame));
    const Length& expected = GetParam();
    EXPECT_EQ(sent().bytes.size(), expected.message);
    EXPECT_EQ(slice(sent().bytes, 0, 8), Bytes({2, 0, 0, 0, expected.field[0], expected.field[1],
                                                expected.field[2], expected.field[3]}));
    EXPECT_EQ(slice(sent().bytes, 8, expected.message), slice(frame, 18, expected.message + 10));
}

INSTANTIATE_TEST_SUITE_P(Boundaries, MessageLengthTest,
                         testing::Values(Length{9000, 8960, 1500, {0, 0, 0x23, 0x28}},
                                         Length{1500, 0, 48, {0, 0, 0x05, 0xdc}},
                                         Length{1500, 1451, 1499, {0, 0, 0x05, 0xdc}},
                                         Length{1500, 1452, 1500, {0, 0, 0x05, 0xdc}},
                                         Length{1500, 1453, 1500, {0, 0, 0x05, 0xdc}},
                                         Length{576, 527, 575, {0, 0, 0x02, 0x40}},
                                         Length{576, 528, 576, {0, 0, 0x02, 0x40}},
                                         Length{576, 529, 576, {0, 0, 0x02, 0x40}},
                                         Length{1499, 65535, 1499, {0, 0, 0x05, 0xdb}},
                                         Length{16383, 65535, 1500, {0, 0, 0x3f, 0xff}}),
                         [](const auto& row) {
                             return "Mtu" + std::to_string(row.param.mtu) + "Payload" +
                                    std::to_string(row.param.payload);
                         });

TEST_F(PacketTooBigTest, QuotesByThePacketsLengthAndNotByTheReceivedOne) {
    const Bytes frame = ipv6Frame(1460);
    EXPECT_TRUE(app.sendICMP6PacketTooBig(frame.front(), 58));
    EXPECT_EQ(sent().bytes.size(), 1500U);
    EXPECT_EQ(slice(sent().bytes, 8, 1500), slice(frame, 18, 1510));
}

TEST_F(PacketTooBigTest, OfAShortFrameThatClaims65535BytesQuotesTheZerosBehindIt) {
    Bytes frame = slice(ipv6Frame(65535), 0, 58) + Bytes(1500);
    EXPECT_TRUE(app.sendICMP6PacketTooBig(frame.front(), 58));
    EXPECT_EQ(slice(sent().bytes, 48, 1500), Bytes(1452));
}

TEST_F(PacketTooBigTest, MakesTheseCallsAndWritesTheseLinesInThisOrder) {
    Journal journal(qv::INFO);
    EXPECT_TRUE(reply6(ipv6Frame(1460)));
    EXPECT_EQ(journal.entries(),
              Lines({"cfg_vlan_l3_get_dest_vlan(77)", "cfg_vlan_l3_get_mtu(100)",
                     " PMTUD-Prot: Received IPv6 packet len 1518:",
                     " PMTUD-Prot:    From: 2001:db8:0:10::a",
                     " PMTUD-Prot:    To: 2001:db8:0:20::14", " PMTUD-Prot:    Dest VLAN ID: 100",
                     " PMTUD-Prot:    Dest VLAN MTU: 1500", "if_nametoindex(\"bcm0.20\")",
                     " PMTUD-Prot: Creating ICMPv6 Packet Too Big message. MTU size: 1500",
                     "arpd_icmp6_socket_create(\"bcm0.20\")", "arpd_ipv6_pkt_send(606, 7)",
                     " PMTUD-Prot: ICMPv6 message sent to source 2001:db8:0:10::a", "close(606)"}));
}

TEST_F(PacketTooBigTest, WritesSixStatementsAtDebug) {
    const Lines lines = logAt(qv::DEBUG, [this] { reply6(ipv6Frame(1460)); });
    const std::string place = " | bool PMTUDApp::sendICMP6PacketTooBig(const uint8_t&, size_t)] ";
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_TRUE(lines.at(0).starts_with("14:03:07.2 DEBUG: [PMTUDApp:202" + place +
                                        "\n===== [ETH DUMP] =====\ndata[18]: [00 1a 2b"));
    EXPECT_TRUE(lines.at(1).starts_with("14:03:07.2 DEBUG: [PMTUDApp:205" + place +
                                        "\n===== [IPv6 DUMP] =====\ndata[1500]: [6a bc de f1"));
    EXPECT_EQ(lines.at(2),
              "14:03:07.2 DEBUG: [PMTUDApp:223" + place + "MTU VLAN: 1500 VLAN:20\r\n");
    EXPECT_EQ(lines.at(3), "14:03:07.2 DEBUG: [PMTUDApp:237" + place +
                               "Src: 00:00:5e:00:53:01 Dest: 00:1a:2b:3c:4d:5e VLAN: 20 "
                               "packet_len: 1500\r\n");
    EXPECT_EQ(lines.at(4), "14:03:07.2 DEBUG: [PMTUDApp:257" + place + "ifindex: 7\r\n");
    EXPECT_EQ(lines.at(5), "14:03:07.2 DEBUG: [PMTUDApp:265" + place + "socket created OK\r\n");
}

TEST_F(PacketTooBigTest, PassesIndex0OnWhereTheInterfaceDoesNotExist) {
    fake::syscalls().ifNameToIndex = [](const std::string&) { return 0U; };
    const Lines lines = logAt(qv::DEBUG, [this] { EXPECT_TRUE(reply6(ipv6Frame(8))); });
    EXPECT_EQ(lines.at(4),
              "14:03:07.2 DEBUG: [PMTUDApp:257 | bool PMTUDApp::sendICMP6PacketTooBig(const "
              "uint8_t&, size_t)] ifindex: 0\r\n");
    EXPECT_EQ(fake::platform().calls.at(2), "arpd_icmp6_socket_create(\"bcm0.20\")");
    EXPECT_EQ(fake::platform().calls.at(3), "arpd_ipv6_pkt_send(606, 0)");
}

TEST_F(PacketTooBigTest, WritesAndPassesOnIndexesOfAllSizes) {
    for (const uint32_t index : {70000U, 2147483647U}) {
        fake::resetPlatform();
        answerMtu(1500);
        fake::syscalls().ifNameToIndex = [=](const std::string&) { return index; };
        const Lines lines = logAt(qv::DEBUG, [this] { EXPECT_TRUE(reply6(ipv6Frame(8))); });
        EXPECT_EQ(lines.at(4), std::string("14:03:07.2 DEBUG: [PMTUDApp:257 | bool PMTUDApp::") +
                                   "sendICMP6PacketTooBig(const uint8_t&, size_t)] ifindex: " +
                                   (index == 70000 ? "70000" : "2147483647") + "\r\n");
        EXPECT_EQ(sent().ifindex, index);
    }
}

TEST_F(PacketTooBigTest, WritesAnIndexBeyondTheSignedRangeAsSigned) {
    fake::syscalls().ifNameToIndex = [](const std::string&) { return 0xFFFFFFFFU; };
    const Lines lines = logAt(qv::DEBUG, [this] { reply6(ipv6Frame(8)); });
    EXPECT_TRUE(lines.at(4).ends_with("ifindex: -1\r\n"));
}

TEST_F(PacketTooBigTest, AnswersAFrameTaggedWithVlan0OnBcm0Dot0) {
    EXPECT_TRUE(reply6(taggedWith(ipv6Frame(8), 0x00, 0x00)));
    EXPECT_EQ(fake::platform().calls.at(2), "arpd_icmp6_socket_create(\"bcm0.0\")");
}

TEST_F(PacketTooBigTest, AnswersATagOfAllOnesOnBcm0Dot4095) {
    EXPECT_TRUE(reply6(taggedWith(ipv6Frame(8), 0xFF, 0xFF)));
    EXPECT_EQ(fake::platform().calls.at(2), "arpd_icmp6_socket_create(\"bcm0.4095\")");
    EXPECT_EQ(fake::syscalls().calls.at(0), "if_nametoindex(\"bcm0.4095\")");
}

TEST_F(PacketTooBigTest, SaysTwiceAndNotAlikeThatTheVlanIsInvalidAndAsksForNoMtu) {
    answerVlan(4095);
    Journal journal(qv::DEBUG);
    EXPECT_FALSE(reply6(ipv6Frame(8)));
    const Lines& entries = journal.entries();
    ASSERT_EQ(entries.size(), 5U);
    EXPECT_EQ(entries[3],
              "14:03:07.2 DEBUG: [PMTUDApp:211 | bool PMTUDApp::sendICMP6PacketTooBig(const "
              "uint8_t&, size_t)] Invalid VLAN ID: 4095 (Egress ID: 77)\r\n");
    EXPECT_EQ(entries[4], " PMTUD-Prot: Invalid VLAN ID: 4095(Egress ID: 77)");
}

TEST_F(PacketTooBigTest, SaysTwiceThatTheMtuIsInvalidAndOpensNoSocket) {
    answerMtu(575);
    Journal journal(qv::DEBUG);
    EXPECT_FALSE(reply6(ipv6Frame(8)));
    const Lines& entries = journal.entries();
    ASSERT_EQ(entries.size(), 6U);
    EXPECT_EQ(entries[4],
              "14:03:07.2 DEBUG: [PMTUDApp:218 | bool PMTUDApp::sendICMP6PacketTooBig(const "
              "uint8_t&, size_t)] Invalid VLAN MTU: 575 (VLAN ID : 100 Egress ID: 77)\r\n");
    EXPECT_EQ(entries[5], " PMTUD-Prot: Invalid VLAN MTU: 575 (VLAN ID : 100 Egress ID: 77)");
}

class FailingCreateTest : public PacketTooBigTest, public testing::WithParamInterface<int> {};

TEST_P(FailingCreateTest, IsFalseWithoutALineAndClosesNothing) {
    fake::platform().icmp6SocketCreate = [](int32_t* fd) {
        *fd = 606;
        return GetParam();
    };
    EXPECT_FALSE(reply6(ipv6Frame(8)));
    EXPECT_EQ(last(fake::platform().debugTexts()),
              " PMTUD-Prot: Creating ICMPv6 Packet Too Big message. MTU size: 1500");
    EXPECT_EQ(fake::platform().icmp6Messages.size(), 0U);
    EXPECT_EQ(fake::syscalls().calls, Lines({"if_nametoindex(\"bcm0.20\")"}));
}

INSTANTIATE_TEST_SUITE_P(Results, FailingCreateTest, testing::Values(-1, 1, -19));

TEST_F(PacketTooBigTest, IsFalseWithoutALineAndClosesTheSocketWhereTheSendFailed) {
    fake::platform().icmp6Send = [] { return -1; };
    EXPECT_FALSE(reply6(ipv6Frame(8)));
    EXPECT_EQ(last(fake::platform().debugTexts()),
              " PMTUD-Prot: Creating ICMPv6 Packet Too Big message. MTU size: 1500");
    EXPECT_EQ(last(fake::syscalls().calls), "close(606)");
}

class SuccessfulSendTest : public PacketTooBigTest, public testing::WithParamInterface<int> {};

TEST_P(SuccessfulSendTest, IsTrueAndSaysSo) {
    fake::platform().icmp6Send = [] { return GetParam(); };
    EXPECT_TRUE(reply6(ipv6Frame(8)));
    EXPECT_EQ(last(fake::platform().debugTexts()),
              " PMTUD-Prot: ICMPv6 message sent to source 2001:db8:0:10::a");
    EXPECT_EQ(last(fake::syscalls().calls), "close(606)");
}

INSTANTIATE_TEST_SUITE_P(Results, SuccessfulSendTest, testing::Values(0, 1, 1500));

TEST_F(PacketTooBigTest, LeavesTheSocketOpenWhereAnExceptionPassesBehindItsOpening) {
    fake::platform().icmp6Send = []() -> int { throw std::runtime_error("gone"); };
    EXPECT_THROW(reply6(ipv6Frame(8)), std::runtime_error);
    EXPECT_EQ(fake::syscalls().calls, Lines({"if_nametoindex(\"bcm0.20\")"}));
}

TEST_F(PacketTooBigTest, SendsNothingOfAnEarlierFrame) {
    reply6(ipv6Frame(1460));
    const Bytes frame = ipv6Frame(0) + Bytes(1452);
    reply6(frame);
    EXPECT_EQ(fake::platform().icmp6Messages.at(1).bytes,
              Bytes({2, 0, 0, 0, 0, 0, 0x05, 0xdc}) + slice(frame, 18, 58));
}

// Every IPv6 frame is answered.

struct Change {
    const char* name;
    std::size_t offset;
    uint8_t value;
};

class ChangedPacketTest : public PacketTooBigTest, public testing::WithParamInterface<Change> {};

TEST_P(ChangedPacketTest, IsAnsweredAndQuotedAsItIs) {
    Bytes frame = ipv6Frame(8);
    frame[GetParam().offset] = GetParam().value;
    EXPECT_TRUE(reply6(frame));
    EXPECT_EQ(sent().bytes, Bytes({2, 0, 0, 0, 0, 0, 0x05, 0xdc}) + slice(frame, 18, 66));
}

INSTANTIATE_TEST_SUITE_P(
    Changes, ChangedPacketTest,
    testing::Values(Change{"AnotherTagProtocol", 12, 0x88}, Change{"AnotherEtherType", 16, 0x08},
                    Change{"AnotherVersion", 18, 0x45}, Change{"Icmpv6", 24, 58},
                    Change{"AFragment", 24, 44}, Change{"NoHopLimit", 25, 0},
                    Change{"AMulticastSource", 26, 0xFF}, Change{"AMulticastDestination", 42, 0xFF},
                    Change{"TheLastByte", 65, 0xFF}),
    [](const auto& row) { return row.param.name; });

TEST_F(PacketTooBigTest, AnswersAPacketThatFitsTheMtu) {
    answerMtu(16383);
    EXPECT_TRUE(reply6(ipv6Frame(8)));
    EXPECT_EQ(sent().bytes.size(), 56U);
}

TEST_F(PacketTooBigTest, AnswersAsManyFramesAsCome) {
    for (int i = 0; i < 500; ++i) ASSERT_TRUE(reply6(ipv6Frame(8)));
    EXPECT_EQ(fake::platform().icmp6Messages.size(), 500U);
}

TEST_F(PacketTooBigTest, ShowsTheReceivedLengthAsItCame) {
    const Bytes frame = ipv6Frame(8);
    app.sendICMP6PacketTooBig(frame.front(), 4294967295U);
    EXPECT_EQ(fake::platform().debugTexts().at(0),
              " PMTUD-Prot: Received IPv6 packet len 4294967295:");
}

TEST_F(PacketTooBigTest, GoesToALinkLocalSourceWithoutAScope) {
    Bytes frame = ipv6Frame(8);
    const Bytes linkLocal = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    std::copy(linkLocal.begin(), linkLocal.end(), frame.begin() + 26);
    std::fill(frame.begin() + 42, frame.begin() + 58, uint8_t{0});
    reply6(frame);
    const Lines texts = fake::platform().debugTexts();
    EXPECT_EQ(texts.at(1), " PMTUD-Prot:    From: fe80::1");
    EXPECT_EQ(texts.at(2), " PMTUD-Prot:    To: ::");
    EXPECT_EQ(last(texts), " PMTUD-Prot: ICMPv6 message sent to source fe80::1");
    EXPECT_EQ(sent().to.sin6_scope_id, 0U);
}

struct InvalidVlan {
    const char* name;
    int vlan;
    const char* fileText;
    const char* debugProcessText;
};

class InvalidVlanTextsTest : public PacketTooBigTest,
                             public testing::WithParamInterface<InvalidVlan> {};

TEST_P(InvalidVlanTextsTest, DifferInABlank) {
    answerVlan(GetParam().vlan);
    const Lines lines = logAt(qv::DEBUG, [this] { EXPECT_FALSE(reply6(ipv6Frame(8))); });
    EXPECT_EQ(last(lines),
              "14:03:07.2 DEBUG: [PMTUDApp:211 | bool PMTUDApp::sendICMP6PacketTooBig(const "
              "uint8_t&, size_t)] " +
                  std::string(GetParam().fileText) + "\r\n");
    EXPECT_EQ(fake::platform().debugTexts(), Lines({GetParam().debugProcessText}));
    EXPECT_EQ(fake::platform().calls, Lines({"cfg_vlan_l3_get_dest_vlan(77)"}));
}

INSTANTIATE_TEST_SUITE_P(
    Vlans, InvalidVlanTextsTest,
    testing::Values(InvalidVlan{"Zero", 0, "Invalid VLAN ID: 0 (Egress ID: 77)",
                                " PMTUD-Prot: Invalid VLAN ID: 0(Egress ID: 77)"},
                    InvalidVlan{"Vlan4095", 4095, "Invalid VLAN ID: 4095 (Egress ID: 77)",
                                " PMTUD-Prot: Invalid VLAN ID: 4095(Egress ID: 77)"},
                    InvalidVlan{"MinusOne", -1, "Invalid VLAN ID: -1 (Egress ID: 77)",
                                " PMTUD-Prot: Invalid VLAN ID: -1(Egress ID: 77)"}),
    [](const auto& row) { return row.param.name; });

struct InvalidMtu {
    uint32_t mtu;
    const char* text;
};

class InvalidMtuTextTest : public PacketTooBigTest,
                           public testing::WithParamInterface<InvalidMtu> {};

TEST_P(InvalidMtuTextTest, IsTheSameOnBothChannels) {
    answerMtu(GetParam().mtu);
    const Lines lines = logAt(qv::DEBUG, [this] { EXPECT_FALSE(reply6(ipv6Frame(8))); });
    EXPECT_EQ(last(lines),
              "14:03:07.2 DEBUG: [PMTUDApp:218 | bool PMTUDApp::sendICMP6PacketTooBig(const "
              "uint8_t&, size_t)] " +
                  std::string(GetParam().text) + "\r\n");
    EXPECT_EQ(fake::platform().debugTexts(),
              Lines({" PMTUD-Prot: " + std::string(GetParam().text)}));
}

INSTANTIATE_TEST_SUITE_P(
    Mtus, InvalidMtuTextTest,
    testing::Values(InvalidMtu{575, "Invalid VLAN MTU: 575 (VLAN ID : 100 Egress ID: 77)"},
                    InvalidMtu{16384, "Invalid VLAN MTU: 16384 (VLAN ID : 100 Egress ID: 77)"},
                    InvalidMtu{4294967295U,
                               "Invalid VLAN MTU: 4294967295 (VLAN ID : 100 Egress ID: 77)"}),
    [](const auto& row) { return std::to_string(row.param.mtu); });

// The socket and the buffers.

TEST_F(PacketTooBigTest, TakesDescriptor0AsASocket) {
    fake::platform().icmp6SocketCreate = [](int32_t* fd) {
        *fd = 0;
        return 0;
    };
    EXPECT_TRUE(reply6(ipv6Frame(8)));
    EXPECT_EQ(sent().fd, 0);
    EXPECT_EQ(last(fake::syscalls().calls), "close(0)");
}

TEST_F(PacketTooBigTest, IgnoresAFailingClose) {
    fake::syscalls().close = [] { return -1; };
    EXPECT_TRUE(reply6(ipv6Frame(8)));
}

TEST_F(PacketTooBigTest, IsBuiltOnTheStackOfTheCall) {
    const char above = 0;
    reply6(ipv6Frame(1460));
    // The stack grows downwards on all machines that this runs on.
    EXPECT_GT(handedOver, stackAtSend);
    EXPECT_LT(handedOver, reinterpret_cast<uintptr_t>(&above));
}

}  // namespace
