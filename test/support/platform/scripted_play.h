// SPDX-License-Identifier: MIT
// The run of a script: what is in store for the next call, and the log of the calls.
#ifndef PMTUD_TEST_SCRIPTED_PLAY_H
#define PMTUD_TEST_SCRIPTED_PLAY_H

#include <optional>
#include <sstream>
#include <string>

#include "scripted_script.h"

namespace scripted {

/// The script in the file that PMTUD_SCRIPT names, read on first use; no PMTUD_SCRIPT: the empty
/// script.  A bad line ends the process with status 2 and the line's number on standard error.
const Script& script();

/// Writes one line, in one write(2), to the log: the file that PMTUD_SCRIPT_LOG names, or the
/// descriptor if that is a number, or standard error if it is not set.
void log(const std::string& line);

/// The text of a call as it stands in a C source.
template <typename... Arguments>
std::string callText(const char* call, const Arguments&... arguments) {
    std::ostringstream os;
    os << call << "(";
    [[maybe_unused]] const char* separator = "";
    ((os << separator << arguments, separator = ", "), ...);
    os << ")";
    return os.str();
}

/// Counts the call and throws if the script says that this one does.
/// @return the errno that this one fails with, if it does
std::optional<int> incidentOf(const char* call);

/// What the script answers to the call.
int answerOf(const char* call);

/// Logs the call, throws if the script says so, answers what it says.
template <typename... Arguments>
int play(const char* call, const Arguments&... arguments) {
    log(callText(call, arguments...));
    incidentOf(call);
    return answerOf(call);
}

/// Has the daemon's next allocation counted as the first "new".
void countAllocationsFromNow();

/// Blocks until the main thread sleeps for the first time; not where the daemon is linked without
/// having its calls wrapped, so that this cannot be known.
void awaitMainThreadParked();

}  // namespace scripted

#endif
