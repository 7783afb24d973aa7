// SPDX-License-Identifier: MIT
// The oversized packets that the benchmarks answer: from the peer to a host on VLAN 20.
#ifndef PMTUD_BENCH_FRAMES_H
#define PMTUD_BENCH_FRAMES_H

#include <array>
#include <cstdint>

namespace bench {

using Frame = std::array<uint8_t, 18 + 1500>;

inline constexpr Frame kIpv4Frame = {0x02, 0,    0,    0,    0x10, 0x01, 0x02, 0,    0,
                                     0,    0x10, 0x02, 0x81, 0x00, 0x00, 0x0a, 0x08, 0x00,  //
                                     0x45, 0x00, 0x05, 0xdc, 0x12, 0x34, 0x40, 0x00, 0x40,
                                     0x11, 0x00, 0x00,                             //
                                     10,   0,    10,   2,    10,   0,    20,   2,  //
                                     0x30, 0x39, 0x00, 0x50, 0x05, 0xc8, 0x00, 0x00};

inline constexpr Frame kIpv6Frame = {
    0x02, 0,    0,    0,    0x10, 0x01, 0x02, 0,    0, 0, 0x10, 0x02, 0x81, 0x00, 0x00, 0x0a,
    0x86, 0xdd,                                                                             //
    0x60, 0x00, 0x00, 0x00, 0x05, 0xb4, 0x11, 0x40,                                         //
    0xfd, 0x00, 0x00, 0x10, 0,    0,    0,    0,    0, 0, 0,    0,    0,    0,    0,    2,  //
    0xfd, 0x00, 0x00, 0x20, 0,    0,    0,    0,    0, 0, 0,    0,    0,    0,    0,    2,  //
    0x30, 0x39, 0x00, 0x50, 0x05, 0xb4, 0x00, 0x00};

}  // namespace bench

#endif
