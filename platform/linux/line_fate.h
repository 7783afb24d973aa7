// SPDX-License-Identifier: MIT
// What happens to the lines that a thread passes to the debug process.
#ifndef PMTUD_LINUX_LINE_FATE_H
#define PMTUD_LINUX_LINE_FATE_H

namespace pmtud_linux {

enum class LineFate { kWritten, kKept, kIgnored };

}  // namespace pmtud_linux

#endif
