// SPDX-License-Identifier: MIT
// What a host receives, in a form in which two routers that do the same are equal.
#ifndef PMTUD_TWIN_OBSERVATION_H
#define PMTUD_TWIN_OBSERVATION_H

#include <cstdint>
#include <optional>
#include <string>

#include "packet.h"

namespace twin {

using packets::Bytes;

/// A "too big" message: who was told what about which packet. Its length, and what it quotes
/// beyond the first eight bytes after the IP header, are its sender's choice.
///
/// Any other frame: all its bytes, except those that the kernel chooses at random.
struct Observation {
    std::string text;        ///< equal for equal observations
    bool isTooBig = false;   ///< a message about a packet that is too large
    uint32_t serial = 0;     ///< of the packet that the message quotes
    size_t messageSize = 0;  ///< of a "too big" message, without IP headers
};

struct Ignored {
    bool answerSource = false;  ///< the source address of "too big" messages
    bool answerHost = false;    ///< the interface on which they arrive, on one of several ways
};

/// Nothing for what a router sends unasked, neighbour discovery and group membership, nor for
/// IPv4's "net unreachable" and "host unreachable", which the kernel limits by time. Nothing for
/// the later fragments of an ICMPv6 message either.
std::optional<Observation> observe(const std::string& host, const Bytes& frame, Ignored ignored);

}  // namespace twin

#endif
