// SPDX-License-Identifier: MIT
// Writes the platform's own log lines.
#include "say.h"

#include "system_log.h"

namespace pmtud_linux {

bool say(Priority priority, const std::string& text) {
    const std::string line = " PMTUD-Linux: " + text;
    return SystemLog::instance().write(priority, kOwnModule, line.c_str()) == 0;
}

}  // namespace pmtud_linux
