// SPDX-License-Identifier: MIT
// Copies of candidates, kept until the kernel's messages show which of them it refused.
#include "copies.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "ip_packet.h"

namespace pmtud_linux {

namespace {

bool isInterface(uint32_t index) {
    return index != 0 && index <= uint32_t{std::numeric_limits<int32_t>::max()};
}

bool same(std::span<const uint8_t> one, std::span<const uint8_t> other, size_t from, size_t to) {
    return from >= to || memcmp(&one[from], &other[from], to - from) == 0;
}

// Ignores IPv4 options and the header checksum: the kernel may write into the options before it
// refuses the packet, which changes the checksum.
bool matches(std::span<const uint8_t> packet, std::span<const uint8_t> quote) {
    const size_t size = std::min(packet.size(), quote.size());
    if (ipVersion(packet) == 6) return same(packet, quote, 0, size);
    return same(packet, quote, 0, 10) && same(packet, quote, 12, kIpv4HeaderSize) &&
           same(packet, quote, ipHeaderSize(packet), size);
}

}  // namespace

bool Copies::keep(const LogMessage& message, int egressVlan) {
    const std::span<const uint8_t> packet = message.payload;
    if (!isInterface(message.ingress) || ipHeaderSize(packet) == 0) return false;
    if (packet.size() > kCopySize) return false;
    if (packet.size() < std::min<size_t>(claimedSize(packet), kCopySize)) return false;

    Copy& copy = m_ring[m_next];
    m_next = (m_next + 1) % m_ring.size();
    copy.ingress = message.ingress;
    copy.egressVlan = egressVlan;
    const size_t known = std::min(message.linkHeader.size(), copy.addresses.size());
    std::copy_n(message.linkHeader.begin(), known, copy.addresses.begin());
    std::fill(copy.addresses.begin() + known, copy.addresses.end(), uint8_t{0});
    copy.size = packet.size();
    copy.taken = false;
    std::copy(packet.begin(), packet.end(), copy.bytes.begin());
    return true;
}

const Copy* Copies::take(std::span<const uint8_t> quote) {
    if (ipHeaderSize(quote) == 0) return nullptr;
    for (size_t age = 1; age <= m_ring.size(); ++age) {
        Copy& copy = m_ring[(m_next + m_ring.size() - age) % m_ring.size()];
        if (copy.taken || !matches(copy.packet(), quote)) continue;
        copy.taken = true;
        return &copy;
    }
    return nullptr;
}

}  // namespace pmtud_linux
