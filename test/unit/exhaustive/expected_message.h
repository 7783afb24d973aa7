// SPDX-License-Identifier: MIT
// The messages that must answer a frame, made of the frame's bytes by plain arithmetic.
#ifndef PMTUD_TEST_EXPECTED_MESSAGE_H
#define PMTUD_TEST_EXPECTED_MESSAGE_H

#include "engine_test.h"

namespace expected {

using engine_test::Bytes;
using engine_test::operator+;

/// A big-endian number of 16 bits.
inline Bytes bytesOf(uint32_t number) {
    return {static_cast<uint8_t>(number / 256 % 256), static_cast<uint8_t>(number % 256)};
}

/// The Internet checksum of an even number of bytes; what the one fold carries out is lost.
inline uint16_t checksumFoldedOnce(const Bytes& message) {
    uint32_t sum = 0;
    for (std::size_t i = 0; i < message.size(); i += 2) sum += message[i] * 256U + message[i + 1];
    return static_cast<uint16_t>(65535 - (sum % 65536 + sum / 65536) % 65536);
}

/// Destination Unreachable, code 4, with 60 bytes of the frame's IPv4 packet.
inline Bytes fragmentationNeeded(uint32_t mtu, const Bytes& frame) {
    const Bytes typeAndCode = {3, 4};
    const Bytes noChecksum = {0, 0};
    const Bytes rest = Bytes{0, 0} + bytesOf(mtu) + engine_test::slice(frame, 18, 78);
    return typeAndCode + bytesOf(checksumFoldedOnce(typeAndCode + noChecksum + rest)) + rest;
}

/// Packet Too Big with as much of the frame's IPv6 packet as the MTU and 1500 bytes allow.
inline Bytes packetTooBig(uint32_t mtu, const Bytes& frame) {
    std::size_t length = 8U + 40U + frame[22] * 256U + frame[23];
    if (length > 1500) length = 1500;
    if (length > mtu) length = mtu;
    return Bytes{2, 0, 0, 0, 0, 0} + bytesOf(mtu) + engine_test::slice(frame, 18, 18 + length - 8);
}

}  // namespace expected

#endif
