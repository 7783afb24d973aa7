// SPDX-License-Identifier: MIT
// The checksum of ICMP messages.
#ifndef PMTUD_ICMP_CHECKSUM_H
#define PMTUD_ICMP_CHECKSUM_H

#include <cstdint>

/// The Internet checksum (RFC 1071) of `len` bytes, in host byte order, with two deliberate
/// differences. The carries are folded in only once, so a carry out of that fold is dropped. With
/// an odd `len`, the last byte and the one after the message are added shifted left by 8, instead
/// of the last byte and a zero.
uint16_t icmpChecksum(const uint8_t* message, uint16_t len);

#endif
