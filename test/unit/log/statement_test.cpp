// SPDX-License-Identifier: MIT
// A log statement: its level is checked first, and it does not change the code around it.
#include <type_traits>
#include <utility>

#include "daemon_test.h"

namespace {

using daemon_test::Lines;
using daemon_test::logAt;

int evaluations = 0;

int evaluated() { return ++evaluations; }

class Statement : public daemon_test::FakesTest {
 protected:
    Statement() { evaluations = 0; }
};

struct Level {
    qv::LogLevel level;
    int code;
    const char* name;
    void (*statement)();
};

class LevelTest : public Statement, public testing::WithParamInterface<Level> {};

static_assert(std::is_same_v<std::underlying_type_t<qv::LogLevel>, int32_t>);

TEST_P(LevelTest, HasItsCodeAndItsName) {
    EXPECT_EQ(static_cast<int>(GetParam().level), GetParam().code);
    EXPECT_EQ(qv::toString(GetParam().level), GetParam().name);
    const Lines lines = logAt(qv::DEBUG4, GetParam().statement);
    EXPECT_TRUE(lines.at(0).starts_with("14:03:07.2 " + std::string(GetParam().name) +
                                        ": [statement_test:1 | "));
}

TEST_P(LevelTest, IsWrittenAndEvaluatedOnlyUpToTheThreshold) {
    for (int threshold = -1; threshold <= 8; ++threshold) {
        const bool isReported = GetParam().code <= threshold;
        EXPECT_EQ(logAt(threshold, GetParam().statement).size(), isReported ? 1U : 0U) << threshold;
        EXPECT_EQ(std::exchange(evaluations, 0), isReported ? 1 : 0) << threshold;
    }
}

TEST_P(LevelTest, IsNeitherWrittenNorEvaluatedWithoutAStream) {
    const CapturedLog log(qv::DEBUG4);
    FILE* const stream = std::exchange(qv::stream(), nullptr);
    GetParam().statement();
    qv::stream() = stream;
    EXPECT_EQ(evaluations, 0);
    EXPECT_EQ(log.text(), "");
}

// The level is a token of the statement, so each level needs a separate statement.
INSTANTIATE_TEST_SUITE_P(
    Every, LevelTest,
    testing::Values(Level{qv::ERROR, 0, "ERROR", [] { QV_LOG(ERROR, 1) << evaluated(); }},
                    Level{qv::WARNING, 1, "WARNING", [] { QV_LOG(WARNING, 1) << evaluated(); }},
                    Level{qv::INFO, 2, "INFO", [] { QV_LOG(INFO, 1) << evaluated(); }},
                    Level{qv::DEBUG, 3, "DEBUG", [] { QV_LOG(DEBUG, 1) << evaluated(); }},
                    Level{qv::DEBUG1, 4, "DEBUG1", [] { QV_LOG(DEBUG1, 1) << evaluated(); }},
                    Level{qv::DEBUG2, 5, "DEBUG2", [] { QV_LOG(DEBUG2, 1) << evaluated(); }},
                    Level{qv::DEBUG3, 6, "DEBUG3", [] { QV_LOG(DEBUG3, 1) << evaluated(); }},
                    Level{qv::DEBUG4, 7, "DEBUG4", [] { QV_LOG(DEBUG4, 1) << evaluated(); }}),
    daemon_test::kCaseName);

TEST_F(Statement, LeavesAnElseToTheIfBeforeItWhetherOrNotItIsReported) {
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

TEST_F(Statement, ThatIsSuppressedMakesNoLoggerReadsNoClockAndEvaluatesNeitherLineNorFunction) {
    fake::clock().localtimeFails = true;
    const CapturedLog log(qv::ERROR);
    const auto function = [] { return ++evaluations == 1 ? "f" : "g"; };
    EXPECT_NO_THROW(QV_LOG_IN(WARNING, evaluated(), function()) << "never made");
    EXPECT_EQ(evaluations, 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Statement, BindsMoreLooselyThanTheInsertionsAfterIt) {
    const auto statement = [] { QV_LOG(ERROR, 1) << 1 + 1 << (2 > 1 ? "yes" : "no") << (6 & 2); };
    EXPECT_TRUE(logAt(qv::ERROR, statement).at(0).ends_with("] 2yes2\r\n"));
}

TEST_F(Statement, IsNotMisledByNamesOfTheFunctionAroundIt) {
    const CapturedLog log(qv::ERROR);
    // NOLINTBEGIN(readability-isolate-declaration): just a list of names.
    const int os = 1, level = 2, stream = 3, detail = 4, file = 5, line = 6, get = 7;
    const int reportingLevel = -1, isReported = 0, kBaseName = 8, EndOfStatement = 9, function = 10;
    // NOLINTEND(readability-isolate-declaration)
    QV_LOG(ERROR, 1) << os << level << stream << detail << file << line << get << reportingLevel
                     << isReported << kBaseName << EndOfStatement << function;
    EXPECT_TRUE(log.text().ends_with("] 1234567-108910\r\n"));
}

TEST_F(Statement, IsOneStatementInALoopWithoutBraces) {
    const auto statements = [] {
        for (int i = 0; i < 3; ++i) QV_LOG(ERROR, 1) << i;
    };
    EXPECT_EQ(logAt(qv::ERROR, statements).size(), 3U);
}

}  // namespace
