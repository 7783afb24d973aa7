// SPDX-License-Identifier: MIT
// The debug lines of one frame: written together after its answer, or not at all.
#include "frame_lines.h"

#include <algorithm>

#include "system_log.h"

namespace pmtud_linux {

namespace {
thread_local LineFate fate = LineFate::kWritten;
}

LineFate lineFate() { return fate; }

FrameLines::FrameLines(bool logged) { fate = logged ? LineFate::kKept : LineFate::kIgnored; }

FrameLines::~FrameLines() {
    if (fate == LineFate::kKept) SystemLog::instance().flush();
    fate = LineFate::kWritten;
}

bool LineBudget::take(Clock::time_point now) {
    m_spent = std::max(m_spent, now - kBurst * kInterval);
    if (m_spent + kInterval > now) return false;
    m_spent += kInterval;
    return true;
}

}  // namespace pmtud_linux
