// SPDX-License-Identifier: MIT
// Limits how many frames are logged.
#ifndef PMTUD_LINUX_LINE_BUDGET_H
#define PMTUD_LINUX_LINE_BUDGET_H

#include <chrono>

namespace pmtud_linux {

/// Allows a burst of kBurst frames, then kPerSecond frames per second.
class LineBudget {
 public:
    using Clock = std::chrono::steady_clock;
    static constexpr int kBurst = 100;
    static constexpr int kPerSecond = 20;

    /// Whether the next frame is within the budget, which is then charged for it.
    bool take(Clock::time_point now);

 private:
    static constexpr Clock::duration kInterval =
        Clock::duration{std::chrono::seconds{1}} / kPerSecond;

    // The budget as a point in time, one kInterval before now for each frame that may still be
    // logged, up to kBurst.
    Clock::time_point m_spent = Clock::time_point::min();
};

}  // namespace pmtud_linux

#endif
