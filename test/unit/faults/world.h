// SPDX-License-Identifier: MIT
// All that the daemon calls, made of functions that fail where they are told to, in one journal.
#ifndef PMTUD_TEST_FAULTS_WORLD_H
#define PMTUD_TEST_FAULTS_WORLD_H

#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "pktd.h"

namespace faults {

using Lines = std::vector<std::string>;

/// What a call answers where it fails, and the errno that it leaves.
struct Failure {
    long result;
    int error = 0;
};

/// The platform, the system and the C library as far as the daemon calls them; there is one at
/// a time.  Every call succeeds unless it is told to fail: egress 77 leads to VLAN 100, its MTU
/// is 1400, the interface has index 7, the time is 14:03:07.245.  Without a world the calls of
/// the system and of the C library are the real ones.
class World {
 public:
    /// Opens the file channel at this threshold.
    explicit World(int32_t level);
    World(const World&) = delete;
    World& operator=(const World&) = delete;
    ~World();

    /// Makes the call fail the next `times` times, once it has succeeded `before` more times.
    /// Calls are named as in a C source: "socket".
    void fail(const std::string& call, Failure failure, int times = 1, int before = 0);

    /// Runs in a call, behind its entry in the journal.
    std::map<std::string, std::function<void()>> hooks;

    /// Everything that leaves the daemon, in order: lines of the file channel, ended by CR LF and
    /// with function texts as GCC spells them; lines for the debug process, begun by the channel's
    /// number; calls.  Calls that leave nothing to see (inet_ntop, the clock's, fflush) have no
    /// entry.
    Lines journal;

    /// Descriptors that the daemon has opened and not closed; the lowest free one is taken next,
    /// from `lowest` on.
    std::set<int> open;
    int lowest = 5;

    /// What pktd_shm_rx_thread_init was given.
    pktd_rx_cb_t callback = nullptr;

    /// Takes all entries.
    Lines takeJournal();

    // What the calls are made of.

    /// The failure that is in store for this call.
    std::optional<Failure> next(const std::string& call);
    std::optional<Failure> play(const std::string& call, const std::string& arguments);
    int openDescriptor();

 private:
    std::map<std::string, std::deque<std::optional<Failure>>> m_store;
    int32_t m_level;
    FILE* m_stream;
};

/// The file channel's stream in a world; nothing reaches it.
FILE* fileChannel();

}  // namespace faults

#endif
