// SPDX-License-Identifier: MIT
// The two roads of a frame through the daemon, whole, and the daemon to send frames along them.
#include "roads.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "SHM_Wrapper.h"
#include "allocations.h"

namespace faults {

namespace {

using Frame = std::array<uint8_t, 78>;

const Frame kIpv4Frame = {
    0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0x00, 0x00, 0x5e, 0x00, 0x53, 0x01,  // MACs
    0x81, 0x00, 0x70, 0x14, 0x08, 0x00,                                      // tag, EtherType
    0x45, 0x00, 0x06, 0x40, 0x12, 0x34, 0x40, 0x00, 0x40, 0x11, 0x36, 0x27,  // IPv4
    0xc0, 0x00, 0x02, 0x0a, 0xc6, 0x33, 0x64, 0x14,                          // its addresses
    0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xab, 0xac, 0xad,
    0xae, 0xaf, 0xb0, 0xb1, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba, 0xbb,
    0xbc, 0xbd, 0xbe, 0xbf, 0xc0, 0xc1, 0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7};

const Frame kIpv6Frame = {
    0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0x00, 0x00, 0x5e, 0x00, 0x53, 0x01,  // MACs
    0x81, 0x00, 0x70, 0x14, 0x86, 0xdd,                                      // tag, EtherType
    0x6a, 0xbc, 0xde, 0xf1, 0x00, 0x08, 0x11, 0x40,                          // IPv6
    0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00, 0x00,  // source
    0x00, 0x00, 0x00, 0x0a,                                                  //
    0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x20, 0x00, 0x00, 0x00, 0x00,  // destination
    0x00, 0x00, 0x00, 0x14,                                                  //
    0xb0, 0xb1, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7};

const std::string kRecordLine =
    "14:03:07.2 DEBUG: [SHM_Wrapper:97 | static int SHM_Wrapper_App::pkt_rx_cb("
    "const st_pktd_shm_queue_entry_data_t*, uint8_t*, int)] new pkt from unit 1, port 5, "
    "is_trunk 0, tid 0, vid 20, proto 2048 [0x800], vtag 20, egress 77\r\n";
const std::string kPostActionLine =
    "14:03:07.2 DEBUG: [SHM_Wrapper:71 | void SHM_Wrapper::setPostAction("
    "SHM_Wrapper::eActions)] action 0\r\n";
const std::string kMacsLine =
    "14:03:07.2 DEBUG: [PMTUDApp:288 | bool PMTUDApp::handleFrame(uint8_t&, size_t)] "
    "Src: 00:00:5e:00:53:01 Dest: 00:1a:2b:3c:4d:5e VLAN: 20\r\n";
const std::string kFromToLine =
    "89 PMTUD-Prot: Frame Src MAC: 00:00:5e:00:53:01, Dest MAC: 00:1a:2b:3c:4d:5e, Rx VLAN: 20, "
    "Tx egress: 77";
const std::string kDiscardingLine =
    "14:03:07.2 DEBUG: [SHM_Wrapper:57 | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] "
    "Discarding packet\r\n";
const std::string kVerdictLine =
    "14:03:07.2 DEBUG: [SHM_Wrapper:112 | static int SHM_Wrapper_App::pkt_rx_cb("
    "const st_pktd_shm_queue_entry_data_t*, uint8_t*, int)] handle frame ret 7\r\n";

const std::string kIpv4EthDump =
    "\n===== [ETH DUMP] =====\n"
    "data[18]: [00 1a 2b 3c 4d 5e 00 00 5e 00 53 01 81 00 70 14 08 00]\n"
    "dest: 0:1a:2b:3c:4d:5e\n"
    "source: 0:0:5e:0:53:1\n"
    "vlan_tpid: 33024 [0x8100]\n"
    "vlan_tci: 28692 [0x7014]\n"
    "  vlan_pcp: 3 [0x3]\n"
    "  vlan_dei: 1 [0x1]\n"
    "  vlan_id: 20 [0x14]\n"
    "proto: 2048 [0x800]\n";

const std::string kIpv6EthDump =
    "\n===== [ETH DUMP] =====\n"
    "data[18]: [00 1a 2b 3c 4d 5e 00 00 5e 00 53 01 81 00 70 14 86 dd]\n"
    "dest: 0:1a:2b:3c:4d:5e\n"
    "source: 0:0:5e:0:53:1\n"
    "vlan_tpid: 33024 [0x8100]\n"
    "vlan_tci: 28692 [0x7014]\n"
    "  vlan_pcp: 3 [0x3]\n"
    "  vlan_dei: 1 [0x1]\n"
    "  vlan_id: 20 [0x14]\n"
    "proto: 34525 [0x86dd]\n";

const Lines kIpv4Road = {
    kRecordLine,
    "14:03:07.2 DEBUG: [PMTUDApp:280 | bool PMTUDApp::handleFrame(uint8_t&, size_t)] "
    "recvd frame len 78\r\n",
    "89 PMTUD-Prot: Received frame of size: 78",
    kPostActionLine,
    "14:03:07.2 DEBUG: [PMTUDApp:286 | bool PMTUDApp::handleFrame(uint8_t&, size_t)] " +
        kIpv4EthDump + "\r\n",
    kMacsLine,
    kFromToLine,
    "14:03:07.2 DEBUG: [PMTUDApp:103 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] " +
        kIpv4EthDump + "\r\n",
    "14:03:07.2 DEBUG: [PMTUDApp:106 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] "
    "\n===== [IPv4 DUMP] =====\n"
    "data[60]: [45 00 06 40 12 34 40 00 40 11 36 27 c0 00 02 0a c6 33 64 14 "
    "a0 a1 a2 a3 a4 a5 a6 a7 a8 a9 aa ab ac ad ae af b0 b1 b2 b3 "
    "b4 b5 b6 b7 b8 b9 ba bb bc bd be bf c0 c1 c2 c3 c4 c5 c6 c7]\n"
    "Version: 4 [0x4]\n"
    "IHL raw: 5 [0x5]/ IHL: 20 [0x14]\n"
    "TOS: 0 [0]\n"
    "Total Length: 1600 [0x640]\n"
    "Id: 4660 [0x1234]\n"
    "Flags: 2 [0x2], DF=1, MF=0\n"
    "Fragment offset: 0 [0]\n"
    "TTL: 64 [0x40]\n"
    "Protocol: 17 [0x11]\n"
    "Checksum: 13863 [0x3627]\n"
    "Src: 192.0.2.10\n"
    "Dst: 198.51.100.20\n"
    "\r\n",
    "cfg_vlan_l3_get_dest_vlan(77)",
    "cfg_vlan_l3_get_mtu(100)",
    "14:03:07.2 DEBUG: [PMTUDApp:127 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] "
    "MTU VLAN: 1400 VLAN:20\r\n",
    "89 PMTUD-Prot: Received IPv4 packet len 78:",
    "89 PMTUD-Prot:    From: 192.0.2.10",
    "89 PMTUD-Prot:    To: 198.51.100.20",
    "89 PMTUD-Prot:    Dest VLAN ID: 100",
    "89 PMTUD-Prot:    Dest VLAN MTU: 1400",
    "14:03:07.2 DEBUG: [PMTUDApp:142 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] "
    "Src: 00:00:5e:00:53:01 Dest: 00:1a:2b:3c:4d:5e VLAN: 20 packet_len: 68\r\n",
    "socket(2, 3, 1)",
    "setsockopt(5, 0, 2, 40)",
    "89 PMTUD-Prot: Creating ICMP Dest. Unreach. Need Frag. message. MTU size: 1400",
    "sendto(5, 0304ed6500000578450006401234400040113627c000020ac6336414"
    "a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3b4b5b6b7b8b9babbbcbdbebfc0c1c2c3c4c5c6c7, 0, "
    "c000020a, 16)",
    "89 PMTUD-Prot: ICMP message sent to source 192.0.2.10",
    "close(5)",
    kDiscardingLine,
    kVerdictLine,
    "verdict 7"};

const Lines kIpv6Road = {
    kRecordLine,
    "14:03:07.2 DEBUG: [PMTUDApp:280 | bool PMTUDApp::handleFrame(uint8_t&, size_t)] "
    "recvd frame len 66\r\n",
    "89 PMTUD-Prot: Received frame of size: 66",
    kPostActionLine,
    "14:03:07.2 DEBUG: [PMTUDApp:286 | bool PMTUDApp::handleFrame(uint8_t&, size_t)] " +
        kIpv6EthDump + "\r\n",
    kMacsLine,
    kFromToLine,
    "14:03:07.2 DEBUG: [PMTUDApp:202 | bool PMTUDApp::sendICMP6PacketTooBig(const uint8_t&, "
    "size_t)] " +
        kIpv6EthDump + "\r\n",
    "14:03:07.2 DEBUG: [PMTUDApp:205 | bool PMTUDApp::sendICMP6PacketTooBig(const uint8_t&, "
    "size_t)] "
    "\n===== [IPv6 DUMP] =====\n"
    "data[48]: [6a bc de f1 00 08 11 40 20 01 0d b8 00 00 00 10 00 00 00 00 00 00 00 0a "
    "20 01 0d b8 00 00 00 20 00 00 00 00 00 00 00 14 b0 b1 b2 b3 b4 b5 b6 b7]\n"
    "Version: 6 [0x6]\n"
    "Traffic Class: 0 [0]\n"
    "Flow Label: 843505 [0xcdef1]\n"
    "Total Length: 8 [0x8]\n"
    "\n"
    "Next Header: 17 [0x11]\n"
    "Hop Limit: 64 [0x40]\n"
    "Src: 2001:db8:0:10::a\n"
    "Dst: 2001:db8:0:20::14\n"
    "\r\n",
    "cfg_vlan_l3_get_dest_vlan(77)",
    "cfg_vlan_l3_get_mtu(100)",
    "14:03:07.2 DEBUG: [PMTUDApp:223 | bool PMTUDApp::sendICMP6PacketTooBig(const uint8_t&, "
    "size_t)] MTU VLAN: 1400 VLAN:20\r\n",
    "89 PMTUD-Prot: Received IPv6 packet len 66:",
    "89 PMTUD-Prot:    From: 2001:db8:0:10::a",
    "89 PMTUD-Prot:    To: 2001:db8:0:20::14",
    "89 PMTUD-Prot:    Dest VLAN ID: 100",
    "89 PMTUD-Prot:    Dest VLAN MTU: 1400",
    "14:03:07.2 DEBUG: [PMTUDApp:237 | bool PMTUDApp::sendICMP6PacketTooBig(const uint8_t&, "
    "size_t)] Src: 00:00:5e:00:53:01 Dest: 00:1a:2b:3c:4d:5e VLAN: 20 packet_len: 56\r\n",
    "if_nametoindex(bcm0.20)",
    "89 PMTUD-Prot: Creating ICMPv6 Packet Too Big message. MTU size: 1400",
    "14:03:07.2 DEBUG: [PMTUDApp:257 | bool PMTUDApp::sendICMP6PacketTooBig(const uint8_t&, "
    "size_t)] ifindex: 7\r\n",
    "arpd_icmp6_socket_create(bcm0.20)",
    "14:03:07.2 DEBUG: [PMTUDApp:265 | bool PMTUDApp::sendICMP6PacketTooBig(const uint8_t&, "
    "size_t)] socket created OK\r\n",
    "arpd_ipv6_pkt_send(5, 20010db800000010000000000000000a, 1, "
    "02000000000005786abcdef10008114020010db800000010000000000000000a"
    "20010db8000000200000000000000014b0b1b2b3b4b5b6b7, 7)",
    "89 PMTUD-Prot: ICMPv6 message sent to source 2001:db8:0:10::a",
    "close(5)",
    kDiscardingLine,
    kVerdictLine,
    "verdict 7"};

}  // namespace

const Lines& untroubled(Road road) { return road == Road::kIpv4 ? kIpv4Road : kIpv6Road; }

Lines upTo(const Lines& road, const std::string& entry) {
    const auto found = std::find(road.begin(), road.end(), entry);
    if (found == road.end()) throw std::out_of_range(entry);
    return {road.begin(), found + 1};
}

Lines without(Lines road, const std::string& beginning) {
    const auto found = std::find_if(road.begin(), road.end(), [&](const std::string& entry) {
        return entry.starts_with(beginning);
    });
    if (found == road.end()) throw std::out_of_range(beginning);
    road.erase(found);
    return road;
}

Lines atWarning(const Lines& road) {
    Lines left;
    std::copy_if(road.begin(), road.end(), std::back_inserter(left),
                 [](const std::string& entry) { return !entry.ends_with("\r\n"); });
    return left;
}

Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

void Daemon::receive(World& world, Road road) {
    // Zeros behind the frame, which the IPv6 road does not fill.
    Frame frame = road == Road::kIpv4 ? kIpv4Frame : kIpv6Frame;
    st_pktd_shm_queue_entry_data_t record{};
    record.ctrl.port = 4;
    record.ctrl.vid = 20;
    record.ctrl.proto = 2048;
    record.ctrl.vtag = 20;
    record.ctrl.egress = 77;
    std::string end;
    try {
        const int verdict =
            SHM_Wrapper_App::pkt_rx_cb(&record, frame.data(), road == Road::kIpv4 ? 78 : 66);
        const allocations::Paused paused;
        end = "verdict " + std::to_string(verdict);
    } catch (const std::exception& error) {
        const allocations::Paused paused;
        end = std::string("throws ") + error.what();
    }
    const allocations::Paused paused;
    world.journal.push_back(end);
}

}  // namespace faults
