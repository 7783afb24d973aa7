// SPDX-License-Identifier: MIT
// Counts events of one kind, so that a single line reports a whole burst.
#include "burst.h"

#include <utility>

namespace pmtud_linux {

uint64_t Burst::due(bool over, Clock::time_point now) {
    if (m_unreported == 0) return 0;
    if (!over && now - m_lastReport < std::chrono::seconds(1)) return 0;
    m_lastReport = now;
    return std::exchange(m_unreported, 0);
}

}  // namespace pmtud_linux
