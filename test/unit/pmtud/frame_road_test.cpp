// SPDX-License-Identifier: MIT
// Tests of whole roads, from the queue's callback to the sent message: every line and every call
// in its order, at the threshold that writes all of them.
#include "engine_test.h"

using engine_test::Bytes;
using engine_test::EngineTest;
using engine_test::frameOfType;
using engine_test::ipv4Frame;
using engine_test::ipv6Frame;
using engine_test::Journal;
using engine_test::Lines;
using engine_test::recordWithEgress;
using engine_test::slice;

namespace {

/// Byte by byte the same in both byte orders: 01 00 00 01.
constexpr int32_t kEgress = 16777217;

/// `count` bytes of zero, each with a blank behind it.
std::string zeros(std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) text += "0 ";
    return text;
}

/// The two lines of the queue's callback for the record with that egress and nothing else set.
const std::string kNewPacket =
    "14:03:07.2 DEBUG: [SHM_Wrapper:97 | static int SHM_Wrapper_App::pkt_rx_cb(const "
    "st_pktd_shm_queue_entry_data_t*, uint8_t*, int)] new pkt from unit 1, port 1, is_trunk 0, tid "
    "0, vid 0, proto 0 [0], vtag 0, egress 16777217\r\n";
const std::string kRecord =
    "14:03:07.2 DEBUG1: [SHM_Wrapper:106 | static int SHM_Wrapper_App::pkt_rx_cb(const "
    "st_pktd_shm_queue_entry_data_t*, uint8_t*, int)] Dumping '&pktd_entry_data->ctrl' (364 "
    "bytes):\n[" +
    zeros(111) + "1 0 0 1 " + zeros(248) + "0]\r\n";
const std::string kActionSet =
    "14:03:07.2 DEBUG: [SHM_Wrapper:71 | void SHM_Wrapper::setPostAction(SHM_Wrapper::eActions)] "
    "action 0\r\n";
const std::string kMacs =
    "14:03:07.2 DEBUG: [PMTUDApp:288 | bool PMTUDApp::handleFrame(uint8_t&, size_t)] Src: "
    "00:00:5e:00:53:01 Dest: 00:1a:2b:3c:4d:5e VLAN: 20\r\n";
const std::string kMacsForDebugProcess =
    " PMTUD-Prot: Frame Src MAC: 00:00:5e:00:53:01, Dest MAC: 00:1a:2b:3c:4d:5e, Rx VLAN: 20, Tx "
    "egress: 16777217";
const std::string kReturned7 =
    "14:03:07.2 DEBUG: [SHM_Wrapper:112 | static int SHM_Wrapper_App::pkt_rx_cb(const "
    "st_pktd_shm_queue_entry_data_t*, uint8_t*, int)] handle frame ret 7\r\n";
/// Of a frame that the handler has answered, and of one that it has not.
const std::string kAnsweredDiscard =
    "14:03:07.2 DEBUG: [SHM_Wrapper:57 | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] "
    "Discarding packet\r\n";
const std::string kUnansweredDiscard =
    "14:03:07.2 DEBUG: [SHM_Wrapper:49 | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] "
    "Discarding packet\r\n";

const std::string kEthDump4 =
    "\n===== [ETH DUMP] =====\n"
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
const std::string kEthDump6 =
    "\n===== [ETH DUMP] =====\n"
    "data[18]: [00 1a 2b 3c 4d 5e 00 00 5e 00 53 01 81 00 70 14 86 dd]\n"
    "dest: 0:1a:2b:3c:4d:5e\n"
    "source: 0:0:5e:0:53:1\n"
    "vlan_tpid: 33024 [0x8100]\n"
    "vlan_tci: 28692 [0x7014]\n"
    "  vlan_pcp: 3 [0x3]\n"
    "  vlan_dei: 1 [0x1]\n"
    "  vlan_id: 20 [0x14]\n"
    "proto: 34525 [0x86dd]\n"
    "\r\n";
