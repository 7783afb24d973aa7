// SPDX-License-Identifier: MIT
// Bytes, big-endian fields and the Internet checksum (RFC 1071), independent of the daemon's.
#ifndef PMTUD_PACKETS_BYTES_H
#define PMTUD_PACKETS_BYTES_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace packets {

using Bytes = std::vector<uint8_t>;
using Span = std::span<const uint8_t>;

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// The bytes from offset `from` up to, not including, offset `to`.
inline Bytes cut(Span bytes, size_t from, size_t to) {
    const Span part = bytes.subspan(from, to - from);
    return {part.begin(), part.end()};
}

inline void put16(uint8_t* at, size_t value) {
    at[0] = static_cast<uint8_t>(value >> 8);
    at[1] = static_cast<uint8_t>(value);
}

inline void put16(Bytes& bytes, size_t at, size_t value) {
    bytes.at(at) = static_cast<uint8_t>(value >> 8);
    bytes.at(at + 1) = static_cast<uint8_t>(value);
}

inline uint32_t get16(const uint8_t* at) { return static_cast<uint32_t>(at[0] << 8 | at[1]); }

inline size_t get16(Span bytes, size_t at) { return get16(&bytes[at]); }

inline uint32_t get32(const uint8_t* at) { return get16(at) << 16 | get16(at + 2); }

/// The ones' complement sum of 16-bit words on top of `sum`, folded: 0xffff over data whose
/// checksum is correct.
inline uint32_t onesSum(Span bytes, uint64_t sum = 0) {
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) sum += get16(&bytes[i]);
    if (bytes.size() % 2 != 0) sum += static_cast<uint64_t>(bytes.back()) << 8;
    while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint32_t>(sum);
}

}  // namespace packets

#endif
