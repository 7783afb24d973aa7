// SPDX-License-Identifier: MIT
// The debug lines of one frame: written together after its answer, or not at all.
#ifndef PMTUD_LINUX_FRAME_LINES_H
#define PMTUD_LINUX_FRAME_LINES_H

#include "line_fate.h"

namespace pmtud_linux {

/// What happens to the calling thread's lines.
LineFate lineFate();

/// While it exists, the calling thread's lines are kept or ignored. Its destructor writes what was
/// kept.
class FrameLines {
 public:
    explicit FrameLines(bool logged);
    FrameLines(const FrameLines&) = delete;
    FrameLines& operator=(const FrameLines&) = delete;
    ~FrameLines();
};

}  // namespace pmtud_linux

#endif
