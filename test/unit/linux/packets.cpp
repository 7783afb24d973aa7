// SPDX-License-Identifier: MIT
// IPv4 and IPv6 packets as a host would send them.
#include "packets.h"

#include <arpa/inet.h>

#include <algorithm>
#include <stdexcept>

namespace {

void putAddress(int family, const std::string& text, uint8_t* to) {
    if (inet_pton(family, text.c_str(), to) != 1) throw std::invalid_argument(text);
}

void put(uint8_t* to, size_t value) {
    to[0] = static_cast<uint8_t>(value >> 8);
    to[1] = static_cast<uint8_t>(value);
}

}  // namespace

Bytes packet(const Ipv4& ipv4) {
    Bytes bytes(ipv4.size, ipv4.filling);
    std::copy(ipv4.start.begin(), ipv4.start.end(), bytes.begin() + 20);
    std::fill_n(bytes.begin(), 20, uint8_t{0});
    bytes[0] = 0x45;
    put(&bytes[2], ipv4.size);
    put(&bytes[4], ipv4.identification);
    put(&bytes[6], (ipv4.dontFragment ? 0x4000U : 0U) | ipv4.fragmentOffset);
    bytes[8] = ipv4.ttl;
    bytes[9] = ipv4.protocol;
    putAddress(AF_INET, ipv4.source, &bytes[12]);
    putAddress(AF_INET, ipv4.destination, &bytes[16]);
    put(&bytes[10], checksum(Bytes(bytes.begin(), bytes.begin() + 20)));
    return bytes;
}

Bytes packet(const Ipv6& ipv6) {
    Bytes bytes(ipv6.size, ipv6.filling);
    std::copy(ipv6.start.begin(), ipv6.start.end(), bytes.begin() + 40);
    std::fill_n(bytes.begin(), 40, uint8_t{0});
    bytes[0] = 0x60;
    put(&bytes[4], ipv6.size - 40);
    bytes[6] = ipv6.nextHeader;
    bytes[7] = ipv6.hopLimit;
    putAddress(AF_INET6, ipv6.source, &bytes[8]);
    putAddress(AF_INET6, ipv6.destination, &bytes[24]);
    return bytes;
}

uint16_t checksum(const Bytes& bytes) {
    uint32_t sum = 0;
    for (size_t i = 0; i < bytes.size(); ++i) sum += i % 2 == 0 ? bytes[i] * 256U : bytes[i];
    while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum & 0xffff);
}

uint16_t transportChecksum(const Bytes& ipv6Packet) {
    Bytes bytes(ipv6Packet.begin() + 8, ipv6Packet.begin() + 40);
    const size_t length = ipv6Packet.size() - 40;
    const Bytes rest = {0,
                        0,
                        static_cast<uint8_t>(length >> 8),
                        static_cast<uint8_t>(length),
                        0,
                        0,
                        0,
                        ipv6Packet[6]};
    bytes.insert(bytes.end(), rest.begin(), rest.end());
    bytes.insert(bytes.end(), ipv6Packet.begin() + 40, ipv6Packet.end());
    return checksum(bytes);
}
