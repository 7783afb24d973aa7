// SPDX-License-Identifier: MIT
// What the log asks of clock, sinks and memory, and the line that goes out when they fail.
#include <cerrno>
#include <climits>

#include "QVLog.h"
#include "allocations.h"
#include "daemon_test.h"

namespace {

using fake::Failure;
using fake::Journal;
using packets::Lines;

class TheLog : public daemon_test::FakesTest {};

void logOneLine() {
    qv::QVDevLog().get("file", 1, "void f()", qv::ERROR) << "te"
                                                         << "xt";
}

const std::string kLine = "14:03:07.2 ERROR: [file:1 | void f()] text\r\n";

// The time stamp.

struct Time {
    const char* name;
    fake::Clock clock;
    const char* text;
};

class NowTime : public TheLog, public testing::WithParamInterface<Time> {};

TEST_P(NowTime, IsTheTimeInTwentyFourHoursCutToTenths) {
    fake::clock() = GetParam().clock;
    EXPECT_EQ(qv::nowTime(), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    At, NowTime,
    testing::Values(Time{"245Milliseconds", {14, 3, 7, 245000}, "14:03:07.2"},
                    Time{"FiveMillisecondsPastTheSecond", {14, 3, 7, 5000}, "14:03:07.0"},
                    Time{"TheLastMicrosecondIsNotRounded", {14, 3, 7, 999999}, "14:03:07.9"},
                    Time{"OneMicrosecondBeforeATenth", {14, 3, 7, 99999}, "14:03:07.0"},
                    Time{"ATenth", {14, 3, 7, 100000}, "14:03:07.1"},
                    Time{"Midnight", {0, 0, 0, 0}, "00:00:00.0"},
                    Time{"ALeapSecond", {23, 59, 60, 500000}, "23:59:60.5"}),
    daemon_test::kCaseName);

/// The fakes' second changes between the two readings, which are not taken together. The
/// stream's own lock keeps lines of two threads apart, so a line must be one call.
TEST_F(TheLog, ReadsSecondsThenMillisecondsAndWritesALineAtOnceAndFlushesIt) {
    Journal journal(qv::WARNING, true);
    logOneLine();
    EXPECT_EQ(journal.entries,
              (Lines{"time", "localtime_r", "strftime", "gettimeofday", kLine, "fflush"}));
}

TEST_F(TheLog, AsksForNoTimeForTheDebugProcess) {
    Journal journal(qv::WARNING, true);
    qv::QVDebugProcLog().get(89, std::string("name")) << "te"
                                                      << "xt";
    EXPECT_EQ(journal.entries, Lines{"89 name: text"});
}

// Failures.

struct Fault {
    const char* name;
    const char* call;
    Failure failure;
    std::string line;
};

class AFailingCall : public TheLog, public testing::WithParamInterface<Fault> {};

TEST_P(AFailingCall, ChangesItsLineAndNotTheNext) {
    fake::fail(GetParam().call, GetParam().failure, 2);
    Journal journal(qv::WARNING);
    for (int line = 0; line < 3; ++line) logOneLine();
    EXPECT_EQ(journal.entries, (Lines{GetParam().line, GetParam().line, kLine}));
}

// -1 is a time like any other: the second before 1970.
INSTANTIATE_TEST_SUITE_P(
    Of, AFailingCall,
    testing::Values(Fault{"TimeIsTheSecondThatItStandsFor",
                          "time",
                          {-1, EFAULT},
                          "23:59:59.2 ERROR: [file:1 | void f()] text\r\n"},
                    Fault{"GettimeofdayIsTenthZero",
                          "gettimeofday",
                          {-1, EFAULT},
                          "14:03:07.0 ERROR: [file:1 | void f()] text\r\n"},
                    Fault{"StrftimeLeavesTheMillisecondsAlone",
                          "strftime",
                          {0, 0},
                          ".245 ERROR: [file:1 | void f()] text\r\n"},
                    Fault{"FputsIsIgnored", "fputs", {EOF, ENOSPC}, kLine},
                    Fault{"FputsInterruptedIsIgnored", "fputs", {EOF, EINTR}, kLine},
                    Fault{"FflushIsIgnored", "fflush", {EOF, EPIPE}, kLine}),
    daemon_test::kCaseName);

TEST_F(TheLog, EndsTheLineEmptyAndThrowsIfTheTimeCannotBeConverted) {
    fake::fail("localtime_r", {0, EOVERFLOW}, 2);
    Journal journal(qv::WARNING);
    for (int line = 0; line < 2; ++line) {
        try {
            QV_LOG(ERROR, 1) << "never inserted";
            FAIL() << "nothing thrown";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "Could not get local time");
        }
    }
    logOneLine();
    EXPECT_EQ(journal.entries, (Lines{"\r\n", "\r\n", kLine}));
}

TEST_F(TheLog, GivesTheDebugProcessTheNextLineWhateverItAnswers) {
    for (const int answer : {1, -1, -105, INT_MAX, INT_MIN}) {
        fake::fail("debug_process", {answer});
        Journal journal(qv::WARNING);
        for (int line = 0; line < 2; ++line) qv::QVDebugProcLog().get(89, "name") << "text";
        EXPECT_EQ(journal.entries, (Lines{"89 name: text", "89 name: text"}));
    }
}

/// The device answers every write that there is no space left.
TEST_F(TheLog, LosesTheLineAndNothingElseOnAFullDevice) {
    FILE* const full = fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    FILE* const before = std::exchange(qv::stream(), full);
    EXPECT_NO_THROW(logOneLine());
    EXPECT_NO_THROW(logOneLine());
    EXPECT_NE(ferror(full), 0);
    qv::stream() = before;
    fclose(full);
}

// How much memory a thread keeps of its last line.

class KeptMemory : public TheLog {
 protected:
    static void writeLine(int length) {
        static const std::string text(200000, 'x');
        const allocations::Counted counted;
        qv::QVDevLog logger;
        logger.get("file", 1, "int f()", qv::ERROR).write(text.data(), length);
    }

    Journal journal{qv::ERROR};
};

TEST_F(KeptMemory, OfALineOfUpTo4096BytesServesTheNext) {
    writeLine(0);
    writeLine(4000);
    EXPECT_GE(allocations::bytesAlive(), 4000);
    EXPECT_LE(allocations::bytesAlive(), 4096 + 1);
    const long before = allocations::taken();
    writeLine(3900);
    EXPECT_EQ(allocations::taken(), before);
}

TEST_F(KeptMemory, OfALongerLineIsGivenBack) {
    for (const int length : {4100, 8000, 20000, 200000}) {
        writeLine(length);
        EXPECT_EQ(allocations::bytesAlive(), 0) << length;
    }
}

}  // namespace
