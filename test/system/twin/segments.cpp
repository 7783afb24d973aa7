// SPDX-License-Identifier: MIT
// TCP segments and UDP datagrams that a host sends merged; its own or a router's kernel splits
// them.
#include "segments.h"

#include "bytes.h"

using packets::onesSum;
using packets::put16;

namespace twin {

namespace {

constexpr size_t kEthernet = 14;
constexpr uint8_t kTcp = 6;
constexpr uint8_t kUdp = 17;

size_t ipHeaderOf(const Merged& merged) {
    return merged.from.find(':') == merged.from.npos ? 20 : 40;
}

size_t checksumAt(bool isTcp) { return isTcp ? 16 : 6; }

}  // namespace

Bytes bytesOf(const Merged& merged) {
    // From port 4000 to 5000; TCP with sequence number 1000, the flag ACK and the largest window.
    Bytes payload{0x0f, 0xa0, 0x13, 0x88};
    const Bytes rest = merged.isTcp
                           ? Bytes{0, 0, 0x03, 0xe8, 0, 0, 0, 0, 0x50, 0x10, 0xff, 0xff, 0, 0, 0, 0}
                           : Bytes(4);
    payload.insert(payload.end(), rest.begin(), rest.end());
    for (size_t i = 0; i < merged.bytes; ++i) payload.push_back(static_cast<uint8_t>(i * i >> 3));
    if (!merged.isTcp) put16(&payload[4], payload.size());

    const size_t header = ipHeaderOf(merged);
    const size_t size = header + payload.size();
    const uint8_t protocol = merged.isTcp ? kTcp : kUdp;
    Bytes packet = header == 20 ? bytesOf(packets::Ipv4{.size = size,
                                                        .from = merged.from,
                                                        .to = merged.to,
                                                        .protocol = protocol,
                                                        .payload = payload,
                                                        .id = merged.id})
                                : bytesOf(packets::Ipv6{.size = size,
                                                        .from = merged.from,
                                                        .to = merged.to,
                                                        .nextHeader = protocol,
                                                        .payload = payload,
                                                        .flowLabel = merged.id});
    // The offload starts from the sum over the pseudo-header, and not from its complement.
    const std::span<const uint8_t> addresses(&packet[header == 20 ? 12 : 8], header == 20 ? 8 : 32);
    put16(&packet[header + checksumAt(merged.isTcp)],
          onesSum(addresses, payload.size() + protocol));
    return packet;
}

Offload offloadOf(const Merged& merged) {
    const size_t transport = kEthernet + ipHeaderOf(merged);
    Offload offload{};
    offload.flags = Offload::kNeedsChecksum;
    if (merged.bytes > merged.each && !merged.isTcp)
        offload.type = Offload::kUdp;
    else if (merged.bytes > merged.each)
        offload.type = ipHeaderOf(merged) == 20 ? Offload::kTcp4 : Offload::kTcp6;
    offload.headerSize = static_cast<uint16_t>(transport + (merged.isTcp ? 20 : 8));
    offload.segmentSize = static_cast<uint16_t>(merged.each);
    offload.checksumStart = static_cast<uint16_t>(transport);
    offload.checksumOffset = static_cast<uint16_t>(checksumAt(merged.isTcp));
    return offload;
}

void addChecksum(Bytes& frame, const Offload& offload) {
    const size_t field = size_t{offload.checksumStart} + offload.checksumOffset;
    if ((offload.flags & Offload::kNeedsChecksum) == 0 || field + 2 > frame.size()) return;
    const auto covered = std::span<const uint8_t>(frame).subspan(offload.checksumStart);
    put16(&frame[field], ~onesSum(covered) & 0xffff);
}

}  // namespace twin
