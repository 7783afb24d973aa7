// SPDX-License-Identifier: MIT
// From a message of the log group to what the receive callback is given: record and frame.
#include "frames.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_log/linux_nfnetlink_log.h>
#include <linux/if_ether.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace pmtud_linux {

namespace {

constexpr size_t addressesSize = 12;  // destination and source MAC
constexpr size_t ipv4HeaderSize = 20;
constexpr size_t ipv6HeaderSize = 40;

bool readNumber(const nlattr* attribute, uint32_t& number) {
    if (mnl_attr_get_payload_len(attribute) != sizeof number) return false;
    number = ntohl(mnl_attr_get_u32(attribute));
    return true;
}

std::span<const uint8_t> view(const nlattr* attribute) {
    return {static_cast<const uint8_t*>(mnl_attr_get_payload(attribute)),
            mnl_attr_get_payload_len(attribute)};
}

int readAttribute(const nlattr* attribute, void* data) {
    LoggedPacket& packet = *static_cast<LoggedPacket*>(data);
    bool read = true;
    switch (mnl_attr_get_type(attribute)) {
        case NFULA_PACKET_HDR: {
            nfulnl_msg_packet_hdr header;
            read = mnl_attr_get_payload_len(attribute) >= sizeof header;
            if (!read) break;
            std::memcpy(&header, mnl_attr_get_payload(attribute), sizeof header);
            packet.protocol = ntohs(header.hw_protocol);
            break;
        }
        case NFULA_MARK:
            read = readNumber(attribute, packet.mark);
            break;
        case NFULA_IFINDEX_INDEV:
            read = readNumber(attribute, packet.ingress);
            break;
        case NFULA_SEQ: {
            uint32_t sequence = 0;
            read = readNumber(attribute, sequence);
            packet.sequence = sequence;
            break;
        }
        case NFULA_HWHEADER:
            packet.linkHeader = view(attribute);
            break;
        case NFULA_PAYLOAD:
            packet.payload = view(attribute);
            break;
        default:
            break;
    }
    return read ? MNL_CB_OK : MNL_CB_ERROR;
}

// The EtherType of the packet's own version field, or 0 where it is no whole IP header or
// is not what the kernel took it for.
uint16_t etherTypeOf(const LoggedPacket& packet) {
    if (packet.payload.empty()) return 0;
    const int version = packet.payload[0] >> 4;
    uint16_t type = 0;
    if (version == 4 && packet.payload.size() >= ipv4HeaderSize) type = ETH_P_IP;
    if (version == 6 && packet.payload.size() >= ipv6HeaderSize) type = ETH_P_IPV6;
    return packet.protocol == 0 || packet.protocol == type ? type : uint16_t{0};
}

bool isInterface(uint32_t index) {
    return index != 0 && index <= uint32_t{std::numeric_limits<int32_t>::max()};
}

void putBigEndian(uint8_t* to, uint16_t value) {
    to[0] = static_cast<uint8_t>(value >> 8);
    to[1] = static_cast<uint8_t>(value);
}

}  // namespace

bool isPacket(const void* bytes, size_t length) {
    if (length < sizeof(nlmsghdr)) return false;
    const auto* const message = static_cast<const nlmsghdr*>(bytes);
    return message->nlmsg_type == ((NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_PACKET);
}

std::optional<LoggedPacket> decodePacket(const void* bytes, size_t length) {
    if (!isPacket(bytes, length)) return std::nullopt;
    const auto* const message = static_cast<const nlmsghdr*>(bytes);
    // libmnl takes the last attribute as far as the aligned end of the message.
    const size_t claimed = message->nlmsg_len;
    if (claimed < sizeof(nlmsghdr) + sizeof(nfgenmsg)) return std::nullopt;
    if (claimed > length || MNL_ALIGN(claimed) > length) return std::nullopt;
    LoggedPacket packet;
    if (mnl_attr_parse(message, sizeof(nfgenmsg), readAttribute, &packet) < 0) return std::nullopt;
    return packet;
}

bool Frame::build(const LoggedPacket& packet, int vlan) {
    const uint16_t type = etherTypeOf(packet);
    if (type == 0 || packet.payload.size() > capacity - headerSize) return false;
    if (!isInterface(packet.ingress) || !isInterface(packet.mark)) return false;

    uint8_t* const bytes = m_bytes.data();
    const size_t known = std::min(packet.linkHeader.size(), addressesSize);
    std::copy_n(packet.linkHeader.begin(), known, bytes);
    std::fill(bytes + known, bytes + addressesSize, uint8_t{0});
    putBigEndian(bytes + 12, ETH_P_8021Q);
    putBigEndian(bytes + 14, static_cast<uint16_t>(vlan));
    putBigEndian(bytes + 16, type);
    std::copy(packet.payload.begin(), packet.payload.end(), bytes + headerSize);

    // Only the frame before has left anything behind this one.
    const size_t size = headerSize + packet.payload.size();
    if (m_size > size) std::fill(bytes + size, bytes + m_size, uint8_t{0});
    m_size = size;

    // The record counts ports from 0, the kernel counts interfaces from 1.
    st_pktd_shm_queue_entry_ctrl_t& control = m_record.ctrl;
    control.port = static_cast<int32_t>(packet.ingress) - 1;
    control.proto = type;
    control.vid = vlan;
    control.vtag = static_cast<uint16_t>(vlan);
    control.egress = static_cast<int32_t>(packet.mark);
    return true;
}

}  // namespace pmtud_linux
