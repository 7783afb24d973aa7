// SPDX-License-Identifier: MIT
// A view of the fixed IPv6 header.
#ifndef PMTUD_IPV6_HEADER_H
#define PMTUD_IPV6_HEADER_H

#include <algorithm>
#include <boost/asio/ip/address_v6.hpp>
#include <cstddef>
#include <cstdint>

#include "BigEndian.h"

/// A read-only view of the fixed IPv6 header (RFC 8200 section 3), from its first byte, without
/// extension headers. It owns nothing and checks nothing: callers must know that the buffer holds
/// the field they read. The bytes may be at any address.
///
///      0                   1                   2                   3
///      0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
///     +-------+---------------+---------------------------------------+
///   0 |Version| Traffic Class |              Flow Label               |
///     +-------+---------------+-------+---------------+---------------+
///   4 |        Payload Length         |  Next Header  |   Hop Limit   |
///     +-------------------------------+---------------+---------------+
///   8 |                                                               |
///     |                  Source address (16 bytes)                    |
///     +---------------------------------------------------------------+
///  24 |                                                               |
///     |                Destination address (16 bytes)                 |
///     +---------------------------------------------------------------+
class Ipv6Header {
 public:
    static constexpr size_t kSize = 40;

    explicit Ipv6Header(const uint8_t* bytes) : m_bytes(bytes) {}

    const uint8_t* data() const { return m_bytes; }

    uint8_t version() const { return m_bytes[kVersion] >> 4; }
    /// Deliberately not read: 0 for every header.
    static constexpr uint8_t trafficClass() { return 0; }
    uint32_t flowLabel() const { return big_endian::load32(m_bytes + kVersion) & 0xFFFFF; }
    /// Bytes after this header, including extension headers.
    uint16_t payloadLength() const { return big_endian::load16(m_bytes + kPayloadLength); }
    uint8_t nextHeader() const { return m_bytes[kNextHeader]; }
    uint8_t hopLimit() const { return m_bytes[kHopLimit]; }
    boost::asio::ip::address_v6 src() const { return address(kSrc); }
    boost::asio::ip::address_v6 dst() const { return address(kDst); }
    /// Header and payload in bytes, 40 to 65,575; derived, not read.
    uint32_t totalLength() const { return payloadLength() + uint32_t{kSize}; }

 private:
    static constexpr size_t kVersion = 0;
    static constexpr size_t kPayloadLength = 4;
    static constexpr size_t kNextHeader = 6;
    static constexpr size_t kHopLimit = 7;
    static constexpr size_t kSrc = 8;
    static constexpr size_t kDst = 24;

    boost::asio::ip::address_v6 address(size_t offset) const {
        boost::asio::ip::address_v6::bytes_type bytes;
        std::copy_n(m_bytes + offset, bytes.size(), bytes.begin());
        return boost::asio::ip::address_v6(bytes);
    }

    const uint8_t* m_bytes;
};

#endif
