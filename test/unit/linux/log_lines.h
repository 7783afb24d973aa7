// SPDX-License-Identifier: MIT
// Lines that a test writes to the system log, and what it expects to read there.
#ifndef PMTUD_TEST_LINUX_LOG_LINES_H
#define PMTUD_TEST_LINUX_LOG_LINES_H

#include <gtest/gtest.h>

#include <string>

#include "debug_process.h"
#include "log_daemon.h"

inline int line(const std::string& text) { return debug_process(89, "%s", text.c_str()); }

inline void lines(int first, int last) {
    for (int i = first; i <= last; ++i) EXPECT_EQ(line(" " + std::to_string(i)), 0);
}

inline void expectLines(LogDaemon& log, int first, int last) {
    for (int i = first; i <= last; ++i) EXPECT_EQ(lineOf(log.next()), "89 " + std::to_string(i));
}

inline std::string lost(int count) {
    return "89 PMTUD-Linux: " + std::to_string(count) + " lines lost";
}

// Fills the log's queue with lines, and loses one; how many it took.
inline int fill() {
    int taken = 0;
    while (line(" filling") == 0) ++taken;
    return taken;
}

// The conversion of this one fails.
inline int unformattable() { return debug_process(89, "%ls", L"\u2260"); }

#endif
