// SPDX-License-Identifier: MIT
// Copies of candidates, kept until the kernel's message says which of them it refused.
#ifndef PMTUD_LINUX_COPIES_H
#define PMTUD_LINUX_COPIES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "log_message.h"
#include "ruleset.h"

namespace pmtud_linux {

/// The start of one candidate, as it arrived.
struct Copy {
    uint32_t ingress = 0;  ///< interface index
    int egressVlan = 0;
    std::array<uint8_t, 12> addresses{};  ///< destination and source MAC; zero if unknown
    size_t size = 0;                      ///< of what is kept in `bytes`
    bool taken = true;
    std::array<uint8_t, kCopySize> bytes{};

    std::span<const uint8_t> packet() const { return {bytes.data(), size}; }

    /// As the packet's own header claims, or that of the copy if it is longer.
    size_t packetSize() const;
};

/// A ring: the oldest copy makes room for the newest.  Most copies are never asked for, since
/// the kernel forwards most candidates.  Those that it refuses it refuses within microseconds;
/// only what other processors copy meanwhile comes in between.
class Copies {
 public:
    Copies() : m_ring(kCapacity) {}

    static constexpr size_t kCapacity = 128;

    /// Keeps the packet.  False if it is not an IPv4 or IPv6 packet with a whole header,
    /// if it was cut shorter than the rules cut, or if it lacks its ingress.
    bool keep(const LogMessage& message, int egressVlan);

    /// The newest copy that begins as the quote does, which is then no longer kept; null
    /// if there is none.  Valid until the next call of keep.
    const Copy* take(std::span<const uint8_t> quote);

 private:
    std::vector<Copy> m_ring;
    size_t m_next = 0;
};

}  // namespace pmtud_linux

#endif
