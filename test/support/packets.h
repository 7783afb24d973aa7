// SPDX-License-Identifier: MIT
// Frames and queue records in bytes, and memory that cannot be read beyond its end.
#ifndef PMTUD_TEST_PACKETS_H
#define PMTUD_TEST_PACKETS_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "guarded_memory.h"
#include "packets/bytes.h"
#include "pktd_record.h"

namespace packets {

using Lines = std::vector<std::string>;

inline Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// The bytes, with those from the offset on replaced by `changed`.
inline Bytes with(Bytes bytes, size_t offset, const Bytes& changed) {
    std::copy(changed.begin(), changed.end(), bytes.begin() + static_cast<ptrdiff_t>(offset));
    return bytes;
}

/// The number in network order.
inline Bytes bytesOf(uint16_t number) {
    return {static_cast<uint8_t>(number / 256), static_cast<uint8_t>(number % 256)};
}

/// 0, 1, ... 250, 0, 1, ...: 251 does not divide any length in use, so a shifted copy differs.
inline Bytes payload(size_t count) {
    Bytes bytes(count);
    for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(i % 251);
    return bytes;
}

/// From 00:00:5e:00:53:01 to 00:1a:2b:3c:4d:5e, priority 3, drop eligible, VLAN 20 (TCI 7014).
inline Bytes ethernet(uint16_t etherType) {
    return Bytes{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0x00, 0x00,
                 0x5e, 0x00, 0x53, 0x01, 0x81, 0x00, 0x70, 0x14} +
           bytesOf(etherType);
}

/// 1600 bytes from 192.0.2.10 to 198.51.100.20 with DF.
inline Bytes ipv4Frame() {
    return ethernet(0x0800) + Bytes{0x45, 0x00, 0x06, 0x2e, 0x12, 0x34, 0x40, 0x00, 0x40, 0x11,
                                    0x36, 0x39, 0xc0, 0x00, 0x02, 0x0a, 0xc6, 0x33, 0x64, 0x14} +
           payload(1562);
}

/// From 2001:db8:0:10::a to 2001:db8:0:20::14.
inline Bytes ipv6Frame(uint16_t payloadLength) {
    return ethernet(0x86DD) + Bytes{0x6a, 0xbc, 0xde, 0xf1} + bytesOf(payloadLength) +
           Bytes{0x11, 0x40, 0x20, 0x01, 0x0d, 0xb8, 0, 0, 0,    0x10, 0, 0, 0, 0, 0, 0, 0,
                 0x0a, 0x20, 0x01, 0x0d, 0xb8, 0,    0, 0, 0x20, 0,    0, 0, 0, 0, 0, 0, 0x14} +
           payload(payloadLength);
}

/// 60 bytes with this EtherType and zeros after the Ethernet header.
inline Bytes frameOfType(uint16_t etherType) { return ethernet(etherType) + Bytes(42); }

/// A queue record in bytes. Each is 0xEE until it is set, so that reading a field too wide or at
/// the wrong offset shows.
class QueueRecord {
 public:
    /// `shift` moves the record that many bytes from an aligned address.
    explicit QueueRecord(size_t shift = 0) : m_shift(shift), m_bytes(shift + 9364, 0xEE) {}

    /// Writes the value in the processor's byte order.
    template <typename T>
    QueueRecord& set(size_t offset, T value) {
        memcpy(m_bytes.data() + m_shift + offset, &value, sizeof value);
        return *this;
    }

    const st_pktd_shm_queue_entry_data_t* get() const {
        return reinterpret_cast<const st_pktd_shm_queue_entry_data_t*>(m_bytes.data() + m_shift);
    }

    /// The bytes of an unshifted record.
    const Bytes& bytes() const { return m_bytes; }

 private:
    size_t m_shift;
    Bytes m_bytes;
};

/// The bytes, placed so that the first byte after them cannot be read.
class GuardedBytes {
 public:
    explicit GuardedBytes(const Bytes& bytes)
        : m_memory(bytes.size()), m_data(m_memory.place(bytes, bytes.size())) {}

    uint8_t* data() const { return m_data; }

 private:
    GuardedMemory m_memory;
    uint8_t* m_data;
};

}  // namespace packets

#endif
