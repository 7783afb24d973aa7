// SPDX-License-Identifier: MIT
// The engine: answers each frame that is too large for its egress VLAN.
#include "PMTUDApp.h"

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "BigEndian.h"
#include "EthVlanHeader.h"
#include "Ipv4Header.h"
#include "Ipv6Header.h"
#include "QVLog.h"
#include "arpd.h"
#include "dumps.h"
#include "icmp_checksum.h"

namespace {

constexpr uint16_t kEtherTypeIpv4 = 0x0800;
constexpr uint16_t kEtherTypeIpv6 = 0x86DD;

/// The longest ICMP or ICMPv6 message, whatever the MTU, in bytes.
constexpr uint32_t kMaxMessage = 1500;

// Destination Unreachable, code "fragmentation needed and DF set": RFC 792, with RFC 1191 section
// 4's next-hop MTU.
//
//      0                   1                   2                   3
//      0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
//     +---------------+---------------+-------------------------------+
//   0 |     Type      |     Code      |           Checksum            |
//     +---------------+---------------+-------------------------------+
//   4 |            unused             |         Next-hop MTU          |
//     +-------------------------------+-------------------------------+
constexpr uint32_t kIcmpHeaderSize = 8;
constexpr size_t kIcmpType = 0;
constexpr size_t kIcmpCode = 1;
constexpr size_t kIcmpChecksum = 2;
constexpr size_t kIcmpNextHopMtu = 6;
constexpr uint8_t kDestinationUnreachable = 3;
constexpr uint8_t kFragmentationNeeded = 4;
constexpr uint8_t kReplyTtl = 64;

// Packet Too Big: RFC 4443 section 3.2.
//
//      0                   1                   2                   3
//      0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
//     +---------------+---------------+-------------------------------+
//   0 |     Type      |     Code      |           Checksum            |
//     +---------------+---------------+-------------------------------+
//   4 |                              MTU                              |
//     +---------------------------------------------------------------+
constexpr uint32_t kIcmp6HeaderSize = 8;
constexpr size_t kIcmp6Type = 0;
constexpr size_t kIcmp6Code = 1;
constexpr size_t kIcmp6Mtu = 4;
constexpr uint8_t kPacketTooBig = 2;
constexpr int kScatterEntries = 1;

constexpr char kInterfacePrefix[] = "bcm0.";

bool isValidVlan(int vlan) { return vlan > 0 && vlan <= 4094; }

// IPv4's lower bound applies to IPv6 too: a VLAN's MTU may be set below IPv6's minimum of 1280.
bool isValidMtu(uint32_t mtu) { return mtu > 575 && mtu <= 16383; }

}  // namespace

PMTUDApp::PMTUDApp(VlanConfig* cfg, SHM_Wrapper* shm)
    : m_cfg(cfg), m_shm(shm), m_logId(cfg->logModuleId()), m_logName("PMTUD-Prot") {
    m_spare.fill(0xFF);
    m_handler = new SHM_HandlerImpl<PMTUDApp>(this, &PMTUDApp::handleFrame);
    m_shm->setHandler(m_handler);
}

PMTUDApp::~PMTUDApp() { delete m_handler; }

bool PMTUDApp::run() const {
    QV_LOG(DEBUG, 69) << "PMTUD starting...";
    if (!m_shm->init()) {
        QV_LOG(ERROR, 72) << "Could not initialize SHM";
        return false;
    }
    return true;
}

bool PMTUDApp::handleFrame(uint8_t& frame, size_t len) {
    QV_LOG(DEBUG, 280) << "recvd frame len " << len;
    qv::QVDebugProcLog().get(m_logId, m_logName) << "Received frame of size: " << len;

    // Set before anything is parsed, and never reset: no frame that gets here is forwarded.
    m_shm->setPostAction(SHM_Wrapper::eDiscard);

    const EthVlanHeader eth(&frame);
    QV_LOG(DEBUG, 286) << eth;
    QV_LOG(DEBUG, 288) << "Src: " << macToString(*eth.source())
                       << " Dest: " << macToString(*eth.dest()) << " VLAN: " << eth.vlan_id();
    qv::QVDebugProcLog().get(m_logId, m_logName)
        << "Frame Src MAC: " << macToString(*eth.source())
        << ", Dest MAC: " << macToString(*eth.dest()) << ", Rx VLAN: " << eth.vlan_id()
        << ", Tx egress: " << m_shm->frameInfo().egress;

    switch (eth.proto()) {
        case kEtherTypeIpv4:
            return sendICMP4PacketTooBig(&frame, len);
        case kEtherTypeIpv6:
            return sendICMP6PacketTooBig(frame, len);
        default:
            return false;
    }
}

