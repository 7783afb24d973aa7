// SPDX-License-Identifier: MIT
// Writes the platform's own log lines.
#ifndef PMTUD_LINUX_SAY_H
#define PMTUD_LINUX_SAY_H

#include <string>

#include "priority.h"

namespace pmtud_linux {

/// Writes " PMTUD-Linux: " and the text to the system log under the daemon's module number.
/// False if the log did not accept the line.
bool say(Priority priority, const std::string& text);

}  // namespace pmtud_linux

#endif
