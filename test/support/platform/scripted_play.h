// SPDX-License-Identifier: MIT
// The run of a script: what is in store for the next call, and the log of the calls.
#ifndef PMTUD_TEST_SCRIPTED_PLAY_H
#define PMTUD_TEST_SCRIPTED_PLAY_H

#include <optional>
#include <string>

#include "fake_calls.h"
#include "scripted_script.h"

namespace scripted {

/// The script in the file that PMTUD_SCRIPT names, read on first use; no PMTUD_SCRIPT: the empty
/// script. A bad line ends the process with status 2 and the line's number on standard error.
const Script& script();

/// Writes one line, in one write(2), to standard error, as the daemon's log.
void log(const std::string& line);

/// Counts the call. Throws if the script makes this one throw; returns an errno value if it makes
/// this one fail.
std::optional<int> incidentOf(const char* call);

/// The script's answer to the call.
int answerOf(const char* call);

/// Makes the scripted platform answer as the script states.
void installAnswers();

/// Has the daemon's next allocation counted as the first "new".
void countAllocationsFromNow();

/// Blocks until the main thread sleeps for the first time. If the daemon is linked without wrapped
/// calls, this cannot be known, and it does not block.
void awaitMainThreadParked();

}  // namespace scripted

#endif
