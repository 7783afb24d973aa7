// SPDX-License-Identifier: MIT
// The debug lines of one frame: written together after its answer, or not at all.
#include "frame_lines.h"

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

}  // namespace pmtud_linux
