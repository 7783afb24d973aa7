// SPDX-License-Identifier: MIT
// The packets that the soak sends: oversized ones of every kind, and malformed ones.
#ifndef PMTUD_SOAK_FORGE_H
#define PMTUD_SOAK_FORGE_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <span>

#include "packet.h"

namespace soak {

using packets::Bytes;
using packets::Ipv4;
using packets::Ipv6;
using packets::Mac;

/// What must happen to a packet at the router, with the daemon or without it.
enum class Outcome {
    kAnswered,    ///< one answer reaches host A
    kKernels,     ///< the same, and always the kernel's: the daemon does not send to a broadcast
    kElsewhere,   ///< one answer, which goes to a host other than A
    kUnanswered,  ///< no path-MTU answer: it fits, is dropped, or must not be answered
};

class Forge;

struct Kind {
    const char* name;
    int family;  ///< 4, 6, or 0 for neither
    Outcome outcome;
    Bytes (*make)(Forge& forge);  ///< a frame
};

/// The first two are the plain oversized packets of IPv4 and of IPv6.
std::span<const Kind> kinds();

/// Makes packets from host A (10.0.10.2, 2001:db8:10::2) to host B via the switch.
/// Every packet carries the low bits of its serial number where an answer quotes it: IPv4 in the
/// identification, IPv6 in the flow label.
class Forge {
 public:
    Forge(uint64_t seed, const Mac& host, const Mac& gateway)
        : m_random(seed), m_host(host), m_gateway(gateway) {}

    /// Oversized packets have this length or more, up to 1,500 bytes.
    void setSmallest(size_t smallest) { m_smallest = smallest; }

    /// A frame with a packet of that kind.
    Bytes make(const Kind& kind, uint32_t serial);

    /// Half of the packets are plain; the others are of all kinds, each equally likely.
    size_t chooseKind();

    /// 0 to bound - 1.
    size_t below(size_t bound) { return static_cast<size_t>(m_random() % bound); }

    template <typename Values>
    auto oneOf(const Values& values) {
        return *(std::begin(values) + below(std::size(values)));
    }

    size_t oversize() { return m_smallest + below(1500 - m_smallest + 1); }
    Bytes randomBytes(size_t size);

    /// An oversized packet with random payload and, below, what carries it.
    Ipv4 ipv4();
    Ipv6 ipv6();
    Bytes frame(const Bytes& packet) const { return packets::frameOf(packet, m_host, m_gateway); }
    Bytes frame(const Ipv4& packet) const { return frame(bytesOf(packet)); }
    Bytes frame(const Ipv6& packet) const { return frame(bytesOf(packet)); }

 private:
    std::mt19937_64 m_random;
    Mac m_host;
    Mac m_gateway;
    size_t m_smallest = 1401;
    uint32_t m_serial = 0;
};

}  // namespace soak

#endif
