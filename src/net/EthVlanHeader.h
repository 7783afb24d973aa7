// SPDX-License-Identifier: MIT
// A view of an Ethernet II header with one IEEE 802.1Q tag.
#ifndef PMTUD_ETH_VLAN_HEADER_H
#define PMTUD_ETH_VLAN_HEADER_H

#include <net/ethernet.h>

#include <cstddef>
#include <cstdint>

#include "BigEndian.h"

/// A read-only view of an Ethernet II header with exactly one 802.1Q tag, from its first byte. It
/// owns nothing and checks nothing: callers must know that the buffer holds the field they read.
/// The bytes may be at any address.
///
///      0                   1                   2                   3
///      0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
///     +---------------------------------------------------------------+
///   0 |                    destination MAC address                    |
///     +-------------------------------+-------------------------------+
///   4 |                               |                               |
///     +-------------------------------+      source MAC address       |
///   8 |                                                               |
///     +-------------------------------+-----+-+-----------------------+
///  12 |             TPID              | PCP |D|        VLAN ID        |
///     +-------------------------------+-----+-+-----------------------+
///  16 |           EtherType           |
///     +-------------------------------+
class EthVlanHeader {
 public:
    static constexpr size_t kSize = 18;

    explicit EthVlanHeader(const uint8_t* bytes) : m_bytes(bytes) {}

    const uint8_t* data() const { return m_bytes; }
    static constexpr size_t size() { return kSize; }
    const uint8_t* payload() const { return m_bytes + kSize; }

    const ether_addr* dest() const { return address(kDest); }
    const ether_addr* source() const { return address(kSource); }
    uint16_t vlan_tpid() const { return big_endian::load16(m_bytes + kTpid); }
    uint16_t vlan_tci() const { return big_endian::load16(m_bytes + kTci); }
    /// Priority code point, 0 to 7.
    uint16_t vlan_pcp() const { return static_cast<uint16_t>(vlan_tci() >> 13); }
    /// Drop eligible indicator.
    bool vlan_dei() const { return (vlan_tci() & 0x1000) >> 12 != 0; }
    /// VLAN identifier, 0 to 4095.
    uint16_t vlan_id() const { return vlan_tci() & 0xFFF; }
    /// EtherType of the payload.
    uint16_t proto() const { return big_endian::load16(m_bytes + kProto); }

 private:
    static constexpr size_t kDest = 0;
    static constexpr size_t kSource = 6;
    static constexpr size_t kTpid = 12;
    static constexpr size_t kTci = 14;
    static constexpr size_t kProto = 16;

    static_assert(alignof(ether_addr) == 1 && sizeof(ether_addr) == 6);
    const ether_addr* address(size_t offset) const {
        return reinterpret_cast<const ether_addr*>(m_bytes + offset);
    }

    const uint8_t* m_bytes;
};

#endif
