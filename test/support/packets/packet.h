// SPDX-License-Identifier: MIT
// Packets as a host would send them, and the frames that carry them.
#ifndef PMTUD_PACKETS_PACKET_H
#define PMTUD_PACKETS_PACKET_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "bytes.h"

namespace packets {

using Mac = std::array<uint8_t, 6>;

/// An IPv4 packet; UDP with a correct checksum unless it has another protocol or an offset.
struct Ipv4 {
    size_t size = 1500;  ///< header included
    std::string from = "10.0.10.2";
    std::string to = "10.0.20.2";
    bool dontFragment = true;
    bool moreFragments = false;
    uint16_t offset = 0;  ///< in units of eight bytes
    uint8_t ttl = 64;
    uint8_t tos = 0;
    uint8_t protocol = 17;
    uint16_t fromPort = 4000;
    uint16_t toPort = 5000;
    Bytes options = {};  ///< a multiple of four bytes
    Bytes payload = {};  ///< its start; zeros follow
    uint16_t id = 0;     ///< 0: the sender chooses one
};

/// The same for IPv6.
struct Ipv6 {
    size_t size = 1500;  ///< header included
    std::string from = "2001:db8:10::2";
    std::string to = "2001:db8:20::2";
    uint8_t hopLimit = 64;
    uint8_t trafficClass = 0;
    uint8_t nextHeader = 17;  ///< after the extension headers
    uint16_t fromPort = 4000;
    uint16_t toPort = 5000;
    uint8_t firstHeader = 17;  ///< the type of the first extension header, if there is one
    Bytes extensions = {};     ///< whole extension headers; the last names `nextHeader`
    Bytes payload = {};
    bool isWhole = true;  ///< false: a fragment, whose payload has no UDP header
    uint32_t flowLabel = 0;
};

Bytes bytesOf(const Ipv4& packet);
Bytes bytesOf(const Ipv6& packet);

/// An ICMP or ICMPv6 message of that size with a correct checksum, as a payload.
Bytes icmp(uint8_t type, uint8_t code, size_t size);
Bytes icmp6(uint8_t type, uint8_t code, size_t size, const std::string& from,
            const std::string& to);

/// One datagram in fragments of at most `size` bytes each, all of the same identification.
std::vector<Ipv4> fragments(const Ipv4& whole, size_t size);
std::vector<Ipv6> fragments(const Ipv6& whole, size_t size, uint32_t id);

Bytes frameOf(const Bytes& packet, const Mac& from, const Mac& to);

/// The ones' complement checksum of the transport header at `at`, with the pseudo-header; 0 if the
/// packet, which starts with its IP header, contains the correct one.
uint16_t transportChecksum(const Bytes& packet, size_t at, uint8_t protocol);

/// Writes the checksum of an IPv4 header.
void seal(uint8_t* header);

}  // namespace packets

#endif
