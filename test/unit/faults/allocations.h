// SPDX-License-Identifier: MIT
// The test program's own operator new: fails once where it is told to, and counts what is held.
#ifndef PMTUD_TEST_FAULTS_ALLOCATIONS_H
#define PMTUD_TEST_FAULTS_ALLOCATIONS_H

namespace allocations {

/// While it lives, what the thread allocates counts as the daemon's.
class Counted {
 public:
    /// The `nth` allocation, counted from 1, throws std::bad_alloc, and so does every later one
    /// where `onwards`; 0: none.
    explicit Counted(int nth, bool onwards = false);
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    ~Counted();

    /// Whether an allocation has failed.
    bool failed() const;
};

/// While it lives, what the thread allocates is the test's own: not counted, and never failed.
class Paused {
 public:
    Paused();
    Paused(const Paused&) = delete;
    Paused& operator=(const Paused&) = delete;
    ~Paused();

 private:
    bool m_counting;
};

/// Blocks that were counted when they were taken and are not given back, on all threads.
long alive();

/// Called where an allocation fails, before it throws.
void onFailure(void (*hook)());

}  // namespace allocations

#endif
