// SPDX-License-Identifier: MIT
// The checksum of ICMP messages.
#ifndef PMTUD_ICMP_CHECKSUM_H
#define PMTUD_ICMP_CHECKSUM_H

#include <cstdint>

/// The Internet checksum (RFC 1071) of `len` bytes, in host byte order. The carries are
/// deliberately folded in only once, so a carry out of that fold is dropped. With an odd `len`, the
/// byte after the message is read too.
uint16_t icmpChecksum(const uint8_t* message, uint16_t len);

#endif
