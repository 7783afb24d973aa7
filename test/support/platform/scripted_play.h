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
/// script.  A bad line ends the process with status 2 and the line's number on standard error.
const Script& script();

/// Writes one line, in one write(2), to standard error, as the daemon's log.
void log(const std::string& line);

/// Counts the call and throws if the script says that this one does.
/// @return the errno that this one fails with, if it does
std::optional<int> incidentOf(const char* call);

/// What the script answers to the call.
int answerOf(const char* call);

/// Has the scripted platform answer as the script says.
void installAnswers();

/// Has the daemon's next allocation counted as the first "new".
void countAllocationsFromNow();

/// Blocks until the main thread sleeps for the first time; not where the daemon is linked without
/// having its calls wrapped, so that this cannot be known.
void awaitMainThreadParked();

}  // namespace scripted

#endif
