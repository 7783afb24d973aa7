// SPDX-License-Identifier: MIT
// For each interface, whether the operator is to be told that answers are lost there.
#ifndef PMTUD_LINUX_ANSWER_NEWS_H
#define PMTUD_LINUX_ANSWER_NEWS_H

#include <chrono>
#include <cstdint>
#include <unordered_map>

namespace pmtud_linux {

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