const std::string kIpv4Dump =
    "\n===== [IPv4 DUMP] =====\n"
    "data[60]: [45 00 06 2e 12 34 40 00 40 11 36 39 c0 00 02 0a c6 33 64 14 00 01 02 03 04 05 06 "
    "07 08 09 0a 0b 0c 0d 0e 0f 10 11 12 13 14 15 16 17 18 19 1a 1b 1c 1d 1e 1f 20 21 22 23 24 25 "
    "26 27]\n"
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
/// Of the packet with eight bytes of payload.
const std::string kIpv6Dump =
    "\n===== [IPv6 DUMP] =====\n"
    "data[48]: [6a bc de f1 00 08 11 40 20 01 0d b8 00 00 00 10 00 00 00 00 00 00 00 0a 20 01 0d "
    "b8 00 00 00 20 00 00 00 00 00 00 00 14 00 01 02 03 04 05 06 07]\n"
    "Version: 6 [0x6]\n"
    "Traffic Class: 0 [0]\n"
    "Flow Label: 843505 [0xcdef1]\n"
    "Total Length: 8 [0x8]\n"
    "\n"
    "Next Header: 17 [0x11]\n"
    "Hop Limit: 64 [0x40]\n"
    "Src: 2001:db8:0:10::a\n"
    "Dst: 2001:db8:0:20::14\n"
    "\r\n";

/// What is written of each frame before its family matters.
Lines arrival(const std::string& length, const std::string& ethDump) {
    return {
        kNewPacket,
        kRecord,
        "14:03:07.2 DEBUG1: [SHM_Wrapper:37 | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] " +
            ethDump,
        "14:03:07.2 DEBUG: [PMTUDApp:280 | bool PMTUDApp::handleFrame(uint8_t&, size_t)] recvd "
        "frame len " +
            length + "\r\n",
        " PMTUD-Prot: Received frame of size: " + length,
        kActionSet,
        "14:03:07.2 DEBUG: [PMTUDApp:286 | bool PMTUDApp::handleFrame(uint8_t&, size_t)] " +
            ethDump,
        kMacs,
        kMacsForDebugProcess};
}

/// What is written of each IPv4 and IPv6 frame next.
Lines headers4() {
    return {
        "14:03:07.2 DEBUG: [PMTUDApp:103 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, "
        "size_t)] " +
            kEthDump4,
        "14:03:07.2 DEBUG: [PMTUDApp:106 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, "
        "size_t)] " +
            kIpv4Dump,
        "cfg_vlan_l3_get_dest_vlan(16777217)"};
}
Lines headers6() {
    return {
        "14:03:07.2 DEBUG: [PMTUDApp:202 | bool PMTUDApp::sendICMP6PacketTooBig(const "
        "uint8_t&, size_t)] " +
            kEthDump6,
        "14:03:07.2 DEBUG: [PMTUDApp:205 | bool PMTUDApp::sendICMP6PacketTooBig(const "
        "uint8_t&, size_t)] " +
            kIpv6Dump,
        "cfg_vlan_l3_get_dest_vlan(16777217)"};
}

const Lines kReply4 = {
    "cfg_vlan_l3_get_mtu(100)",
    "14:03:07.2 DEBUG: [PMTUDApp:127 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] MTU "
    "VLAN: 1500 VLAN:20\r\n",
    " PMTUD-Prot: Received IPv4 packet len 1600:",
    " PMTUD-Prot:    From: 192.0.2.10",
    " PMTUD-Prot:    To: 198.51.100.20",
    " PMTUD-Prot:    Dest VLAN ID: 100",
    " PMTUD-Prot:    Dest VLAN MTU: 1500",
    "14:03:07.2 DEBUG: [PMTUDApp:142 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] "
    "Src: 00:00:5e:00:53:01 Dest: 00:1a:2b:3c:4d:5e VLAN: 20 packet_len: 68\r\n",
    "socket(2, 3, 1)",
    "setsockopt(404, 0, 2, [64], 1)",
    " PMTUD-Prot: Creating ICMP Dest. Unreach. Need Frag. message. MTU size: 1500",
    "sendto(404, 68 bytes, 0, 16)",
    " PMTUD-Prot: ICMP message sent to source 192.0.2.10",
    "close(404)",
    kAnsweredDiscard,
    kReturned7};

