// SPDX-License-Identifier: MIT
// Copies of candidates, kept until the kernel's messages show which of them it refused.
#ifndef PMTUD_LINUX_COPIES_H
#define PMTUD_LINUX_COPIES_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "copy.h"
#include "log_message.h"

namespace pmtud_linux {

/// A ring, in which the newest copy replaces the oldest. Most copies are never needed, because the
/// kernel forwards most candidates. It refuses the others within microseconds, so the only copies
/// made in between are those of packets that other processors handle.
class Copies {
 public:
    Copies() : m_ring(kCapacity) {}

    static constexpr size_t kCapacity = 128;

    /// Keeps the message's packet. False if it is not IPv4 or IPv6 with a complete header, if its
    /// ingress is unknown, if the message holds more than kCopySize bytes of it, or if it was
    /// truncated to fewer.
    bool keep(const LogMessage& message, int egressVlan);

    /// The newest copy that begins like the quote; null if there is none. A copy is returned only
    /// once, and is valid until the next call of keep.
    const Copy* take(std::span<const uint8_t> quote);

 private:
    std::vector<Copy> m_ring;
    size_t m_next = 0;
};

}  // namespace pmtud_linux

#endif
