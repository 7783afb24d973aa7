// SPDX-License-Identifier: MIT
// TCP segments and UDP datagrams that a host sends merged; its own or a router's kernel splits
// them.
#ifndef PMTUD_TWIN_SEGMENTS_H
#define PMTUD_TWIN_SEGMENTS_H

#include <cstdint>
#include <string>

#include "packet.h"

namespace twin {

using packets::Bytes;

/// What a packet socket with PACKET_VNET_HDR puts before a frame; linux/virtio_net.h does not
/// compile as C++.
struct Offload {
    static constexpr uint8_t kNeedsChecksum = 1;

    static constexpr uint8_t kNone = 0;
    static constexpr uint8_t kTcp4 = 1;
    static constexpr uint8_t kTcp6 = 4;
    static constexpr uint8_t kUdp = 5;

    uint8_t flags = 0;
    uint8_t type = kNone;
    uint16_t headerSize = 0;
    uint16_t segmentSize = 0;
    uint16_t checksumStart = 0;
    uint16_t checksumOffset = 0;
};
static_assert(sizeof(Offload) == 10);

/// More bytes than a frame holds, to be cut by offload.
struct Merged {
    std::string from;
    std::string to;
    size_t bytes = 20000;  ///< of payload
    size_t each = 1448;    ///< of payload in each frame
    bool isTcp = true;
    uint16_t id = 0;  ///< of the first; the flow label for IPv6
};

/// The packet and what a packet socket must be told about it.
Bytes bytesOf(const Merged& merged);
Offload offloadOf(const Merged& merged);

/// The checksum that the sender has left to the offload.
void addChecksum(Bytes& frame, const Offload& offload);

}  // namespace twin

#endif
