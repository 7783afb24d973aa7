// SPDX-License-Identifier: MIT
// The start of one candidate, as it arrived.
#ifndef PMTUD_LINUX_COPY_H
#define PMTUD_LINUX_COPY_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "ruleset.h"

namespace pmtud_linux {

struct Copy {
    uint32_t ingress = 0;  ///< interface index
    int egressVlan = 0;
    std::array<uint8_t, 12> addresses{};  ///< destination and source MAC; zero if unknown
    size_t size = 0;                      ///< how much of `bytes` is used
    bool taken = true;
    std::array<uint8_t, kCopySize> bytes{};

    std::span<const uint8_t> packet() const { return {bytes.data(), size}; }

    /// The size in bytes that the packet's header claims, or the copy's if that is larger.
    size_t packetSize() const;
};

}  // namespace pmtud_linux

#endif
