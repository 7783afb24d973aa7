// SPDX-License-Identifier: MIT
// The packets that the soak sends: oversized ones of every kind, and malformed ones.
#ifndef PMTUD_SOAK_FORGE_H
#define PMTUD_SOAK_FORGE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <random>
#include <span>

namespace soak {

/// What a router's kernel makes of a packet, with the daemon and without it.
enum class Outcome {
    kAnswered,    ///< one answer reaches host A
    kKernels,     ///< the same, and always the kernel's: the daemon does not send to a broadcast
    kElsewhere,   ///< one answer, which goes to another host than A
    kUnanswered,  ///< no path-MTU answer: it fits, is dropped, or must not be answered
};

struct Frame {
    static constexpr size_t kCapacity = 14 + 1500;

    std::array<uint8_t, kCapacity> bytes{};
    size_t size = 0;
};

class Forge;

struct Kind {
    const char* name;
    int family;  ///< 4, 6, or 0 for neither
    Outcome outcome;
    void (*make)(Forge& forge, Frame& frame);
};

/// The first two are the plain oversized packets of IPv4 and of IPv6.
std::span<const Kind> kinds();

using Mac = std::array<uint8_t, 6>;

/// Makes packets from host A (10.0.10.2, 2001:db8:10::2) to host B by way of the switch.
/// Every packet carries the low bits of its serial number where an answer quotes it: IPv4 in the
/// identification, IPv6 in the flow label.
class Forge {
 public:
    Forge(uint64_t seed, const Mac& host, const Mac& gateway)
        : m_random(seed), m_host(host), m_gateway(gateway) {}

    /// Oversized packets have this length or more, up to 1,500 bytes.
    void setSmallest(size_t smallest) { m_smallest = smallest; }

    /// Fills the frame with a packet of that kind.
    void make(const Kind& kind, uint32_t serial, Frame& frame);

    /// One of two packets is plain, the others are of all kinds alike.
    size_t chooseKind();

    /// 0 to bound - 1.
    size_t below(size_t bound) { return static_cast<size_t>(m_random() % bound); }

    size_t oversize() { return m_smallest + below(1500 - m_smallest + 1); }

    /// A packet of that length with a header of its own and random payload; IPv4 lacks the
    /// checksum yet.
    void ipv4(Frame& frame, size_t length);
    void ipv6(Frame& frame, size_t length);

    void fillRandomly(std::span<uint8_t> bytes);

 private:
    void ethernet(Frame& frame, uint16_t type) const;

    std::mt19937_64 m_random;
    Mac m_host;
    Mac m_gateway;
    size_t m_smallest = 1401;
    uint32_t m_serial = 0;
};

}  // namespace soak

#endif
