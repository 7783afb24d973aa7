// SPDX-License-Identifier: MIT
// The checksum of ICMP messages.
#include "icmp_checksum.h"

#include "BigEndian.h"

uint16_t icmpChecksum(const uint8_t* message, uint16_t len) {
    uint32_t sum = 0;
    const uint8_t* word = message;
    for (unsigned words = len / 2U; words > 0; --words, word += 2) sum += big_endian::load16(word);
    if (len % 2 != 0) sum += static_cast<uint32_t>(big_endian::load16(word)) << 8;
    sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}
