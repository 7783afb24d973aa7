// SPDX-License-Identifier: MIT
// When the platform is to read the counter of the answers that left, and what it is to conclude: a
// model for the fuzz targets.
#ifndef PMTUD_TEST_FUZZ_ANSWERS_MODEL_H
#define PMTUD_TEST_FUZZ_ANSWERS_MODEL_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>

#include "input.h"

namespace fuzz {

/// The counter is read after each frame.  If it is what it was, the frame's answer is lost.
class AnswersModel {
 public:
    using Time = std::chrono::nanoseconds;
    /// What the counter was when it was read; nothing: it could not be.
    using Readings = std::deque<std::optional<uint64_t>>;

    struct Outcome {
        bool giveBack = false;
        bool leaveToKernel = false;
        bool isFirstLost = false;
        bool leavesAgain = false;
    };

    /// A frame was handed over at `now`.  Takes the reading that follows it from the front.
    Outcome after(uint32_t egress, Time now, Readings& readings) {
        require(!readings.empty(), "the counter is read after each frame");
        const std::optional<uint64_t> reading = readings.front();
        readings.pop_front();
        // Without a reading nothing is missing.
        const bool isLost = reading && *reading == m_left;
        if (reading) m_left = *reading;
        Outcome outcome;
        if (!isLost) {
            outcome.leavesAgain = m_nextTry.erase(egress) == 1;
            return outcome;
        }
        outcome.giveBack = true;
        outcome.isFirstLost = !m_nextTry.contains(egress);
        outcome.leaveToKernel = outcome.isFirstLost || now >= m_nextTry[egress];
        if (outcome.leaveToKernel) m_nextTry[egress] = now + std::chrono::seconds(30);
        return outcome;
    }

 private:
    uint64_t m_left = 0;
    std::map<uint32_t, Time> m_nextTry;  // of the interfaces whose answers do not leave
};

}  // namespace fuzz

#endif