const Lines kReply6 = {
    "cfg_vlan_l3_get_mtu(100)",
    "14:03:07.2 DEBUG: [PMTUDApp:223 | bool PMTUDApp::sendICMP6PacketTooBig(const uint8_t&, "
    "size_t)] MTU VLAN: 1500 VLAN:20\r\n",
    " PMTUD-Prot: Received IPv6 packet len 66:",
    " PMTUD-Prot:    From: 2001:db8:0:10::a",
    " PMTUD-Prot:    To: 2001:db8:0:20::14",
    " PMTUD-Prot:    Dest VLAN ID: 100",
    " PMTUD-Prot:    Dest VLAN MTU: 1500",
    "14:03:07.2 DEBUG: [PMTUDApp:237 | bool PMTUDApp::sendICMP6PacketTooBig(const uint8_t&, "
    "size_t)] Src: 00:00:5e:00:53:01 Dest: 00:1a:2b:3c:4d:5e VLAN: 20 packet_len: 56\r\n",
    "if_nametoindex(\"bcm0.20\")",
    " PMTUD-Prot: Creating ICMPv6 Packet Too Big message. MTU size: 1500",
    "14:03:07.2 DEBUG: [PMTUDApp:257 | bool PMTUDApp::sendICMP6PacketTooBig(const uint8_t&, "
    "size_t)] ifindex: 7\r\n",
    "arpd_icmp6_socket_create(\"bcm0.20\")",
    "14:03:07.2 DEBUG: [PMTUDApp:265 | bool PMTUDApp::sendICMP6PacketTooBig(const uint8_t&, "
    "size_t)] socket created OK\r\n",
    "arpd_ipv6_pkt_send(606, 7)",
    " PMTUD-Prot: ICMPv6 message sent to source 2001:db8:0:10::a",
    "close(606)",
    kAnsweredDiscard,
    kReturned7};

Lines joined(std::initializer_list<Lines> pieces) {
    Lines all;
    for (const Lines& piece : pieces) all.insert(all.end(), piece.begin(), piece.end());
    return all;
}

class FrameRoadTest : public EngineTest {
 protected:
    /// Hands the frame to the queue's callback, which must answer 7.
    static void receive(Bytes frame) {
        const st_pktd_shm_queue_entry_data_t record = recordWithEgress(kEgress);
        EXPECT_EQ(SHM_Wrapper_App::pkt_rx_cb(&record, frame.data(), static_cast<int>(frame.size())),
                  7);
    }
    static Lines roadOf(const Bytes& frame) {
        Journal journal(qv::DEBUG1);
        receive(frame);
        return journal.entries();
    }
};

TEST_F(FrameRoadTest, OfIpv4LeadsToAnIcmpMessage) {
    EXPECT_EQ(roadOf(ipv4Frame()), joined({arrival("1600", kEthDump4), headers4(), kReply4}));
}

TEST_F(FrameRoadTest, OfIpv6LeadsToAnIcmpv6Message) {
    EXPECT_EQ(roadOf(ipv6Frame(8)), joined({arrival("66", kEthDump6), headers6(), kReply6}));
}

TEST_F(FrameRoadTest, OfIpv4ForAnInvalidVlanEndsThere) {
    answerVlan(4095);
    EXPECT_EQ(roadOf(ipv4Frame()),
              joined({arrival("1600", kEthDump4),
                      headers4(),
                      {"14:03:07.2 DEBUG: [PMTUDApp:115 | bool "
                       "PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] Invalid VLAN ID - VLAN "
                       "ID: 4095 Egress: 16777217\r\n",
                       " PMTUD-Prot: Invalid VLAN ID - VLAN ID: 4095 Egress: 16777217",
                       kUnansweredDiscard, kReturned7}}));
}

