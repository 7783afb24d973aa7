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

/// After each frame handed to the daemon, reads the rules' counter of answers that left: an answer
/// is sent before the callback returns.  Another process's message counts as one.  Reading it less
/// often would lose answers: a stateful policy lets those about known flows pass and drops the
/// others.
class AnswerWatch {
 public:
    /// 0 or a negative errno value.
    int open();

    /// Whether an answer has left since the last call.  If the counter cannot be read, yes.
    bool hasLeft();

    /// Passes over the answers that have left since the last call.
    void catchUp() { static_cast<void>(hasLeft()); }

 private:
    std::optional<uint64_t> readCounter() const;

    MnlSocket m_socket;
    uint64_t m_left = 0;  // the counter when it was last read
};

/// For each interface, whether the operator is to be told that answers are lost there.
class AnswerNews {
 public:
    using Clock = std::chrono::steady_clock;

    /// How long answers must leave before that is news: some may leave while others do not.
    static constexpr std::chrono::seconds kQuiet{30};

    /// An answer did not leave by the interface.  True: it is the first one.
    bool lost(uint32_t ifindex, Clock::time_point now);

    /// An answer has left by the interface.  True: it is the first one after those that did not.
    bool left(uint32_t ifindex, Clock::time_point now);

 private:
    std::unordered_map<uint32_t, Clock::time_point> m_lastLost;
};

}  // namespace pmtud_linux

#endif
