// SPDX-License-Identifier: MIT
// The transmit queue: sends posted frames through a packet socket.
#ifndef PMTUD_LINUX_TX_QUEUE_H
#define PMTUD_LINUX_TX_QUEUE_H

#include <cstddef>
#include <cstdint>

#include "descriptor.h"
#include "pktd_record.h"

namespace pmtud_linux {

/// Writes the whole record, with a copy of the frame in its first 9,000 bytes. 0, -EINVAL if an
/// argument is missing, -EMSGSIZE if the frame does not fit.
int fillRecord(st_pktd_shm_queue_entry_data_t* record, int proto, int vid, const uint8_t* frame,
               size_t length);

class TxQueue {
 public:
    /// Sends the record's frame on the record's unit and port if its dst_valid is set, else on its
    /// VLAN's interface. Frames on bcm0.N are untagged, so a tag with VLAN N is removed. *out
    /// becomes the number of bytes sent. 0 or a negative errno value: -ENODEV if there is no such
    /// unit, port or VLAN.
    int post(const st_pktd_shm_queue_entry_data_t& record, size_t length, uint32_t* out);

 private:
    int open();

    // Opened by the first post and then kept: a service that posts nothing may be denied packet
    // sockets.
    Descriptor m_socket;
};

}  // namespace pmtud_linux

#endif
