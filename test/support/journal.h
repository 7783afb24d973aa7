// SPDX-License-Identifier: MIT
// The journal of everything that leaves the daemon, and calls that fail when a test asks for it.
#ifndef PMTUD_TEST_JOURNAL_H
#define PMTUD_TEST_JOURNAL_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "fake_calls.h"

namespace fake {

/// Makes the call, named as in C source, fail the next `times` times, once it has succeeded
/// `before` more times.
void fail(const std::string& call, Failure failure, int times = 1, int before = 0);

/// Runs `hook` in every call of that name, after its entry in the journal.
void on(const std::string& call, std::function<void()> hook);

/// Resets all fakes: nothing is recorded, no call fails, and the time is 14:03:07.245.
void reset();

/// While it exists, everything that leaves the daemon is noted in order: lines of the file channel,
/// with CR LF and with function texts as GCC spells them; lines for the debug process, preceded by
/// the module number; calls. Calls without a visible effect (inet_ntop, the clock's, fflush) are
/// noted only if it is `detailed`.
class Journal {
 public:
    /// Opens the file channel at this threshold.
    explicit Journal(int32_t level, bool detailed = false);
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;
    ~Journal();

    void note(const std::string& entry) { entries.push_back(entry); }
    std::vector<std::string> take() { return std::exchange(entries, {}); }

    /// The journal that is open, or null.
    static Journal* current();
    /// The file channel's stream while a journal is open; nothing reaches it.
    static FILE* channel() { return stdin; }

    std::vector<std::string> entries;
    const bool detailed;

 private:
    int32_t m_level;
    FILE* m_stream;
};

}  // namespace fake

#endif
