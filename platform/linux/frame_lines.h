// SPDX-License-Identifier: MIT
// The debug lines of one frame: written together after its answer, or not at all.
#ifndef PMTUD_LINUX_FRAME_LINES_H
#define PMTUD_LINUX_FRAME_LINES_H

#include <chrono>

namespace pmtud_linux {

/// What becomes of the lines that a thread hands to the debug process.
enum class LineFate { kWritten, kKept, kIgnored };

/// That of the calling thread.
LineFate lineFate();

/// While it exists, the calling thread's lines are kept, or ignored; what was kept is written when
/// it is destroyed.
class FrameLines {
 public:
    explicit FrameLines(bool logged);
    FrameLines(const FrameLines&) = delete;
    FrameLines& operator=(const FrameLines&) = delete;
    ~FrameLines();
};

/// How many frames are logged: a burst of kBurst, then kPerSecond.
class LineBudget {
 public:
    using Clock = std::chrono::steady_clock;
    static constexpr int kBurst = 100;
    static constexpr int kPerSecond = 20;

    /// Whether the next frame is within the budget.
    bool take(Clock::time_point now);

 private:
    static constexpr Clock::duration kInterval =
        Clock::duration{std::chrono::seconds{1}} / kPerSecond;

    // The budget as a point in time: so far in the past as it has frames left, up to kBurst.
    Clock::time_point m_spent = Clock::time_point::min();
};

}  // namespace pmtud_linux

#endif
