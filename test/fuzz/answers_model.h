// SPDX-License-Identifier: MIT
// What the platform is to conclude from the counter of the answers that left: a model for the fuzz
// targets.
#ifndef PMTUD_TEST_FUZZ_ANSWERS_MODEL_H
#define PMTUD_TEST_FUZZ_ANSWERS_MODEL_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>

namespace fuzz {

class AnswersModel {
 public:
    using Time = std::chrono::nanoseconds;

    /// What the counter was when it was read; nothing: it could not be, and nothing is missing.
    bool isLost(std::optional<uint64_t> reading) {
        const bool isSame = reading && *reading == m_left;
        if (reading) m_left = *reading;
        return isSame;
    }

    /// An answer by the interface was lost, which is logged.
    bool isFirstLost(uint32_t egress, Time now) {
        return m_lastLost.insert_or_assign(egress, now).second;
    }

    /// An answer has left by the interface, which is logged: none was lost there for half a minute.
    bool leavesAgain(uint32_t egress, Time now) {
        const auto last = m_lastLost.find(egress);
        if (last == m_lastLost.end() || now < last->second + kHalfMinute) return false;
        m_lastLost.erase(last);
        return true;
    }

    /// Nothing could be sent by the interface.
    bool leavesToKernel(uint32_t egress, Time now) {
        const auto next = m_nextTry.find(egress);
        if (next != m_nextTry.end() && now < next->second) return false;
        m_nextTry[egress] = now + kHalfMinute;
        return true;
    }

    /// The rule for that was refused.
    void isRefused(uint32_t egress, Time now) { m_nextTry[egress] = now + std::chrono::seconds(1); }

 private:
    static constexpr std::chrono::seconds kHalfMinute{30};

    uint64_t m_left = 0;
    std::map<uint32_t, Time> m_lastLost;
    std::map<uint32_t, Time> m_nextTry;
};

}  // namespace fuzz

#endif
