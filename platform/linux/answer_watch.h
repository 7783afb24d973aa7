// SPDX-License-Identifier: MIT
// Detects whether the daemon's answers leave the router.
#ifndef PMTUD_LINUX_ANSWER_WATCH_H
#define PMTUD_LINUX_ANSWER_WATCH_H

#include <cstdint>
#include <optional>

#include "mnl_socket.h"

namespace pmtud_linux {

/// Reads the rules' counter of answers that left the router. It is read after every frame passed to
/// the daemon, because an answer is sent before the callback returns. Reading it less often would
/// miss lost answers: a stateful filter passes answers about known flows and drops the others.
/// Another process's "too big" message counts as an answer.
class AnswerWatch {
 public:
    /// 0 or a negative errno value.
    int open();

    /// Whether an answer has left since the last call; true if the counter cannot be read.
    bool hasLeft();

    /// Ignores the answers that have left since the last call.
    void catchUp() { static_cast<void>(hasLeft()); }

 private:
    std::optional<uint64_t> readCounter() const;

    MnlSocket m_socket;
    uint64_t m_left = 0;  // the counter when it was last read
};

}  // namespace pmtud_linux

#endif
