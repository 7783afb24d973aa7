// SPDX-License-Identifier: MIT
// Copies of candidates, kept until the kernel's message says which of them it refused.
#ifndef PMTUD_LINUX_COPIES_H
#define PMTUD_LINUX_COPIES_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "copy.h"
#include "log_message.h"

namespace pmtud_linux {

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
