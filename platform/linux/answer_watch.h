// SPDX-License-Identifier: MIT
// Whether the daemon's answers leave the router.
#ifndef PMTUD_LINUX_ANSWER_WATCH_H
#define PMTUD_LINUX_ANSWER_WATCH_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <unordered_map>

#include "links.h"

namespace pmtud_linux {

/// Reads the rules' counter of the answers that left after each frame handed to the daemon: an
/// answer is sent before the callback returns.  Reading it less often would lose answers: a
/// stateful policy lets those about known flows pass and drops the others.
class AnswerWatch {
 public:
    using Clock = std::chrono::steady_clock;

    /// What is known about the answer to one frame.
    struct Finding {
        bool lost = false;    ///< it did not leave
        bool resign = false;  ///< with `lost`: the kernel should answer there for kRetryAfter
        bool isNews = false;  ///< for the interface, this is the first answer lost, or to leave
    };

    /// How long an interface's packets are left to the kernel before the next attempt.
    static constexpr std::chrono::seconds kRetryAfter{30};

    /// 0 or a negative errno value.
    int open();

    /// Call after a frame whose answer would leave by the interface was handed over.
    Finding after(uint32_t ifindex, Clock::time_point now);

 private:
    std::optional<uint64_t> readCounter() const;
    bool hasLeft();

    MnlSocket m_socket;
    uint64_t m_left = 0;  // the counter when it was last read
    std::unordered_map<uint32_t, Clock::time_point> m_nextAttempts;  // where answers are lost
};

}  // namespace pmtud_linux

#endif
