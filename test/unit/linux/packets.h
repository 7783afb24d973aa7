// SPDX-License-Identifier: MIT
// IPv4 and IPv6 packets as a host would send them.
#ifndef PMTUD_TEST_LINUX_PACKETS_H
#define PMTUD_TEST_LINUX_PACKETS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

struct Ipv4 {
    size_t size = 1400;  ///< header included
    bool dontFragment = true;
    uint16_t identification = 0x1234;
    uint16_t fragmentOffset = 0;  ///< in units of eight bytes
    uint8_t ttl = 64;
    uint8_t protocol = 17;
    std::string source = "10.0.10.2";
    std::string destination = "10.0.20.2";
    uint8_t filling = 0xa5;
    Bytes start;  ///< of the payload; the filling follows
};

struct Ipv6 {
    size_t size = 1400;  ///< header included
    uint8_t hopLimit = 64;
    uint8_t nextHeader = 17;
    std::string source = "fd00:10::2";
    std::string destination = "fd00:20::2";
    uint8_t filling = 0xa5;
    Bytes start;
};

/// The whole packet, with its header checksum.
Bytes packet(const Ipv4& ipv4);
Bytes packet(const Ipv6& ipv6);

/// The Internet checksum (RFC 1071) of the bytes: 0 over what carries a right one.
uint16_t checksum(const Bytes& bytes);

/// The checksum over an IPv6 packet's payload and pseudo-header (RFC 8200 section 8.1).
uint16_t transportChecksum(const Bytes& ipv6Packet);

#endif
