// SPDX-License-Identifier: MIT
// Whether the daemon's answers leave the router.
#ifndef PMTUD_LINUX_ANSWER_WATCH_H
#define PMTUD_LINUX_ANSWER_WATCH_H

#include <cstdint>
#include <optional>

#include "mnl_socket.h"

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

}  // namespace pmtud_linux

#endif
