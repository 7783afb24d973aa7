// SPDX-License-Identifier: MIT
// The clock and the sinks fail under the log: the line that goes out all the same.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <string>

#include "QVLog.h"
#include "world.h"

using faults::Failure;
using faults::Lines;
using faults::World;

namespace {

void logOneLine() { qv::QVDevLog().get("file", 1, "void f()", qv::ERROR) << "text"; }

/// What two lines are whose calls fail like this, and the third.
Lines linesWhere(const std::string& call, Failure failure) {
    World world(qv::WARNING);
    world.fail(call, failure, 2);
    for (int line = 0; line < 3; ++line) logOneLine();
    return world.journal;
}

const std::string kLine = "14:03:07.2 ERROR: [file:1 | void f()] text\r\n";

/// -1 is a time as good as any other: the second before 1970.
TEST(ALine, ShowsTheSecondThatAFailingClockStandsFor) {
    const std::string line = "23:59:59.2 ERROR: [file:1 | void f()] text\r\n";
    EXPECT_EQ(linesWhere("time", {-1, EFAULT}), (Lines{line, line, kLine}));
}

TEST(ALine, ShowsNoTenthButZeroWhereTheFractionCannotBeRead) {
    const std::string line = "14:03:07.0 ERROR: [file:1 | void f()] text\r\n";
    EXPECT_EQ(linesWhere("gettimeofday", {-1, EFAULT}), (Lines{line, line, kLine}));
}

TEST(ALine, ShowsTheMillisecondsAloneWhereTheTimeCannotBeFormatted) {
    const std::string line = ".245 ERROR: [file:1 | void f()] text\r\n";
    EXPECT_EQ(linesWhere("strftime", {0, 0}), (Lines{line, line, kLine}));
}

TEST(ALine, IsEmptyAndAnExceptionWhereTheTimeCannotBeConverted) {
    World world(qv::WARNING);
    world.fail("localtime_r", {0, EOVERFLOW}, 2);
    EXPECT_THROW(logOneLine(), std::runtime_error);
    EXPECT_THROW(logOneLine(), std::runtime_error);
    logOneLine();
    EXPECT_EQ(world.journal, (Lines{"\r\n", "\r\n", kLine}));
}

struct Sink {
    const char* name;
    const char* call;
    Failure failure;
};

std::ostream& operator<<(std::ostream& os, const Sink& sink) { return os << sink.name; }

class ASink : public testing::TestWithParam<Sink> {};

TEST_P(ASink, ThatFailsIsGivenTheNextLineInTheSameWay) {
    EXPECT_EQ(linesWhere(GetParam().call, GetParam().failure), (Lines{kLine, kLine, kLine}));
}

INSTANTIATE_TEST_SUITE_P(Of, ASink,
                         testing::Values(Sink{"PutEnospc", "fputs", {EOF, ENOSPC}},
                                         Sink{"PutEpipe", "fputs", {EOF, EPIPE}},
                                         Sink{"PutEbadf", "fputs", {EOF, EBADF}},
                                         Sink{"PutEintr", "fputs", {EOF, EINTR}},
                                         Sink{"FlushEnospc", "fflush", {EOF, ENOSPC}},
                                         Sink{"FlushEpipe", "fflush", {EOF, EPIPE}},
                                         Sink{"FlushEintr", "fflush", {EOF, EINTR}}),
                         [](const auto& instance) { return instance.param.name; });

class TheDebugProcess : public testing::TestWithParam<int> {};

TEST_P(TheDebugProcess, IsGivenTheNextLineWhateverItAnswers) {
    World world(qv::WARNING);
    world.fail("debug_process", {GetParam()}, 2);
    for (int line = 0; line < 3; ++line) qv::QVDebugProcLog().get(89, "name") << "text";
    EXPECT_EQ(world.journal, (Lines{"89 name: text", "89 name: text", "89 name: text"}));
}

INSTANTIATE_TEST_SUITE_P(Answering, TheDebugProcess, testing::Values(1, -1, -105, INT_MAX, INT_MIN),
                         [](const auto& instance) {
                             return instance.param < 0
                                        ? "Minus" + std::to_string(instance.param).substr(1)
                                        : std::to_string(instance.param);
                         });

/// The device answers every write that there is no space left.
TEST(AFullDevice, LosesTheLineAndNothingElse) {
    FILE* const full = fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    FILE* const before = qv::stream();
    qv::stream() = full;
    EXPECT_NO_THROW(logOneLine());
    EXPECT_NO_THROW(logOneLine());
    EXPECT_NE(ferror(full), 0);
    qv::stream() = before;
    fclose(full);
}

}  // namespace