TEST_F(FrameRoadTest, OfIpv4ForAnInvalidMtuEndsThere) {
    answerMtu(16384);
    EXPECT_EQ(roadOf(ipv4Frame()),
              joined({arrival("1600", kEthDump4),
                      headers4(),
                      {"cfg_vlan_l3_get_mtu(100)",
                       "14:03:07.2 DEBUG: [PMTUDApp:122 | bool "
                       "PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] Invalid VLAN MTU - VLAN "
                       "ID: 100 Egress: 16777217 VLAN MTU: 16384\r\n",
                       " PMTUD-Prot: Invalid VLAN MTU - VLAN ID: 100 Egress: 16777217 VLAN MTU: "
                       "16384",
                       kUnansweredDiscard, kReturned7}}));
}

TEST_F(FrameRoadTest, OfIpv6ForAnInvalidVlanEndsThere) {
    answerVlan(0);
    EXPECT_EQ(roadOf(ipv6Frame(8)),
              joined({arrival("66", kEthDump6),
                      headers6(),
                      {"14:03:07.2 DEBUG: [PMTUDApp:211 | bool "
                       "PMTUDApp::sendICMP6PacketTooBig(const uint8_t&, size_t)] Invalid VLAN ID: "
                       "0 (Egress ID: 16777217)\r\n",
                       " PMTUD-Prot: Invalid VLAN ID: 0(Egress ID: 16777217)", kUnansweredDiscard,
                       kReturned7}}));
}

TEST_F(FrameRoadTest, OfIpv6ForAnInvalidMtuEndsThere) {
    answerMtu(575);
    EXPECT_EQ(roadOf(ipv6Frame(8)),
              joined({arrival("66", kEthDump6),
                      headers6(),
                      {"cfg_vlan_l3_get_mtu(100)",
                       "14:03:07.2 DEBUG: [PMTUDApp:218 | bool "
                       "PMTUDApp::sendICMP6PacketTooBig(const uint8_t&, size_t)] Invalid VLAN MTU: "
                       "575 (VLAN ID : 100 Egress ID: 16777217)\r\n",
                       " PMTUD-Prot: Invalid VLAN MTU: 575 (VLAN ID : 100 Egress ID: 16777217)",
                       kUnansweredDiscard, kReturned7}}));
}

TEST_F(FrameRoadTest, OfIpv4WithoutASocketEndsThere) {
    fake::syscalls().socket = [] { return -1; };
    Lines expected = joined({arrival("1600", kEthDump4), headers4(), kReply4});
    expected.erase(std::find(expected.begin(), expected.end(), "setsockopt(404, 0, 2, [64], 1)"),
                   expected.end());
    expected.insert(expected.end(),
                    {" PMTUD-Prot: Error creating socket", kUnansweredDiscard, kReturned7});
    EXPECT_EQ(roadOf(ipv4Frame()), expected);
}

TEST_F(FrameRoadTest, OfIpv4ThatCannotBeSentLacksOneLineAndCountsAsAnswered) {
    fake::syscalls().sendto = [](std::size_t) { return -1L; };
    Lines expected = joined({arrival("1600", kEthDump4), headers4(), kReply4});
    std::erase(expected, " PMTUD-Prot: ICMP message sent to source 192.0.2.10");
    EXPECT_EQ(roadOf(ipv4Frame()), expected);
}

TEST_F(FrameRoadTest, OfIpv6WithoutASocketEndsThereInSilence) {
    fake::platform().icmp6SocketCreate = [](int32_t*) { return -19; };
    Lines expected = joined({arrival("66", kEthDump6), headers6(), kReply6});
    expected.erase(
        std::find(expected.begin(), expected.end(), "arpd_icmp6_socket_create(\"bcm0.20\")") + 1,
        expected.end());
    expected.insert(expected.end(), {kUnansweredDiscard, kReturned7});
    EXPECT_EQ(roadOf(ipv6Frame(8)), expected);
}

TEST_F(FrameRoadTest, OfIpv6ThatCannotBeSentLacksOneLineAndCountsAsUnanswered) {
    fake::platform().icmp6Send = [] { return -1; };
    Lines expected = joined({arrival("66", kEthDump6), headers6(), kReply6});
    std::erase(expected, " PMTUD-Prot: ICMPv6 message sent to source 2001:db8:0:10::a");
    std::replace(expected.begin(), expected.end(), kAnsweredDiscard, kUnansweredDiscard);
    EXPECT_EQ(roadOf(ipv6Frame(8)), expected);
}

