// SPDX-License-Identifier: MIT
// Decides, for each interface, when lost answers and the end of the losses are worth a log line.
#include "answer_news.h"

namespace pmtud_linux {

bool AnswerNews::lost(uint32_t ifindex, Clock::time_point now) {
    return m_lastLost.insert_or_assign(ifindex, now).second;
}

bool AnswerNews::left(uint32_t ifindex, Clock::time_point now) {
    const auto found = m_lastLost.find(ifindex);
    if (found == m_lastLost.end() || now - found->second < kQuiet) return false;
    m_lastLost.erase(found);
    return true;
}

}  // namespace pmtud_linux
