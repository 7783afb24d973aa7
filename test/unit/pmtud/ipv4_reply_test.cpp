// SPDX-License-Identifier: MIT
// Tests of the IPv4 reply as a whole: all it says at DEBUG, the ways it ends, what it leaves alone.
#include <stdexcept>
#include <tuple>

#include "engine_test.h"

namespace {

using engine_test::Bytes;
using engine_test::EngineTest;
using engine_test::ipv4Frame;
using engine_test::Journal;
using engine_test::last;
using engine_test::Lines;
using engine_test::recordWithEgress;
using engine_test::slice;

// The lines of the file channel at DEBUG for engine_test::ipv4Frame.
constexpr char kEthernetDump[] =
    "14:03:07.2 DEBUG: [PMTUDApp:103 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] \n"
    "===== [ETH DUMP] =====\n"
    "data[18]: [00 1a 2b 3c 4d 5e 00 00 5e 00 53 01 81 00 70 14 08 00]\n"
    "dest: 0:1a:2b:3c:4d:5e\n"
    "source: 0:0:5e:0:53:1\n"
    "vlan_tpid: 33024 [0x8100]\n"
    "vlan_tci: 28692 [0x7014]\n"
    "  vlan_pcp: 3 [0x3]\n"
    "  vlan_dei: 1 [0x1]\n"
    "  vlan_id: 20 [0x14]\n"
    "proto: 2048 [0x800]\n"
    "\r\n";
constexpr char kIpv4Dump[] =
    "14:03:07.2 DEBUG: [PMTUDApp:106 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] \n"
    "===== [IPv4 DUMP] =====\n"
    "data[60]: [45 00 06 2e 12 34 40 00 40 11 36 39 c0 00 02 0a c6 33 64 14 "
    "00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 11 12 13 "
    "14 15 16 17 18 19 1a 1b 1c 1d 1e 1f 20 21 22 23 24 25 26 27]\n"
    "Version: 4 [0x4]\n"
    "IHL raw: 5 [0x5]/ IHL: 20 [0x14]\n"
    "TOS: 0 [0]\n"
    "Total Length: 1582 [0x62e]\n"
    "Id: 4660 [0x1234]\n"
    "Flags: 2 [0x2], DF=1, MF=0\n"
    "Fragment offset: 0 [0]\n"
    "TTL: 64 [0x40]\n"
    "Protocol: 17 [0x11]\n"
    "Checksum: 13881 [0x3639]\n"
    "Src: 192.0.2.10\n"
    "Dst: 198.51.100.20\n"
    "\r\n";
constexpr char kInvalidVlan4095[] =
    "14:03:07.2 DEBUG: [PMTUDApp:115 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] "
    "Invalid VLAN ID - VLAN ID: 4095 Egress: 77\r\n";
constexpr char kInvalidMtu0[] =
    "14:03:07.2 DEBUG: [PMTUDApp:122 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] "
    "Invalid VLAN MTU - VLAN ID: 100 Egress: 77 VLAN MTU: 0\r\n";
constexpr char kResolved[] =
    "14:03:07.2 DEBUG: [PMTUDApp:127 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] "
    "MTU VLAN: 1500 VLAN:20\r\n";
constexpr char kLength[] =
    "14:03:07.2 DEBUG: [PMTUDApp:142 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] "
    "Src: 00:00:5e:00:53:01 Dest: 00:1a:2b:3c:4d:5e VLAN: 20 packet_len: 68\r\n";

class Ipv4ReplyTest : public EngineTest {
 protected:
    static const fake::SentMessage& sent() { return fake::syscalls().sent.at(0); }

