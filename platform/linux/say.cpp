// SPDX-License-Identifier: MIT
// The platform's own lines.
#include "say.h"

#include <utility>

namespace pmtud_linux {

bool say(Priority priority, const std::string& text) {
    const std::string line = " PMTUD-Linux: " + text;
    return SystemLog::instance().write(priority, kOwnModule, line.c_str()) == 0;
}

uint64_t Burst::due(bool over, Clock::time_point now) {
    if (m_unsaid == 0) return 0;
    if (!over && now - m_said < std::chrono::seconds(1)) return 0;
    m_said = now;
    return std::exchange(m_unsaid, 0);
}

}  // namespace pmtud_linux
