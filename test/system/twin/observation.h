// SPDX-License-Identifier: MIT
// What a host receives, in a form that is the same for two routers that behave the same.
#ifndef PMTUD_TWIN_OBSERVATION_H
#define PMTUD_TWIN_OBSERVATION_H

#include <cstdint>
#include <optional>
#include <string>

#include "packet.h"

namespace twin {

using packets::Bytes;

struct Observation {
    /// Equal for equal observations. A "too big" message: who was told what about which packet. Its
    /// length, and what it quotes beyond the first eight bytes after the IP header, are its
    /// sender's choice. Any other frame: all its bytes, except those that the kernel chooses at
    /// random.
    std::string text;
    bool isTooBig = false;
    uint32_t serial = 0;  ///< of the packet that a "too big" message quotes
};

struct Ignored {
    bool answerSource = false;  ///< the source address of "too big" messages
    bool answerHost = false;    ///< the interface on which they arrive, if there are several ways
};

/// Nothing for what a router sends unsolicited (neighbour discovery and group membership), for
/// IPv4's "net unreachable" and "host unreachable", whose rate the kernel limits, and for the later
/// fragments of an ICMPv6 message.
std::optional<Observation> observe(const std::string& host, Bytes frame, Ignored ignored);

}  // namespace twin

#endif
