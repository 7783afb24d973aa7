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

    /// How many events to log now, 0 for none: all that were counted since the last line, when the
    /// burst is over or, while it lasts, once per second.
    uint64_t due(bool over, Clock::time_point now);

    bool pending() const { return m_unreported != 0; }

 private:
    uint64_t m_unreported = 0;
    Clock::time_point m_lastReport{};
};

}  // namespace pmtud_linux

#endif
