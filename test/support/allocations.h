// SPDX-License-Identifier: MIT
// The test program's own operator new: counts what the daemon holds, and fails on request.
#ifndef PMTUD_TEST_ALLOCATIONS_H
#define PMTUD_TEST_ALLOCATIONS_H

#include <atomic>

namespace allocations {

namespace detail {
inline thread_local bool counting = false;
}

/// Called when an allocation fails, before it throws.
inline std::atomic<void (*)()> onFailure = nullptr;

/// While it exists, what the thread allocates counts as the daemon's.
class Counted {
 public:
    /// The `nth` allocation, counted from 1, throws std::bad_alloc; if `onwards`, so does every
    /// later one. 0: none does.
    explicit Counted(int nth = 0, bool onwards = false);
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    ~Counted();

    /// Whether an allocation has failed.
    bool failed() const;
};

/// While it exists, what the thread allocates is the test's: it is not counted, and never fails.
class Paused {
 public:
    Paused() : m_counting(detail::counting) { detail::counting = false; }
    Paused(const Paused&) = delete;
    Paused& operator=(const Paused&) = delete;
    ~Paused() { detail::counting = m_counting; }

 private:
    bool m_counting;
};

/// On all threads: the counted blocks not freed yet, their bytes, and all that were ever counted.
long alive();
long bytesAlive();
long taken();

}  // namespace allocations

#endif
