// SPDX-License-Identifier: MIT
// Counts events of one kind, so that a single line reports a whole burst.
#ifndef PMTUD_LINUX_BURST_H
#define PMTUD_LINUX_BURST_H

#include <chrono>
#include <cstdint>

namespace pmtud_linux {

class Burst {
 public:
    using Clock = std::chrono::steady_clock;

    void count(uint64_t events) { m_unreported += events; }

    /// The number of events to log now: all since the last line if the burst is over, or if that
    /// line is at least a second old; 0 otherwise.
    uint64_t due(bool over, Clock::time_point now);

    bool pending() const { return m_unreported != 0; }

 private:
    uint64_t m_unreported = 0;
    Clock::time_point m_lastReport{};
};

}  // namespace pmtud_linux

#endif
