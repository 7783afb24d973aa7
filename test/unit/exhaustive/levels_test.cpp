// SPDX-License-Identifier: MIT
// Every level of a statement against every threshold.
#include <array>
#include <limits>

#include "QVLog.h"
#include "exhaustive.h"

namespace {

/// The lines of one statement of each level, most severe first.
constexpr std::array<const char*, 8> kLines = {
    "14:03:07.2 ERROR: [levels_test:0 | test] message\r\n",
    "14:03:07.2 WARNING: [levels_test:1 | test] message\r\n",
    "14:03:07.2 INFO: [levels_test:2 | test] message\r\n",
    "14:03:07.2 DEBUG: [levels_test:3 | test] message\r\n",
    "14:03:07.2 DEBUG1: [levels_test:4 | test] message\r\n",
    "14:03:07.2 DEBUG2: [levels_test:5 | test] message\r\n",
    "14:03:07.2 DEBUG3: [levels_test:6 | test] message\r\n",
    "14:03:07.2 DEBUG4: [levels_test:7 | test] message\r\n"};

void logAtEveryLevel() {
    QV_LOG_IN(ERROR, 0, "test") << "message";
    QV_LOG_IN(WARNING, 1, "test") << "message";
    QV_LOG_IN(INFO, 2, "test") << "message";
    QV_LOG_IN(DEBUG, 3, "test") << "message";
    QV_LOG_IN(DEBUG1, 4, "test") << "message";
    QV_LOG_IN(DEBUG2, 5, "test") << "message";
    QV_LOG_IN(DEBUG3, 6, "test") << "message";
    QV_LOG_IN(DEBUG4, 7, "test") << "message";
}

struct Threshold {
    const char* name;
    int32_t value;
    std::size_t written;
};

class EveryThreshold : public testing::TestWithParam<Threshold> {
 protected:
    engine_test::FreshFakes fakes;
};

TEST_P(EveryThreshold, LetsTheLevelsUpToItThroughAndNoOther) {
    const CapturedLog log(GetParam().value);
    logAtEveryLevel();
    std::string expected;
    for (std::size_t i = 0; i < GetParam().written; ++i) expected += kLines[i];
    EXPECT_EQ(log.text(), expected);
}

TEST_P(EveryThreshold, LetsNothingThroughWithoutAStream) {
    const CapturedLog log(GetParam().value);
    FILE* const stream = qv::stream();
    qv::stream() = nullptr;
    logAtEveryLevel();
    qv::stream() = stream;
    EXPECT_EQ(log.text(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Set, EveryThreshold,
    testing::Values(Threshold{"ToMinus1", -1, 0}, Threshold{"To0", 0, 1}, Threshold{"To1", 1, 2},
                    Threshold{"To2", 2, 3}, Threshold{"To3", 3, 4}, Threshold{"To4", 4, 5},
                    Threshold{"To5", 5, 6}, Threshold{"To6", 6, 7}, Threshold{"To7", 7, 8},
                    Threshold{"To8", 8, 8},
                    Threshold{"ToTheSmallest", std::numeric_limits<int32_t>::min(), 0},
                    Threshold{"ToTheLargest", std::numeric_limits<int32_t>::max(), 8}),
    [](const auto& row) { return row.param.name; });

}  // namespace
