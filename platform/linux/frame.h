// SPDX-License-Identifier: MIT
// What the receive callback gets: a queue record and a tagged frame.
#ifndef PMTUD_LINUX_FRAME_H
#define PMTUD_LINUX_FRAME_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "copy.h"
#include "pktd_record.h"

namespace pmtud_linux {

/// The frame being handled, with its record.
class Frame {
 public:
    /// Ethernet header with one tag.
    static constexpr size_t kHeaderSize = 18;

    /// The largest frame a reader that trusts the headers may touch: an IPv6 packet whose payload
    /// length is 65,535.
    static constexpr size_t kCapacity = kHeaderSize + 40 + 65535;

    /// Builds record and frame of a packet that arrived on `ingressVlan` and was routed to the
    /// interface with index `egress`. The frame is as long as the packet was. After the copied
    /// bytes, it is zero up to the capacity. The IP header is taken from the quote, because the
    /// kernel may have written into the options.
    void build(const Copy& copy, int ingressVlan, uint32_t egress, std::span<const uint8_t> quote);

    const st_pktd_shm_queue_entry_data_t& record() const { return m_record; }
    uint8_t* data() { return m_bytes.data(); }
    size_t size() const { return m_size; }

 private:
    st_pktd_shm_queue_entry_data_t m_record{};
    std::array<uint8_t, kCapacity> m_bytes{};
    size_t m_size = 0;
    size_t m_written = 0;  // all bytes from here on are zero
};

}  // namespace pmtud_linux

#endif
