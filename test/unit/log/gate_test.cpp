// SPDX-License-Identifier: MIT
// The level check of a statement: it precedes everything else, and does not change what surrounds
// the statement.
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>

#include "QVLog.h"
#include "captured_log.h"
#include "fake_syscalls.h"

namespace {

int evaluations = 0;

int evaluated() { return ++evaluations; }

// A level is a word of the statement, so that each has its own.
constexpr void (*kStatements[])() = {
    [] { QV_LOG(ERROR, 1) << evaluated(); },  [] { QV_LOG(WARNING, 1) << evaluated(); },
    [] { QV_LOG(INFO, 1) << evaluated(); },   [] { QV_LOG(DEBUG, 1) << evaluated(); },
    [] { QV_LOG(DEBUG1, 1) << evaluated(); }, [] { QV_LOG(DEBUG2, 1) << evaluated(); },
    [] { QV_LOG(DEBUG3, 1) << evaluated(); }, [] { QV_LOG(DEBUG4, 1) << evaluated(); }};

class Gate : public testing::Test {
 protected:
    void SetUp() override {
        fake::resetClock();
        evaluations = 0;
    }
};

class GateMatrix : public Gate, public testing::WithParamInterface<std::tuple<int32_t, int32_t>> {};

TEST_P(GateMatrix, StatementIsWrittenAndEvaluatedOnlyUpToTheThreshold) {
    const auto [level, threshold] = GetParam();
    const CapturedLog log(threshold);
    kStatements[level]();
    EXPECT_EQ(evaluations, level <= threshold ? 1 : 0);
    EXPECT_EQ(linesOf(log.text()).size(), level <= threshold ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(Every, GateMatrix,
                         testing::Combine(testing::Range(0, 8), testing::Range(-1, 9)));

class GateWithoutAStream : public testing::TestWithParam<int32_t> {};

TEST_P(GateWithoutAStream, IsClosedForEveryLevelAndEvaluatesNothing) {
    evaluations = 0;
    const CapturedLog log(qv::DEBUG4);
    FILE* const stream = qv::stream();
    qv::stream() = nullptr;
    kStatements[GetParam()]();
    qv::stream() = stream;
    EXPECT_EQ(evaluations, 0);
    EXPECT_EQ(log.text(), "");
}

INSTANTIATE_TEST_SUITE_P(Every, GateWithoutAStream, testing::Range(0, 8));

TEST_F(Gate, LeavesAnElseToTheIfBeforeItWhetherItIsOpenOrClosed) {
    const CapturedLog log(qv::ERROR);
    bool reached = false;
    if (evaluations == 1)
        QV_LOG(ERROR, 1) << "not written";
    else
        reached = true;
    EXPECT_TRUE(reached);
    reached = false;
    if (evaluations == 0)
        QV_LOG(DEBUG, 1) << "not written";
    else
        reached = true;
    EXPECT_FALSE(reached);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Gate, ThatIsClosedMakesNoLoggerAndAsksNoTime) {
    fake::clock().localtimeFails = true;
    const CapturedLog log(qv::ERROR);
    EXPECT_NO_THROW(QV_LOG(WARNING, 1) << "never made");
    EXPECT_EQ(log.text(), "");
}

TEST_F(Gate, DoesNotEvaluateTheLineOrTheFunctionOfASuppressedStatement) {
    const CapturedLog log(qv::ERROR);
    const auto function = [] { return ++evaluations == 1 ? "f" : "g"; };
    QV_LOG_IN(WARNING, evaluated(), function()) << "never made";
    EXPECT_EQ(evaluations, 0);
}

TEST_F(Gate, BindsWeakerThanTheInsertionsAfterIt) {
    const CapturedLog log(qv::ERROR);
    QV_LOG(ERROR, 1) << 1 + 1 << (2 > 1 ? "yes" : "no") << (6 & 2);
    EXPECT_EQ(log.text().substr(log.text().size() - 7), "2yes2\r\n");
}

TEST_F(Gate, IsNotTakenInByNamesOfTheFunctionAroundIt) {
    const CapturedLog log(qv::ERROR);
    // NOLINTBEGIN(readability-isolate-declaration): a list of names, no more.
    const int os = 1, level = 2, stream = 3, detail = 4, file = 5, line = 6, get = 7;
    const int reportingLevel = -1, isReported = 0, kBaseName = 8, EndOfStatement = 9, function = 10;
    // NOLINTEND(readability-isolate-declaration)
    QV_LOG(ERROR, 1) << os << level << stream << detail << file << line << get << reportingLevel
                     << isReported << kBaseName << EndOfStatement << function;
    const std::string end = "1234567-108910\r\n";
    EXPECT_EQ(log.text().substr(log.text().size() - end.size()), end);
}

TEST_F(Gate, IsOneStatementInALoopWithoutBraces) {
    const CapturedLog log(qv::ERROR);
    for (int i = 0; i < 3; ++i) QV_LOG(ERROR, 1) << i;
    const std::string text = log.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
}

}  // namespace