bool PMTUDApp::sendICMP4PacketTooBig(uint8_t* frame, size_t len) {
    if (frame == nullptr) return false;

    const EthVlanHeader eth(frame);
    QV_LOG(DEBUG, 103) << eth;
    const Ipv4Header ip(eth.payload());
    QV_LOG(DEBUG, 106) << ip;
    const boost::asio::ip::address_v4 source = ip.src();
    const boost::asio::ip::address_v4::bytes_type sourceBytes = source.to_bytes();

    const int egress = m_shm->frameInfo().egress;
    const int vlan = m_cfg->getDestVlan(egress);
    if (!isValidVlan(vlan)) {
        QV_LOG(DEBUG, 115) << "Invalid VLAN ID - VLAN ID: " << vlan << " Egress: " << egress;
        qv::QVDebugProcLog().get(m_logId, m_logName)
            << "Invalid VLAN ID - VLAN ID: " << vlan << " Egress: " << egress;
        return false;
    }
    const uint32_t mtu = m_cfg->getVlanMtu(vlan);
    if (!isValidMtu(mtu)) {
        QV_LOG(DEBUG, 122) << "Invalid VLAN MTU - VLAN ID: " << vlan << " Egress: " << egress
                           << " VLAN MTU: " << mtu;
        qv::QVDebugProcLog().get(m_logId, m_logName)
            << "Invalid VLAN MTU - VLAN ID: " << vlan << " Egress: " << egress
            << " VLAN MTU: " << mtu;
        return false;
    }
    // Logs the VLAN of the frame's own tag. The missing space before the number is intentional.
    QV_LOG(DEBUG, 127) << "MTU VLAN: " << mtu << " VLAN:" << eth.vlan_id();

    qv::QVDebugProcLog().get(m_logId, m_logName) << "Received IPv4 packet len " << len << ":";
    std::string sourceText;
    qv::QVDebugProcLog().get(m_logId, m_logName)
        << "   From: " << (sourceText = source.to_string());
    qv::QVDebugProcLog().get(m_logId, m_logName) << "   To: " << ip.dst().to_string();
    qv::QVDebugProcLog().get(m_logId, m_logName) << "   Dest VLAN ID: " << vlan;
    qv::QVDebugProcLog().get(m_logId, m_logName) << "   Dest VLAN MTU: " << mtu;

    // Always 68 as long as the smallest valid MTU is 576; the cap is kept in case that minimum
    // changes.
    uint32_t messageLen = std::min(mtu, kMaxMessage);
    messageLen = std::min(static_cast<uint32_t>(ip.size()) + kIcmpHeaderSize, messageLen);
    QV_LOG(DEBUG, 142) << "Src: " << macToString(*eth.source())
                       << " Dest: " << macToString(*eth.dest()) << " VLAN: " << eth.vlan_id()
                       << " packet_len: " << messageLen;

    std::array<uint8_t, kIcmpHeaderSize> header{};
    const int fd = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
    if (fd == -1) {
        qv::QVDebugProcLog().get(m_logId, m_logName) << "Error creating socket";
        return false;
    }
    // One byte is intentional: the kernel accepts this option as a byte as well as an int.
    setsockopt(fd, IPPROTO_IP, IP_TTL, &kReplyTtl, sizeof kReplyTtl);

    header[kIcmpType] = kDestinationUnreachable;
    header[kIcmpCode] = kFragmentationNeeded;
    big_endian::store16(&header[kIcmpNextHopMtu], static_cast<uint16_t>(mtu));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    memcpy(&to.sin_addr, sourceBytes.data(), sourceBytes.size());
    qv::QVDebugProcLog().get(m_logId, m_logName)
        << "Creating ICMP Dest. Unreach. Need Frag. message. MTU size: " << mtu;

    std::array<uint8_t, kMaxMessage> message;
    memcpy(message.data(), header.data(), header.size());
    memcpy(&message[kIcmpHeaderSize], ip.data(), messageLen - kIcmpHeaderSize);
    big_endian::store16(&header[kIcmpChecksum],
                        icmpChecksum(message.data(), static_cast<uint16_t>(messageLen)));
    memcpy(message.data(), header.data(), header.size());

    const ssize_t sent = sendto(fd, message.data(), messageLen, 0,
                                reinterpret_cast<const sockaddr*>(&to), sizeof to);
    if (sent >= 0) {
        qv::QVDebugProcLog().get(m_logId, m_logName)
            << "ICMP message sent to source " << sourceText;
    }
    close(fd);
    return true;
}