    /// Every log statement throws from when this is called.
    static void breakClock() { fake::clock().localtimeFails = true; }
};

// All it says and does at DEBUG, in one order.

TEST_F(Ipv4ReplyTest, WritesAndCallsAllThisInThisOrderAtDebug) {
    Journal journal(qv::DEBUG4);
    EXPECT_TRUE(reply4(ipv4Frame()));
    EXPECT_EQ(
        journal.entries(),
        (Lines{kEthernetDump, kIpv4Dump, "cfg_vlan_l3_get_dest_vlan(77)",
               "cfg_vlan_l3_get_mtu(100)", kResolved, " PMTUD-Prot: Received IPv4 packet len 1600:",
               " PMTUD-Prot:    From: 192.0.2.10", " PMTUD-Prot:    To: 198.51.100.20",
               " PMTUD-Prot:    Dest VLAN ID: 100", " PMTUD-Prot:    Dest VLAN MTU: 1500", kLength,
               "socket(2, 3, 1)", "setsockopt(404, 0, 2, [64], 1)",
               " PMTUD-Prot: Creating ICMP Dest. Unreach. Need Frag. message. MTU size: 1500",
               "sendto(404, 68 bytes, 0, 16)",
               " PMTUD-Prot: ICMP message sent to source 192.0.2.10", "close(404)"}));
}

TEST_F(Ipv4ReplyTest, EndsInThisOrderAtDebugWhereTheVlanIsInvalid) {
    answerVlan(4095);
    Journal journal(qv::DEBUG);
    EXPECT_FALSE(reply4(ipv4Frame()));
    EXPECT_EQ(journal.entries(),
              (Lines{kEthernetDump, kIpv4Dump, "cfg_vlan_l3_get_dest_vlan(77)", kInvalidVlan4095,
                     " PMTUD-Prot: Invalid VLAN ID - VLAN ID: 4095 Egress: 77"}));
}

TEST_F(Ipv4ReplyTest, EndsInThisOrderAtDebugWhereTheMtuIsInvalid) {
    answerMtu(0);
    Journal journal(qv::DEBUG);
    EXPECT_FALSE(reply4(ipv4Frame()));
    EXPECT_EQ(journal.entries(),
              (Lines{kEthernetDump, kIpv4Dump, "cfg_vlan_l3_get_dest_vlan(77)",
                     "cfg_vlan_l3_get_mtu(100)", kInvalidMtu0,
                     " PMTUD-Prot: Invalid VLAN MTU - VLAN ID: 100 Egress: 77 VLAN MTU: 0"}));
}

TEST_F(Ipv4ReplyTest, EndsInThisOrderAtDebugWhereTheSocketFails) {
    fake::syscalls().socket = [] { return -1; };
    Journal journal(qv::DEBUG);
    EXPECT_FALSE(reply4(ipv4Frame()));
    EXPECT_EQ(
        journal.entries(),
        (Lines{kEthernetDump, kIpv4Dump, "cfg_vlan_l3_get_dest_vlan(77)",
               "cfg_vlan_l3_get_mtu(100)", kResolved, " PMTUD-Prot: Received IPv4 packet len 1600:",
               " PMTUD-Prot:    From: 192.0.2.10", " PMTUD-Prot:    To: 198.51.100.20",
               " PMTUD-Prot:    Dest VLAN ID: 100", " PMTUD-Prot:    Dest VLAN MTU: 1500", kLength,
               "socket(2, 3, 1)", " PMTUD-Prot: Error creating socket"}));
}

// The same ends below DEBUG: the debug process hears of them all the same.

TEST_F(Ipv4ReplyTest, TellsTheDebugProcessAloneOfAnInvalidVlanBelowDebug) {
    answerVlan(0);
    Journal journal(qv::INFO);
    reply4(ipv4Frame());
    EXPECT_EQ(journal.entries(), (Lines{"cfg_vlan_l3_get_dest_vlan(77)",
                                        " PMTUD-Prot: Invalid VLAN ID - VLAN ID: 0 Egress: 77"}));
}

TEST_F(Ipv4ReplyTest, TellsTheDebugProcessAloneOfAnInvalidMtuBelowDebug) {
    answerMtu(575);
    Journal journal(qv::INFO);
    reply4(ipv4Frame());
    EXPECT_EQ(journal.entries(),
              (Lines{"cfg_vlan_l3_get_dest_vlan(77)", "cfg_vlan_l3_get_mtu(100)",
                     " PMTUD-Prot: Invalid VLAN MTU - VLAN ID: 100 Egress: 77 VLAN MTU: 575"}));
}

TEST_F(Ipv4ReplyTest, WritesEveryLineToModule89AsAnArgumentOfTheFormat) {
    reply4(ipv4Frame());
    ASSERT_EQ(fake::platform().debugLines.size(), 7U);
    for (const fake::DebugLine& line : fake::platform().debugLines) {
        EXPECT_EQ(line.channel, 89U) << line.text;
        EXPECT_EQ(line.format, "%s") << line.text;
    }
}

// The calls where one of them fails.

TEST_F(Ipv4ReplyTest, MakesTheSameCallsWhereTheTimeToLiveCannotBeSet) {
    fake::syscalls().setsockopt = [] { return -1; };
    EXPECT_TRUE(reply4(ipv4Frame()));
    EXPECT_EQ(fake::syscalls().calls, (Lines{"socket(2, 3, 1)", "setsockopt(404, 0, 2, [64], 1)",
                                             "sendto(404, 68 bytes, 0, 16)", "close(404)"}));
}

TEST_F(Ipv4ReplyTest, MakesTheSameCallsOnceEachWhereTheSendFails) {
    fake::syscalls().sendto = [](std::size_t) { return -1L; };
    EXPECT_TRUE(reply4(ipv4Frame()));
    EXPECT_EQ(fake::syscalls().calls, (Lines{"socket(2, 3, 1)", "setsockopt(404, 0, 2, [64], 1)",
                                             "sendto(404, 68 bytes, 0, 16)", "close(404)"}));
}

TEST_F(Ipv4ReplyTest, IsTrueWhereTheSocketCannotBeClosed) {
    fake::syscalls().close = [] { return -1; };
    EXPECT_TRUE(reply4(ipv4Frame()));
}

TEST_F(Ipv4ReplyTest, UsesADescriptorOfZero) {
    fake::syscalls().socket = [] { return 0; };
    EXPECT_TRUE(reply4(ipv4Frame()));
    EXPECT_EQ(fake::syscalls().calls, (Lines{"socket(2, 3, 1)", "setsockopt(0, 0, 2, [64], 1)",
                                             "sendto(0, 68 bytes, 0, 16)", "close(0)"}));
}

struct Ending {
    const char* name;
    void (*arrange)();
};

class VerdictOfEndingTest : public EngineTest, public testing::WithParamInterface<Ending> {};

TEST_P(VerdictOfEndingTest, IsDiscard) {
    GetParam().arrange();
    adapter.setPostAction(SHM_Wrapper::eAccept);
    Bytes frame = ipv4Frame();
    const st_pktd_shm_queue_entry_data_t record = recordWithEgress(77);
    EXPECT_EQ(SHM_Wrapper_App::pkt_rx_cb(&record, frame.data(), 1600), 7);
}

INSTANTIATE_TEST_SUITE_P(
    Endings, VerdictOfEndingTest,
    testing::Values(
        Ending{"Sent", [] {}},
        Ending{"InvalidVlan", [] { fake::platform().destVlan = [](int) { return -1; }; }},
        Ending{"InvalidMtu", [] { fake::platform().vlanMtu = [](int) { return 0U; }; }},
        Ending{"SocketFailed", [] { fake::syscalls().socket = [] { return -1; }; }},
        Ending{"TimeToLiveNotSet", [] { fake::syscalls().setsockopt = [] { return -1; }; }},
        Ending{"SendFailed", [] { fake::syscalls().sendto = [](std::size_t) { return -1L; }; }}),
    [](const auto& row) { return row.param.name; });

// What it does not look at, and what it leaves alone.

class ReceivedLengthTest
    : public Ipv4ReplyTest,
      public testing::WithParamInterface<std::tuple<std::size_t, const char*>> {};

TEST_P(ReceivedLengthTest, IsShownAndChangesNothingElse) {
    const auto& [length, line] = GetParam();
    Bytes frame = ipv4Frame();
    EXPECT_TRUE(app.sendICMP4PacketTooBig(frame.data(), length));
    EXPECT_EQ(fake::platform().debugTexts().at(0), line);
    EXPECT_EQ(sent().bytes.size(), 68U);
    EXPECT_EQ(slice(sent().bytes, 8, 68), slice(frame, 18, 78));
}

INSTANTIATE_TEST_SUITE_P(
    Lengths, ReceivedLengthTest,
    testing::Values(std::tuple(0, " PMTUD-Prot: Received IPv4 packet len 0:"),
                    std::tuple(17, " PMTUD-Prot: Received IPv4 packet len 17:"),
                    std::tuple(64, " PMTUD-Prot: Received IPv4 packet len 64:"),
                    std::tuple(std::size_t{4294967295U},
                               " PMTUD-Prot: Received IPv4 packet len 4294967295:")),
    [](const auto& row) { return std::to_string(std::get<0>(row.param)); });

TEST_F(Ipv4ReplyTest, AnswersAPacketWithoutDfThatClaimsToBeNoIpv4AtAll) {
    Bytes frame = ipv4Frame();
    frame[18] = 0x00;
    frame[24] = 0x00;
    EXPECT_TRUE(reply4(frame));
    EXPECT_EQ(slice(sent().bytes, 8, 68), slice(frame, 18, 78));
}

TEST_F(Ipv4ReplyTest, LeavesTheFrameAsItWas) {
    Bytes frame = ipv4Frame();
    app.sendICMP4PacketTooBig(frame.data(), frame.size());
    EXPECT_EQ(frame, ipv4Frame());
}

TEST_F(Ipv4ReplyTest, GoesToABroadcastSourceAsToAnyOther) {
    Bytes frame = ipv4Frame();
    std::fill(frame.begin() + 30, frame.begin() + 34, uint8_t{0xFF});
    reply4(frame);
    EXPECT_EQ(sent().to.sin_addr.s_addr, 0xFFFFFFFFU);
    EXPECT_EQ(last(fake::platform().debugTexts()),
              " PMTUD-Prot: ICMP message sent to source 255.255.255.255");
}

TEST_F(Ipv4ReplyTest, HasTheMtuInBothOfItsLines) {
    answerMtu(16383);
    reply4(ipv4Frame());
    const Lines lines = fake::platform().debugTexts();
    EXPECT_EQ(lines.at(4), " PMTUD-Prot:    Dest VLAN MTU: 16383");
    EXPECT_EQ(lines.at(5),
              " PMTUD-Prot: Creating ICMP Dest. Unreach. Need Frag. message. MTU size: 16383");
}

// The sums in the comments are the literal words added up apart from the code.
// 0304 + 0240 (ICMP) + 4500 + C000 + 020A + F3B1 (quote) = 1FFFF, folded 10000, complement FFFF.
// With the carry of the fold added back it were FFFE.
TEST_F(Ipv4ReplyTest, HasAChecksumWhoseFoldDropsItsCarry) {
    answerMtu(576);
    Bytes frame = slice(ipv4Frame(), 0, 18);
    frame.resize(78);
    frame[18] = 0x45;
    frame[30] = 0xc0;
    frame[32] = 0x02;
    frame[33] = 0x0a;
    frame[38] = 0xf3;
    frame[39] = 0xb1;
    reply4(frame);
    EXPECT_EQ(slice(sent().bytes, 0, 8), (Bytes{3, 4, 0xff, 0xff, 0, 0, 0x02, 0x40}));
}

// 0304 + 05DC (ICMP) + 4F00 + 29 * FFFF (quote) = 1D57C3, folded 57E0, complement A81F.
TEST_F(Ipv4ReplyTest, IsQuotedToTheLastByteOfAHeaderWithAllItsOptions) {
    Bytes frame = slice(ipv4Frame(), 0, 18);
    frame.insert(frame.end(), {0x4F, 0x00});
    frame.resize(78, 0xFF);
    frame.push_back(0xEE);
    reply4(frame);
    const Bytes header = {3, 4, 0xa8, 0x1f, 0, 0, 0x05, 0xdc, 0x4F, 0x00};
    EXPECT_EQ(slice(sent().bytes, 0, 10), header);
    EXPECT_EQ(slice(sent().bytes, 10, 68), Bytes(58, 0xFF));
}

// Exceptions travel to the caller, and no message goes out.

TEST_F(Ipv4ReplyTest, LetsAnExceptionAboutTheVlanThrough) {
    fake::platform().destVlan = [](int) -> int { throw std::runtime_error("gone"); };
    EXPECT_THROW(reply4(ipv4Frame()), std::runtime_error);
    EXPECT_EQ(fake::platform().calls, Lines{"cfg_vlan_l3_get_dest_vlan(77)"});
    EXPECT_EQ(fake::platform().debugTexts(), Lines{});
    EXPECT_EQ(fake::syscalls().calls, Lines{});
}

TEST_F(Ipv4ReplyTest, LetsAnExceptionOfItsFirstStatementThrough) {
    const CapturedLog log(qv::DEBUG);
    breakClock();
    EXPECT_THROW(reply4(ipv4Frame()), std::runtime_error);
    EXPECT_EQ(fake::platform().calls, Lines{});
}

TEST_F(Ipv4ReplyTest, LetsAnExceptionOfTheInvalidVlanStatementThroughBeforeTheDebugProcessHears) {
    const CapturedLog log(qv::DEBUG);
    fake::platform().destVlan = [](int) {
        breakClock();
        return 0;
    };
    EXPECT_THROW(reply4(ipv4Frame()), std::runtime_error);
    EXPECT_EQ(fake::platform().debugTexts(), Lines{});
}

TEST_F(Ipv4ReplyTest, LetsAnExceptionOfTheInvalidMtuStatementThroughBeforeTheDebugProcessHears) {
    const CapturedLog log(qv::DEBUG);
    fake::platform().vlanMtu = [](int) {
        breakClock();
        return 0U;
    };
    EXPECT_THROW(reply4(ipv4Frame()), std::runtime_error);
    EXPECT_EQ(fake::platform().debugTexts(), Lines{});
}

TEST_F(Ipv4ReplyTest, LetsAnExceptionOfItsLastStatementThroughAndOpensNoSocket) {
    const CapturedLog log(qv::DEBUG);
    fake::platform().onDebugLine = [](const fake::DebugLine& line) {
        if (line.text == " PMTUD-Prot:    Dest VLAN MTU: 1500") breakClock();
    };
    EXPECT_THROW(reply4(ipv4Frame()), std::runtime_error);
    EXPECT_EQ(fake::platform().debugTexts().size(), 5U);
    EXPECT_EQ(fake::syscalls().calls, Lines{});
}

TEST_F(Ipv4ReplyTest, NeedsNoClockBelowDebug) {
    breakClock();
    EXPECT_TRUE(reply4(ipv4Frame()));
}

}  // namespace
