// SPDX-License-Identifier: MIT
// Packets as a host would send them, and the frames that carry them.
#include "packet.h"

#include <arpa/inet.h>

#include <algorithm>
#include <stdexcept>

#include "bytes.h"

namespace packets {

namespace {

constexpr uint8_t kUdp = 17;
constexpr uint8_t kFragment = 44;

void putAddress(int family, const std::string& text, uint8_t* to) {
    if (inet_pton(family, text.c_str(), to) != 1) throw std::invalid_argument(text);
}

void putUdp(Bytes& packet, size_t at, uint16_t fromPort, uint16_t toPort) {
    put16(&packet[at], fromPort);
    put16(&packet[at + 2], toPort);
    put16(&packet[at + 4], packet.size() - at);
    const uint16_t sum = transportChecksum(packet, at, kUdp);
    put16(&packet[at + 6], sum == 0 ? 0xffff : sum);
}

}  // namespace

void seal(uint8_t* header) {
    put16(header + 10, 0);
    put16(header + 10, ~onesSum({header, size_t{4} * (header[0] & 15U)}) & 0xffff);
}

uint16_t transportChecksum(const Bytes& packet, size_t at, uint8_t protocol) {
    const bool isIpv4 = packet[0] >> 4 == 4;
    const std::span<const uint8_t> addresses(&packet[isIpv4 ? 12 : 8], isIpv4 ? 8 : 32);
    const size_t length = packet.size() - at;
    const uint32_t pseudo = onesSum(addresses, length + protocol);
    return static_cast<uint16_t>(~onesSum({&packet[at], length}, pseudo) & 0xffff);
}

Bytes bytesOf(const Ipv4& packet) {
    const size_t header = 20 + packet.options.size();
    Bytes bytes(packet.size, 0);
    bytes[0] = static_cast<uint8_t>(0x40 | header / 4);
    bytes[1] = packet.tos;
    put16(&bytes[2], packet.size);
    put16(&bytes[4], packet.id);
    put16(&bytes[6], (packet.dontFragment ? 0x4000U : 0U) | (packet.moreFragments ? 0x2000U : 0U) |
                         packet.offset);
    bytes[8] = packet.ttl;
    bytes[9] = packet.protocol;
    putAddress(AF_INET, packet.from, &bytes[12]);
    putAddress(AF_INET, packet.to, &bytes[16]);
    std::copy(packet.options.begin(), packet.options.end(), bytes.begin() + 20);
    std::copy(packet.payload.begin(), packet.payload.end(),
              bytes.begin() + static_cast<ptrdiff_t>(header));
    if (packet.protocol == kUdp && packet.offset == 0 && packet.payload.empty())
        putUdp(bytes, header, packet.fromPort, packet.toPort);
    seal(bytes.data());
    return bytes;
}

Bytes bytesOf(const Ipv6& packet) {
    const size_t header = 40 + packet.extensions.size();
    Bytes bytes(packet.size, 0);
    bytes[0] = static_cast<uint8_t>(0x60 | packet.trafficClass >> 4);
    bytes[1] =
        static_cast<uint8_t>(uint32_t{packet.trafficClass} << 4 | (packet.flowLabel >> 16 & 15U));
    put16(&bytes[2], packet.flowLabel & 0xffff);
    put16(&bytes[4], packet.size - 40);
    bytes[6] = packet.extensions.empty() ? packet.nextHeader : packet.firstHeader;
    bytes[7] = packet.hopLimit;
    putAddress(AF_INET6, packet.from, &bytes[8]);
    putAddress(AF_INET6, packet.to, &bytes[24]);
    std::copy(packet.extensions.begin(), packet.extensions.end(), bytes.begin() + 40);
    std::copy(packet.payload.begin(), packet.payload.end(),
              bytes.begin() + static_cast<ptrdiff_t>(header));
    if (packet.nextHeader == kUdp && packet.isWhole && packet.payload.empty())
        putUdp(bytes, header, packet.fromPort, packet.toPort);
    return bytes;
}

Bytes icmp(uint8_t type, uint8_t code, size_t size) {
    Bytes bytes(size, 0);
    bytes[0] = type;
    bytes[1] = code;
    put16(&bytes[2], ~onesSum(bytes) & 0xffff);
    return bytes;
}

Bytes icmp6(uint8_t type, uint8_t code, size_t size, const std::string& from,
            const std::string& to) {
    constexpr uint8_t kIcmpv6 = 58;
    Bytes packet = bytesOf(Ipv6{.size = 40 + size, .from = from, .to = to, .nextHeader = kIcmpv6});
    packet[40] = type;
    packet[41] = code;
    put16(&packet[42], transportChecksum(packet, 40, kIcmpv6));
    return {packet.begin() + 40, packet.end()};
}

std::vector<Ipv4> fragments(const Ipv4& whole, size_t size) {
    const Bytes bytes = bytesOf(whole);
    const size_t piece = (size - 20) / 8 * 8;
    std::vector<Ipv4> all;
    for (size_t at = 20; at < bytes.size(); at += piece) {
        const size_t end = std::min(at + piece, bytes.size());
        Ipv4 fragment = whole;
        fragment.size = 20 + end - at;
        fragment.offset = static_cast<uint16_t>((at - 20) / 8);
        fragment.moreFragments = end < bytes.size();
        fragment.payload.assign(bytes.begin() + static_cast<ptrdiff_t>(at),
                                bytes.begin() + static_cast<ptrdiff_t>(end));
        all.push_back(fragment);
    }
    return all;
}

std::vector<Ipv6> fragments(const Ipv6& whole, size_t size, uint32_t id) {
    const Bytes bytes = bytesOf(whole);
    const size_t piece = (size - 48) / 8 * 8;
    std::vector<Ipv6> all;
    for (size_t at = 40; at < bytes.size(); at += piece) {
        const size_t end = std::min(at + piece, bytes.size());
        Ipv6 fragment = whole;
        fragment.size = 48 + end - at;
        fragment.firstHeader = kFragment;
        fragment.extensions = {whole.nextHeader, 0, 0, 0, 0, 0, 0, 0};
        put16(&fragment.extensions[2], (at - 40) | (end < bytes.size() ? 1U : 0U));
        put16(&fragment.extensions[4], id >> 16);
        put16(&fragment.extensions[6], id & 0xffff);
        fragment.isWhole = false;
        fragment.payload.assign(bytes.begin() + static_cast<ptrdiff_t>(at),
                                bytes.begin() + static_cast<ptrdiff_t>(end));
        all.push_back(fragment);
    }
    return all;
}

Bytes frameOf(const Bytes& packet, const Mac& from, const Mac& to) {
    Bytes frame;
    frame.insert(frame.end(), to.begin(), to.end());
    frame.insert(frame.end(), from.begin(), from.end());
    const bool isIpv4 = packet[0] >> 4 == 4;
    frame.push_back(isIpv4 ? 0x08 : 0x86);
    frame.push_back(isIpv4 ? 0x00 : 0xdd);
    frame.insert(frame.end(), packet.begin(), packet.end());
    return frame;
}

}  // namespace packets
