// SPDX-License-Identifier: MIT
// The first statements of a process: what they touch, and what is set from the start.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <type_traits>

#include "QVLog.h"

namespace {

std::string contentOf(FILE* file) {
    rewind(file);
    char text[512];
    return {text, fread(text, 1, sizeof text, file)};
}

TEST(FirstUse, FindsTheThresholdAtWarning) { EXPECT_EQ(qv::reportingLevel(), 1); }

/// The first call of the accessor sets the file channel's stream to standard error as it is then,
/// so the test replaces standard error to see which statement makes that call.
TEST(FirstUse, OfASuppressedLevelLeavesTheStreamUnsetAndOfAReportedOneSetsItForGood) {
    FILE* const original = stderr;
    FILE* const beforeSuppressed = tmpfile();
    FILE* const beforeReported = tmpfile();

    stderr = beforeSuppressed;
    QV_LOG_IN(INFO, 1, "int f()") << "suppressed by its level";
    stderr = beforeReported;
    QV_LOG_IN(WARNING, 2, "int f()") << "first";
    stderr = original;
    QV_LOG_IN(ERROR, 3, "int f()") << "second";

    EXPECT_EQ(qv::stream(), beforeReported);
    EXPECT_EQ(contentOf(beforeSuppressed), "");
    EXPECT_EQ(contentOf(beforeReported),
              "14:03:07.2 WARNING: [first_use_test:2 | int f()] first\r\n"
              "14:03:07.2 ERROR: [first_use_test:3 | int f()] second\r\n");
    fclose(beforeSuppressed);
    fclose(beforeReported);
}

static_assert(std::is_same_v<decltype(qv::reportingLevel()), int32_t&>);
static_assert(std::is_same_v<decltype(qv::stream()), FILE*&>);

}  // namespace
