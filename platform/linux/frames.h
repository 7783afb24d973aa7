// SPDX-License-Identifier: MIT
// From a message of the log group to what the receive callback is given: record and frame.
#ifndef PMTUD_LINUX_FRAMES_H
#define PMTUD_LINUX_FRAMES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "pktd_record.h"

namespace pmtud_linux {

/// One packet as the kernel logged it.  The views are into the message.
struct LoggedPacket {
    uint32_t ingress = 0;                 ///< interface index; 0: not told
    uint32_t mark = 0;                    ///< the egress' interface index; 0: not told
    uint16_t protocol = 0;                ///< EtherType; 0: not told
    std::optional<uint32_t> sequence;     ///< counts all messages of the group from 0
    std::span<const uint8_t> linkHeader;  ///< empty: not told
    std::span<const uint8_t> payload;     ///< from the IP header on; may be cut short
};

/// Reads one netlink message that begins at `bytes`, aligned for a nlmsghdr; reads
/// nothing behind bytes + length, whatever lengths the message claims.  Nothing where
/// it is no packet of a log group or its lengths contradict each other.
std::optional<LoggedPacket> decodePacket(const void* bytes, size_t length);

/// Whether the netlink message is a packet of a log group, as far as its header says.
bool isPacket(const void* bytes, size_t length);

/// The one frame that is being handled, with its record.
class Frame {
 public:
    /// Ethernet header with one tag.
    static constexpr size_t headerSize = 18;

    /// The largest frame that a reader goes by the headers to read: one that carries an
    /// IPv6 packet with the payload length 65,535.
    static constexpr size_t capacity = headerSize + 40 + 65535;

    /// Builds record and frame of a packet that came in by the VLAN's interface.  What lies
    /// behind the frame, up to the capacity, is zero.  False, and nothing is built, where
    /// the packet is no IPv4 or IPv6 packet with a whole header, is larger than a
    /// frame can be, or lacks its ingress or egress.
    bool build(const LoggedPacket& packet, int vlan);

    const st_pktd_shm_queue_entry_data_t& record() const { return m_record; }
    uint8_t* data() { return m_bytes.data(); }
    size_t size() const { return m_size; }

 private:
    st_pktd_shm_queue_entry_data_t m_record{};
    std::array<uint8_t, capacity> m_bytes{};
    size_t m_size = 0;
};

}  // namespace pmtud_linux

#endif
