// SPDX-License-Identifier: MIT
// A view of the fixed part of an IPv4 header.
#ifndef PMTUD_IPV4_HEADER_H
#define PMTUD_IPV4_HEADER_H

#include <boost/asio/ip/address_v4.hpp>
#include <cstddef>
#include <cstdint>

#include "BigEndian.h"

/// A read-only view of an IPv4 header (RFC 791 section 3.1), from its first byte, without its
/// options. It owns nothing and checks nothing: callers must know that the buffer holds the field
/// they read. The bytes may be at any address.
///
///      0                   1                   2                   3
///      0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
///     +-------+-------+---------------+-------------------------------+
///   0 |Version|  IHL  |      TOS      |         Total Length          |
///     +-------+-------+---------------+-----+-------------------------+
///   4 |              Id               |Flags|     Fragment offset     |
///     +---------------+---------------+-----+-------------------------+
///   8 |      TTL      |   Protocol    |           Checksum            |
///     +---------------+---------------+-------------------------------+
///  12 |                        Source address                         |
///     +---------------------------------------------------------------+
///  16 |                      Destination address                      |
///     +---------------------------------------------------------------+
class Ipv4Header {
 public:
    /// The largest header that IHL can describe. The dump and the quote deliberately take this many
    /// bytes, whatever this header's IHL is. The true length is ihl().
    static constexpr size_t kSize = 60;

    explicit Ipv4Header(const uint8_t* bytes) : m_bytes(bytes) {}

    const uint8_t* data() const { return m_bytes; }
    static constexpr size_t size() { return kSize; }

    uint8_t version() const { return m_bytes[kVersionIhl] >> 4 & 0xF; }
    /// Header length in 32-bit words, 0 to 15.
    uint8_t ihlRaw() const { return m_bytes[kVersionIhl] & 0xF; }
    /// Header length in bytes, 0 to 60.
    unsigned ihl() const { return ihlRaw() * 4U; }
    uint8_t tos() const { return m_bytes[kTos]; }
    uint16_t totalLength() const { return big_endian::load16(m_bytes + kTotalLength); }
    uint16_t id() const { return big_endian::load16(m_bytes + kId); }
    /// All three flag bits, including the reserved one: 0 to 7.
    uint8_t flags() const { return m_bytes[kFlags] >> 5; }
    bool df() const { return (m_bytes[kFlags] >> 6 & 1) != 0; }
    bool mf() const { return (m_bytes[kFlags] >> 5 & 1) != 0; }
    /// In units of 8 bytes.
    uint16_t fragmentOffset() const { return big_endian::load16(m_bytes + kFlags) & 0x1FFF; }
    uint8_t ttl() const { return m_bytes[kTtl]; }
    uint8_t protocol() const { return m_bytes[kProtocol]; }
    /// As found in the header; nothing verifies it.
    uint16_t checksum() const { return big_endian::load16(m_bytes + kChecksum); }
    boost::asio::ip::address_v4 src() const { return address(kSrc); }
    boost::asio::ip::address_v4 dst() const { return address(kDst); }

 private:
    static constexpr size_t kVersionIhl = 0;
    static constexpr size_t kTos = 1;
    static constexpr size_t kTotalLength = 2;
    static constexpr size_t kId = 4;
    static constexpr size_t kFlags = 6;
    static constexpr size_t kTtl = 8;
    static constexpr size_t kProtocol = 9;
    static constexpr size_t kChecksum = 10;
    static constexpr size_t kSrc = 12;
    static constexpr size_t kDst = 16;

    boost::asio::ip::address_v4 address(size_t offset) const {
        return boost::asio::ip::address_v4(big_endian::load32(m_bytes + offset));
    }

    const uint8_t* m_bytes;
};

#endif
