// SPDX-License-Identifier: MIT
// The platform's own lines on the debug channel.
#include "say.h"

#include <utility>

#include "seam.h"

namespace pmtud_linux {

namespace {
constexpr uint32_t module = 89;
}

bool say(const std::string& text) {
    const std::string line = " PMTUD-Linux: " + text;
    return debug_process(module, "%s", line.c_str()) == 0;
}

uint64_t Burst::due(bool over, Clock::time_point now) {
    if (m_unsaid == 0) return 0;
    if (!over && now - m_said < std::chrono::seconds(1)) return 0;
    m_said = now;
    return std::exchange(m_unsaid, 0);
}

}  // namespace pmtud_linux
