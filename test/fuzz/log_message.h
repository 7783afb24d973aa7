// SPDX-License-Identifier: MIT
// Messages of the log group for the fuzz targets, and what the platform is to make of them.
#ifndef PMTUD_TEST_FUZZ_LOG_MESSAGE_H
#define PMTUD_TEST_FUZZ_LOG_MESSAGE_H

#include <libnetfilter_log/linux_nfnetlink_log.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

#include "frames.h"
#include "input.h"
#include "netlink_message.h"

namespace fuzz {

constexpr uint16_t logPacketType = 0x0400;

/// Of the log group, mostly.
inline Bytes drawLogMessage(Input& input) {
    const uint8_t kind = input.byte();
    if (kind == 0xFF) {
        const Span raw = input.bytes(input.byte());
        return {raw.begin(), raw.end()};
    }
    Bytes message(messageHeader + sizeof(nfgenmsg));
    store(message, 4, kind == 0xFE ? input.number<uint16_t>() : logPacketType);
    const std::vector<uint16_t> types = {NFULA_PACKET_HDR, NFULA_MARK,     NFULA_IFINDEX_INDEV,
                                         NFULA_SEQ,        NFULA_HWHEADER, NFULA_PAYLOAD};
    addAttributes(input, types, message);
    closeMessage(input, message);
    return message;
}

/// What is to be read in a message, by the rules of the format alone.
struct Packet {
    uint32_t ingress = 0;
    uint32_t mark = 0;
    unsigned protocol = 0;
    std::optional<uint32_t> sequence;
    Span linkHeader;
    Span payload;
};

inline uint32_t bigEndian(Span bytes) {
    uint32_t value = 0;
    for (const uint8_t byte : bytes) value = value * 256 + byte;
    return value;
}

inline bool take(Packet& packet, uint16_t type, Span payload) {
    const bool isNumber = type == NFULA_MARK || type == NFULA_IFINDEX_INDEV || type == NFULA_SEQ;
    if (isNumber && payload.size() != 4) return false;
    if (type == NFULA_PACKET_HDR && payload.size() < 4) return false;
    if (type == NFULA_PACKET_HDR) packet.protocol = bigEndian(payload.first(2));
    if (type == NFULA_MARK) packet.mark = bigEndian(payload);
    if (type == NFULA_IFINDEX_INDEV) packet.ingress = bigEndian(payload);
    if (type == NFULA_SEQ) packet.sequence = bigEndian(payload);
    if (type == NFULA_HWHEADER) packet.linkHeader = payload;
    if (type == NFULA_PAYLOAD) packet.payload = payload;
    return true;
}

inline std::optional<Packet> expectedPacket(Span message) {
    constexpr std::size_t headers = messageHeader + sizeof(nfgenmsg);
    if (message.size() < headers || load<uint16_t>(message, 4) != logPacketType)
        return std::nullopt;
    const std::size_t claimed = load<uint32_t>(message);
    if (claimed < headers || claimed > message.size()) return std::nullopt;
    const std::size_t end = aligned(claimed);
    if (end > message.size()) return std::nullopt;
    Packet packet;
    const auto takeOne = [&](uint16_t type, Span payload) { return take(packet, type, payload); };
    if (!forEachAttribute(message.subspan(headers, end - headers), takeOne)) return std::nullopt;
    return packet;
}

/// The frame as it must be, and the record's fields.
struct Built {
    Bytes bytes;
    int32_t port = 0;
    int32_t proto = 0;
    int32_t vid = 0;
    int32_t egress = 0;
};

inline unsigned typeOf(const Packet& packet) {
    const std::size_t size = packet.payload.size();
    const int version = size == 0 ? 0 : packet.payload[0] / 16;
    unsigned type = 0;
    if (version == 4 && size >= 20) type = 0x0800;
    if (version == 6 && size >= 40) type = 0x86DD;
    return packet.protocol == 0 || packet.protocol == type ? type : 0;
}

/// False, and nothing is changed, where the packet is to become no frame.
inline bool buildExpected(const Packet& packet, int vlan, Built& built) {
    const unsigned type = typeOf(packet);
    if (type == 0 || packet.payload.size() > 65575) return false;
    const auto isInterface = [](uint32_t index) { return index >= 1 && index <= 0x7FFFFFFF; };
    if (!isInterface(packet.ingress) || !isInterface(packet.mark)) return false;
    const Span addresses =
        packet.linkHeader.first(std::min<std::size_t>(12, packet.linkHeader.size()));
    built.bytes.assign(addresses.begin(), addresses.end());
    built.bytes.resize(12);
    for (const unsigned number : {0x8100U, static_cast<unsigned>(vlan), type}) {
        built.bytes.push_back(static_cast<uint8_t>(number / 256));
        built.bytes.push_back(static_cast<uint8_t>(number % 256));
    }
    built.bytes.insert(built.bytes.end(), packet.payload.begin(), packet.payload.end());
    built.port = static_cast<int32_t>(packet.ingress - 1);
    built.proto = static_cast<int32_t>(type);
    built.vid = vlan;
    built.egress = static_cast<int32_t>(packet.mark);
    return true;
}

inline bool same(Span left, Span right) {
    return left.size() == right.size() && std::equal(left.begin(), left.end(), right.begin());
}

inline bool isZero(Span bytes) {
    return bytes.empty() ||
           (bytes[0] == 0 && memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

inline void checkFrame(const st_pktd_shm_queue_entry_data_t& record, const uint8_t* frame,
                       std::size_t size, const Built& built) {
    require(size == built.bytes.size(), "size of the frame");
    require(same({frame, size}, built.bytes), "bytes of the frame");
    require(isZero({frame + size, pmtud_linux::Frame::capacity - size}), "zeros behind the frame");
    const st_pktd_shm_queue_entry_ctrl_t& control = record.ctrl;
    require(control.port == built.port && control.proto == built.proto, "port and protocol");
    require(control.vid == built.vid && control.vtag == built.vid, "VLAN");
    require(control.egress == built.egress && control.is_trunk == 0, "egress, and no trunk");
}

}  // namespace fuzz

#endif