bool PMTUDApp::sendICMP6PacketTooBig(const uint8_t& frame, size_t len) {
    bool result = false;
    const EthVlanHeader eth(&frame);
    QV_LOG(DEBUG, 202) << eth;
    const Ipv6Header ip(eth.payload());
    QV_LOG(DEBUG, 205) << ip;

    const int egress = m_shm->frameInfo().egress;
    const int vlan = m_cfg->getDestVlan(egress);
    if (!isValidVlan(vlan)) {
        // The first line has a space before the parenthesis, the second has none: field scripts
        // match both.
        QV_LOG(DEBUG, 211) << "Invalid VLAN ID: " << vlan << " (Egress ID: " << egress << ")";
        qv::QVDebugProcLog().get(m_logId, m_logName)
            << "Invalid VLAN ID: " << vlan << "(Egress ID: " << egress << ")";
        return false;
    }
    const uint32_t mtu = m_cfg->getVlanMtu(vlan);
    if (!isValidMtu(mtu)) {
        QV_LOG(DEBUG, 218) << "Invalid VLAN MTU: " << mtu << " (VLAN ID : " << vlan
                           << " Egress ID: " << egress << ")";
        qv::QVDebugProcLog().get(m_logId, m_logName)
            << "Invalid VLAN MTU: " << mtu << " (VLAN ID : " << vlan << " Egress ID: " << egress
            << ")";
        return false;
    }
    // Logs the VLAN of the frame's own tag. The missing space before the number is intentional.
    QV_LOG(DEBUG, 223) << "MTU VLAN: " << mtu << " VLAN:" << eth.vlan_id();

    qv::QVDebugProcLog().get(m_logId, m_logName) << "Received IPv6 packet len " << len << ":";
    std::string sourceText;
    qv::QVDebugProcLog().get(m_logId, m_logName)
        << "   From: " << (sourceText = ip.src().to_string());
    qv::QVDebugProcLog().get(m_logId, m_logName) << "   To: " << ip.dst().to_string();
    qv::QVDebugProcLog().get(m_logId, m_logName) << "   Dest VLAN ID: " << vlan;
    qv::QVDebugProcLog().get(m_logId, m_logName) << "   Dest VLAN MTU: " << mtu;

    // Deliberately not the 1280 bytes of RFC 4443 section 3.2: hosts get as much of their packet
    // back as the VLAN's MTU allows.
    uint32_t messageLen = std::min(mtu, kMaxMessage);
    messageLen = std::min(ip.totalLength() + kIcmp6HeaderSize, messageLen);
    std::array<uint8_t, kMaxMessage> message;
    const iovec scatter{message.data(), messageLen};

    // The reply leaves via the VLAN on which the frame arrived: its sender is there.
    std::array<char, IF_NAMESIZE> interfaceName;
    snprintf(interfaceName.data(), interfaceName.size(), "%s%d", kInterfacePrefix, eth.vlan_id());
    QV_LOG(DEBUG, 237) << "Src: " << macToString(*eth.source())
                       << " Dest: " << macToString(*eth.dest()) << " VLAN: " << eth.vlan_id()
                       << " packet_len: " << messageLen;
    const boost::asio::ip::address_v6::bytes_type sourceBytes = ip.src().to_bytes();

    // The checksum stays 0: the send library chooses the source address and fills it in.
    std::array<uint8_t, kIcmp6HeaderSize> header{};
    header[kIcmp6Type] = kPacketTooBig;
    header[kIcmp6Code] = 0;
    big_endian::store32(&header[kIcmp6Mtu], mtu);
    memcpy(message.data(), header.data(), header.size());
    memcpy(&message[kIcmp6HeaderSize], ip.data(), messageLen - kIcmp6HeaderSize);

    // 0 means that there is no such interface. It is passed on: the send library decides.
    const uint32_t ifindex = if_nametoindex(interfaceName.data());
    qv::QVDebugProcLog().get(m_logId, m_logName)
        << "Creating ICMPv6 Packet Too Big message. MTU size: " << mtu;
    QV_LOG(DEBUG, 257) << "ifindex: " << static_cast<int32_t>(ifindex);
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    memcpy(&to.sin6_addr, sourceBytes.data(), sourceBytes.size());

    int32_t fd = -1;
    if (arpd_icmp6_socket_create(&fd, interfaceName.data()) != 0) return false;
    QV_LOG(DEBUG, 265) << "socket created OK";
    if (arpd_ipv6_pkt_send(fd, &to, &scatter, kScatterEntries, ifindex) >= 0) {
        qv::QVDebugProcLog().get(m_logId, m_logName)
            << "ICMPv6 message sent to source " << sourceText;
        result = true;
    }
    close(fd);
    return result;
}
