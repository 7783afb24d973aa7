// SPDX-License-Identifier: MIT
// What the platform reads from IP headers: version, header size, claimed size.
#ifndef PMTUD_LINUX_IP_PACKET_H
#define PMTUD_LINUX_IP_PACKET_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace pmtud_linux {

constexpr size_t kIpv4HeaderSize = 20;
constexpr size_t kIpv6HeaderSize = 40;
constexpr size_t kIcmpHeaderSize = 8;  // ICMPv6 too

inline size_t bigEndian16(std::span<const uint8_t> bytes, size_t at) {
    return size_t{bytes[at]} << 8 | bytes[at + 1];
}

/// 4, 6 or anything else; 0 if the packet is empty.
inline int ipVersion(std::span<const uint8_t> packet) {
    return packet.empty() ? 0 : packet[0] >> 4;
}

/// The size of the IPv4 header with its options, or of the fixed IPv6 header; 0 if the packet has
/// neither, or only a part of it.
inline size_t ipHeaderSize(std::span<const uint8_t> packet) {
    size_t size = 0;
    if (ipVersion(packet) == 4) size = size_t{4} * (packet[0] & 0x0f);
    if (ipVersion(packet) == 4 && size < kIpv4HeaderSize) return 0;
    if (ipVersion(packet) == 6) size = kIpv6HeaderSize;
    return size <= packet.size() ? size : 0;
}

/// The size that a complete header claims: IPv4 total length (RFC 791 section 3.1), or IPv6 payload
/// length (RFC 8200 section 3) plus the header.
inline size_t claimedSize(std::span<const uint8_t> packet) {
    return ipVersion(packet) == 4 ? bigEndian16(packet, 2)
                                  : kIpv6HeaderSize + bigEndian16(packet, 4);
}

/// The packet that an ICMP or ICMPv6 error message quotes: everything after the IP header and the
/// 8-byte ICMP header (RFC 792, RFC 4443 section 2.1). Empty if there is none.
inline std::span<const uint8_t> quoteOf(std::span<const uint8_t> error) {
    const size_t start = ipHeaderSize(error) + kIcmpHeaderSize;
    if (start == kIcmpHeaderSize || start > error.size()) return {};
    return error.subspan(start);
}

/// The MTU that an ICMP (RFC 1191 section 4) or ICMPv6 (RFC 4443 section 3.2) "too big" message
/// names; 0 if the message ends before its quote.
inline uint32_t mtuNamedBy(std::span<const uint8_t> tooBig) {
    const size_t icmp = ipHeaderSize(tooBig);
    if (icmp == 0 || tooBig.size() < icmp + kIcmpHeaderSize) return 0;
    const size_t upper = ipVersion(tooBig) == 6 ? bigEndian16(tooBig, icmp + 4) : 0;
    return static_cast<uint32_t>(upper << 16 | bigEndian16(tooBig, icmp + 6));
}

}  // namespace pmtud_linux

#endif
