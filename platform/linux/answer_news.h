// SPDX-License-Identifier: MIT
// Decides, for each interface, when lost answers and the end of the losses are worth a log line.
#ifndef PMTUD_LINUX_ANSWER_NEWS_H
#define PMTUD_LINUX_ANSWER_NEWS_H

#include <chrono>
#include <cstdint>
#include <unordered_map>

namespace pmtud_linux {

class AnswerNews {
 public:
    using Clock = std::chrono::steady_clock;

    /// Recovery is reported after this long without a lost answer, because some answers may leave
    /// while others do not.
    static constexpr std::chrono::seconds kQuiet{30};

    /// Records that an answer did not leave on the interface. True: it is the first since the last
    /// recovery.
    bool lost(uint32_t ifindex, Clock::time_point now);

    /// Records that an answer has left on the interface. True: the interface has recovered.
    bool left(uint32_t ifindex, Clock::time_point now);

 private:
    std::unordered_map<uint32_t, Clock::time_point> m_lastLost;
};

}  // namespace pmtud_linux

#endif
