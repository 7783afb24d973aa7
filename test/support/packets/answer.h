// SPDX-License-Identifier: MIT
// A path-MTU answer as host A receives it: ICMP "fragmentation needed", ICMPv6 Packet Too Big.
#ifndef PMTUD_PACKETS_ANSWER_H
#define PMTUD_PACKETS_ANSWER_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace packets {

struct Answer {
    int family = 0;
    uint32_t mtu = 0;
    uint32_t serial = 0;              ///< its low 16 bits (IPv4) or 20 bits (IPv6)
    size_t packetLength = 0;          ///< of the whole IP packet
    size_t messageLength = 0;         ///< of the ICMP message in it
    std::span<const uint8_t> source;  ///< of the answer
    std::span<const uint8_t> destination;
    std::span<const uint8_t> quote;  ///< of the packet that it answers, from its IP header on
    /// The ICMP checksum was folded only once, and the carry of that fold was dropped, whereas RFC
    /// 1071 section 4.1 adds it back. The daemon does so intentionally.
    bool carryDropped = false;
    std::string problem;  ///< what is wrong with the message itself; empty: nothing
};

/// Nothing if the frame is not a path-MTU answer. The views point into the frame.
std::optional<Answer> readAnswer(std::span<const uint8_t> frame);

/// The same for a packet, from its IP header on.
std::optional<Answer> readAnswerPacket(std::span<const uint8_t> packet);

}  // namespace packets

#endif
