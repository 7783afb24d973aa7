// SPDX-License-Identifier: MIT
// The number that begins a system log line: facility daemon (3) and a severity.
#ifndef PMTUD_LINUX_PRIORITY_H
#define PMTUD_LINUX_PRIORITY_H

namespace pmtud_linux {

/// RFC 3164 section 4.1.1.
enum class Priority { kError = 27, kWarning = 28, kInfo = 30, kDebug = 31 };

}  // namespace pmtud_linux

#endif
