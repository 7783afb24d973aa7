// SPDX-License-Identifier: MIT
// What the tests over every value share: a handler, and fakes that forget what they saw.
#ifndef PMTUD_TEST_EXHAUSTIVE_H
#define PMTUD_TEST_EXHAUSTIVE_H

#include "engine_test.h"
#include "expected_text.h"

namespace exhaustive {

/// A handler that always answers the same and counts its calls.
class CountingHandler : public SHM_Handler {
 public:
    explicit CountingHandler(bool answer) : m_answer(answer) {}
    bool handleFrame(uint8_t&, size_t) override {
        ++calls;
        return m_answer;
    }

    int calls = 0;

 private:
    bool m_answer;
};

/// The fakes keep their answers and forget what they saw, so that a long loop stays small.
inline void forgetCalls() {
    fake::platform().calls.clear();
    fake::platform().debugLines.clear();
    fake::platform().icmp6Messages.clear();
    fake::syscalls().calls.clear();
    fake::syscalls().sent.clear();
}

}  // namespace exhaustive

#endif
