// The first statements of a process: what they touch, and what is set from the start.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "QVLog.h"

namespace {

/// The file channel's stream is set to standard error by the first call of its accessor, so
/// an accessor that was not called takes a standard error that was exchanged meanwhile.
TEST(FirstUse, OfASuppressedLevelLeavesTheStreamUnsetAndOfAReportedOneSetsIt) {
    ASSERT_EQ(qv::reportingLevel(), 1);
    FILE* const original = stderr;
    FILE* const decoy = tmpfile();
    ASSERT_NE(decoy, nullptr);

    stderr = decoy;
    QV_LOG(DEBUG, 1) << "suppressed by its level";
    stderr = original;
    EXPECT_EQ(qv::stream(), original);
    EXPECT_EQ(ftell(decoy), 0);
    fclose(decoy);
}

TEST(FirstUse, LeavesTheThresholdAtWarning) { EXPECT_EQ(qv::reportingLevel(), 1); }

}  // namespace