TEST_F(FrameRoadTest, OfArpEndsAtItsEtherType) {
    const std::string ethDump =
        "\n===== [ETH DUMP] =====\n"
        "data[18]: [00 1a 2b 3c 4d 5e 00 00 5e 00 53 01 81 00 70 14 08 06]\n"
        "dest: 0:1a:2b:3c:4d:5e\n"
        "source: 0:0:5e:0:53:1\n"
        "vlan_tpid: 33024 [0x8100]\n"
        "vlan_tci: 28692 [0x7014]\n"
        "  vlan_pcp: 3 [0x3]\n"
        "  vlan_dei: 1 [0x1]\n"
        "  vlan_id: 20 [0x14]\n"
        "proto: 2054 [0x806]\n"
        "\r\n";
    EXPECT_EQ(roadOf(frameOfType(0x0806)),
              joined({arrival("60", ethDump), {kUnansweredDiscard, kReturned7}}));
}

TEST_F(FrameRoadTest, OfAFrameWithoutAnIeee8021QTagNeverReachesTheEngine) {
    Bytes frame = ipv4Frame();
    frame[12] = 0x08;
    Journal journal(qv::WARNING);
    receive(frame);
    EXPECT_EQ(journal.entries(),
              Lines{"14:03:07.2 WARNING: [SHM_Wrapper:40 | int SHM_Wrapper::handleFrame(uint8_t*, "
                    "size_t)] Warning! Invalid tpid 2048 [0x800]\r\n"});
}

// The road above in bytes, at the threshold that writes nothing.

TEST_F(FrameRoadTest, EndsWithTheWholeIpv4MessageOnTheSocket) {
    Bytes frame = ipv4Frame();
    receive(frame);
    ASSERT_EQ(fake::syscalls().sent.size(), 1U);
    EXPECT_EQ(slice(fake::syscalls().sent[0].bytes, 0, 28),
              (Bytes{0x03, 0x04, 0x79, 0x8e, 0x00, 0x00, 0x05, 0xdc, 0x45, 0x00,
                     0x06, 0x2e, 0x12, 0x34, 0x40, 0x00, 0x40, 0x11, 0x36, 0x39,
                     0xc0, 0x00, 0x02, 0x0a, 0xc6, 0x33, 0x64, 0x14}));
    EXPECT_EQ(slice(fake::syscalls().sent[0].bytes, 28, 68), engine_test::payload(40));
}

TEST_F(FrameRoadTest, EndsWithTheWholeIpv6MessageInTheSendLibrary) {
    receive(ipv6Frame(8));
    ASSERT_EQ(fake::platform().icmp6Messages.size(), 1U);
    EXPECT_EQ(fake::platform().icmp6Messages[0].bytes,
              (Bytes{0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0xdc, 0x6a, 0xbc, 0xde, 0xf1,
                     0x00, 0x08, 0x11, 0x40, 0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x10,
                     0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0a, 0x20, 0x01, 0x0d, 0xb8,
                     0x00, 0x00, 0x00, 0x20, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x14,
                     0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07}));
}

TEST_F(FrameRoadTest, WritesEveryDebugProcessLineUnderModule89WithTheFormatForText) {
    receive(ipv4Frame());
    receive(ipv6Frame(8));
    answerVlan(0);
    receive(ipv4Frame());
    receive(ipv6Frame(8));
    answerVlan(100);
    answerMtu(0);
    receive(ipv4Frame());
    receive(ipv6Frame(8));
    EXPECT_EQ(fake::platform().debugLines.size(), 30U);
    for (const fake::DebugLine& line : fake::platform().debugLines) {
        EXPECT_EQ(line.channel, 89U) << line.text;
        EXPECT_EQ(line.format, "%s") << line.text;
    }
}

}  // namespace
