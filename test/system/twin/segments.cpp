// SPDX-License-Identifier: MIT
// Frames that travel merged, and what they are on a wire.
#include "segments.h"

#include <algorithm>

#include "bytes.h"

using packets::get16;
using packets::get32;
using packets::onesSum;
using packets::put16;
using packets::seal;
using packets::transportChecksum;

namespace twin {

namespace {

constexpr size_t kEthernet = 14;
constexpr uint8_t kTcp = 6;
constexpr uint8_t kUdp = 17;
constexpr uint8_t kPush = 0x08;
constexpr uint8_t kFinish = 0x01;

size_t headerOf(const Merged& merged) {
    return merged.from.find(':') == merged.from.npos ? 20 : 40;
}

// The offload starts from the sum over the pseudo-header, and not from its complement.
uint16_t pseudoSum(const Bytes& packet, size_t at, uint8_t protocol) {
    const bool isIpv4 = packet[0] >> 4 == 4;
    const std::span<const uint8_t> addresses(&packet[isIpv4 ? 12 : 8], isIpv4 ? 8 : 32);
    return static_cast<uint16_t>(onesSum(addresses, packet.size() - at + protocol));
}

void put32(uint8_t* at, uint32_t value) {
    put16(at, value >> 16);
    put16(at + 2, value & 0xffff);
}

void complete(Bytes& frame, const Offload& offload) {
    if ((offload.flags & Offload::kNeedsChecksum) == 0) return;
    const size_t field = size_t{offload.checksumStart} + offload.checksumOffset;
    if (field + 2 > frame.size()) return;
    const std::span<const uint8_t> covered(&frame[offload.checksumStart],
                                           frame.size() - offload.checksumStart);
    put16(&frame[field], ~onesSum(covered) & 0xffff);
}

Bytes segment(const Bytes& frame, const Offload& offload, size_t headers, size_t number,
              bool isTcp) {
    const size_t from = headers + number * offload.segmentSize;
    const size_t to = std::min(from + offload.segmentSize, frame.size());
    Bytes one(frame.begin(), frame.begin() + static_cast<ptrdiff_t>(headers));
    one.insert(one.end(), frame.begin() + static_cast<ptrdiff_t>(from),
               frame.begin() + static_cast<ptrdiff_t>(to));
    const size_t transport = offload.checksumStart;
    Bytes packet(one.begin() + kEthernet, one.end());
    const size_t at = transport - kEthernet;
    if (packet[0] >> 4 == 4) {
        put16(&packet[2], packet.size());
        put16(&packet[4], get16(&packet[4]) + number);
        seal(packet.data());
    } else {
        put16(&packet[4], packet.size() - 40);
    }
    if (isTcp) {
        put32(&packet[at + 4],
              get32(&packet[at + 4]) + static_cast<uint32_t>(number) * offload.segmentSize);
        if (to < frame.size()) packet[at + 13] &= static_cast<uint8_t>(~(kPush | kFinish));
    } else {
        put16(&packet[at + 4], packet.size() - at);
    }
    const size_t field = at + offload.checksumOffset;
    put16(&packet[field], 0);
    put16(&packet[field], transportChecksum(packet, at, isTcp ? kTcp : kUdp));
    std::copy(packet.begin(), packet.end(), one.begin() + kEthernet);
    return one;
}

}  // namespace

Bytes bytesOf(const Merged& merged) {
    const size_t header = headerOf(merged);
    const size_t transport = merged.isTcp ? 20 : 8;
    const uint8_t protocol = merged.isTcp ? kTcp : kUdp;
    const size_t size = header + transport + merged.bytes;
    Bytes packet = header == 20 ? bytesOf(Ipv4{.size = size,
                                               .from = merged.from,
                                               .to = merged.to,
                                               .protocol = protocol,
                                               .id = merged.id})
                                : bytesOf(Ipv6{.size = size,
                                               .from = merged.from,
                                               .to = merged.to,
                                               .nextHeader = protocol,
                                               .flowLabel = merged.id});
    put16(&packet[header], 4000);
    put16(&packet[header + 2], 5000);
    for (size_t i = header + transport; i < size; ++i) packet[i] = static_cast<uint8_t>(i * i >> 3);
    if (merged.isTcp) {
        put32(&packet[header + 4], 1000);
        packet[header + 12] = 0x50;
        packet[header + 13] = 0x10;
        put16(&packet[header + 14], 65535);
    } else {
        put16(&packet[header + 4], transport + merged.bytes);
    }
    put16(&packet[header + (merged.isTcp ? 16U : 6U)], pseudoSum(packet, header, protocol));
    return packet;
}

Offload offloadOf(const Merged& merged, const Bytes& packet) {
    Offload offload{};
    const size_t header = headerOf(merged);
    offload.flags = Offload::kNeedsChecksum;
    if (!merged.isTcp)
        offload.type = Offload::kUdp;
    else
        offload.type = packet[0] >> 4 == 4 ? Offload::kTcp4 : Offload::kTcp6;
    offload.checksumStart = static_cast<uint16_t>(kEthernet + header);
    offload.checksumOffset = merged.isTcp ? 16 : 6;
    offload.headerSize = static_cast<uint16_t>(kEthernet + header + (merged.isTcp ? 20 : 8));
    offload.segmentSize = static_cast<uint16_t>(merged.each);
    if (merged.bytes <= merged.each) offload.type = Offload::kNone;
    return offload;
}

std::vector<Bytes> segmentsOf(const Bytes& frame, const Offload& offload) {
    const unsigned int type = offload.type & ~unsigned{Offload::kCongestion};
    if (type == Offload::kNone || offload.segmentSize == 0) {
        Bytes whole = frame;
        complete(whole, offload);
        return {whole};
    }
    const bool isTcp = type == Offload::kTcp4 || type == Offload::kTcp6;
    const size_t transport = offload.checksumStart;
    const size_t headers = transport + (isTcp ? size_t{4} * (frame.at(transport + 12) >> 4) : 8);
    std::vector<Bytes> all;
    for (size_t i = 0; headers + i * offload.segmentSize < frame.size(); ++i)
        all.push_back(segment(frame, offload, headers, i, isTcp));
    return all;
}

}  // namespace twin
