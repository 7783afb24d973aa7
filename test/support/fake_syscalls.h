// SPDX-License-Identifier: MIT
// System calls that a test observes or makes fail, intercepted at link time (ld --wrap).
#ifndef PMTUD_TEST_FAKE_SYSCALLS_H
#define PMTUD_TEST_FAKE_SYSCALLS_H

#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace fake {

/// A message that sendto was given.
struct SentMessage {
    std::vector<uint8_t> bytes;
    sockaddr_in to;
};

/// What the network calls return, and what was passed to them. None reaches the kernel.
struct Syscalls {
    std::function<int()> socket = [] { return 404; };
    std::function<int()> setsockopt = [] { return 0; };
    /// The message is recorded even if the result is negative.
    std::function<long(size_t len)> sendto = [](size_t len) { return static_cast<long>(len); };
    std::function<int()> close = [] { return 0; };
    std::function<unsigned(const std::string& name)> ifNameToIndex = [](const std::string&) {
        return 7U;
    };

    /// In order: "socket(2, 3, 1)", "setsockopt(404, 0, 2, [64], 1)" (value bytes, length),
    /// "sendto(404, 68 bytes, 0, 16)" (flags, address length), "close(404)",
    /// "if_nametoindex(\"bcm0.20\")". The journal shows address and bytes of a message as well.
    std::vector<std::string> calls;
    std::vector<SentMessage> sent;
};

/// The clock that log lines show; 14:03:07.245 after a reset.
struct Clock {
    int hour = 14;
    int minute = 3;
    int second = 7;
    long microseconds = 245000;
    bool localtimeFails = false;
};

namespace detail {
inline Syscalls currentSyscalls;
inline Clock currentClock;
}  // namespace detail

inline Syscalls& syscalls() { return detail::currentSyscalls; }
inline void resetSyscalls() { detail::currentSyscalls = {}; }

inline Clock& clock() { return detail::currentClock; }
inline void resetClock() { detail::currentClock = {}; }

}  // namespace fake

#endif
