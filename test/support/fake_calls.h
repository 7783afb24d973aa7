// SPDX-License-Identifier: MIT
// What all fakes do with a call: record it, and make it fail if the test asks for that.
#ifndef PMTUD_TEST_FAKE_CALLS_H
#define PMTUD_TEST_FAKE_CALLS_H

#include <cstddef>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "allocations.h"

namespace fake {

/// What a call returns when it fails, and the errno that it sets.
struct Failure {
    long result;
    int error = 0;
};

/// Every fake reports its call here. `entry` is what the journal (journal.h) or the target's daemon
/// shows of it; empty: nothing. May throw. Returns how the call must fail, if it must.
std::optional<Failure> made(const char* call, const std::string& entry);

/// Sockets, of either kind, that were opened and not closed.
inline std::multiset<int> openSockets;

/// The text of a call as in C source.
template <typename... Arguments>
std::string callText(const char* call, const Arguments&... arguments) {
    std::ostringstream os;
    os << call << "(";
    [[maybe_unused]] const char* separator = "";
    ((os << separator << arguments, separator = ", "), ...);
    os << ")";
    return os.str();
}

/// Records a call in `calls`. Returns the failure's result if the call must fail, otherwise the
/// result of `answer`. Only the journal shows `detail`.
template <typename Answer, typename... Arguments>
auto play(std::vector<std::string>& calls, const char* call, Answer answer,
          const std::string& detail, const Arguments&... arguments) {
    const allocations::Paused paused;
    calls.push_back(callText(call, arguments...));
    const auto failure = made(call, calls.back() + detail);
    return failure ? static_cast<decltype(answer())>(failure->result) : answer();
}

/// An argument that is shown in quotes.
struct Quoted {
    const char* text;
};
inline std::ostream& operator<<(std::ostream& os, Quoted quoted) {
    return os << '"' << quoted.text << '"';
}

inline std::string hex(const void* start, size_t count) {
    constexpr char kDigits[] = "0123456789abcdef";
    const auto* const bytes = static_cast<const unsigned char*>(start);
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text += kDigits[bytes[i] / 16];
        text += kDigits[bytes[i] % 16];
    }
    return text;
}

}  // namespace fake

#endif
