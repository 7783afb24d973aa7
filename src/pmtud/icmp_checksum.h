// SPDX-License-Identifier: MIT
// The checksum of the ICMP messages that the daemon builds.
#ifndef PMTUD_ICMP_CHECKSUM_H
#define PMTUD_ICMP_CHECKSUM_H

#include <cstdint>

/// The Internet checksum (RFC 1071) of `len` bytes, in host order, with the carries folded in
/// once only, on purpose: a carry out of that fold is dropped.  An odd `len` reads the byte
/// behind the message as well.
uint16_t icmpChecksum(const uint8_t* message, uint16_t len);

#endif
