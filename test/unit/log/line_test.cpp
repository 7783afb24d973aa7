// SPDX-License-Identifier: MIT
// A whole line of the file channel: its parts, its time, its end, how it uses clock and sink, and
// what is written when they fail.
#include <cerrno>
#include <climits>
#include <stdexcept>

#include "allocations.h"
#include "daemon_test.h"

int statementOfAFunction(int) {
    QV_LOG(ERROR, 52) << "text";
    return 0;
}

struct Adapter {
    virtual ~Adapter() = default;
    virtual bool init() {
        QV_LOG(ERROR, 54) << "text";
        return true;
    }
    bool run() const {
        QV_LOG(ERROR, 55) << "text";
        return true;
    }
    int handleFrame(uint8_t*, size_t) {
        QV_LOG(WARNING, 40) << "text";
        return 1;
    }
};

namespace {

using daemon_test::Journal;
using daemon_test::Lines;
using daemon_test::logAt;

class Line : public daemon_test::FakesTest {};

void writeLine(int number, const std::string& message) {
    qv::QVDevLog().get("f", number, "g", qv::ERROR) << message;
}

const std::string kLine = "14:03:07.2 ERROR: [f:1 | g] text\r\n";

// Its parts.

TEST_F(Line, HasTheFileWithoutExtensionTheNumberAndTheFullSignatureOfTheFunction) {
    const auto statements = [] {
        statementOfAFunction(0);
        Adapter adapter;
        adapter.init();
        adapter.run();
        adapter.handleFrame(nullptr, 0);
    };
    EXPECT_EQ(logAt(qv::WARNING, statements),
              (Lines{"14:03:07.2 ERROR: [line_test:52 | int statementOfAFunction(int)] text\r\n",
                     "14:03:07.2 ERROR: [line_test:54 | virtual bool Adapter::init()] text\r\n",
                     "14:03:07.2 ERROR: [line_test:55 | bool Adapter::run() const] text\r\n",
                     "14:03:07.2 WARNING: [line_test:40 | int Adapter::handleFrame(uint8_t*, "
                     "size_t)] text\r\n"}));
}

TEST_F(Line, IsBuiltInTheStreamThatGetReturns) {
    const CapturedLog log(qv::WARNING);
    {
        qv::QVDevLog logger;
        std::ostream& os = logger.get("f", 1, "g", qv::ERROR);
        os << 255 << ' ';
        os << std::hex << std::showbase << 255 << "\n";
        EXPECT_EQ(log.text(), "");
    }
    EXPECT_EQ(log.text(), "14:03:07.2 ERROR: [f:1 | g] 255 0xff\n\r\n");
}

TEST_F(Line, IsJustCrLfIfItWasNeverBegun) {
    EXPECT_EQ(logAt(qv::WARNING, [] { const qv::QVDevLog logger; }), Lines{"\r\n"});
}

TEST_F(Line, ShowsANegativeNumberAndEscapesNothing) {
    EXPECT_EQ(logAt(qv::WARNING, [] { writeLine(-1, "%s %d\n\t\x01"); }),
              Lines{"14:03:07.2 ERROR: [f:-1 | g] %s %d\n\t\x01\r\n"});
}

TEST_F(Line, MayBeWrittenWithinAStatement) {
    const auto inner = [] {
        writeLine(2, "inner");
        return "outer";
    };
    EXPECT_EQ(
        logAt(qv::WARNING, [&] { writeLine(1, inner()); }),
        (Lines{"14:03:07.2 ERROR: [f:2 | g] inner\r\n", "14:03:07.2 ERROR: [f:1 | g] outer\r\n"}));
}

int throwing() { throw std::runtime_error("not converted"); }

TEST_F(Line, ThatAnExceptionInterruptsIsWrittenAsFarAsItGot) {
    const CapturedLog log(qv::WARNING);
    EXPECT_THROW(qv::QVDevLog().get("f", 1, "g", qv::ERROR) << "before " << throwing() << "after",
                 std::runtime_error);
    EXPECT_EQ(log.text(), "14:03:07.2 ERROR: [f:1 | g] before \r\n");
}

TEST_F(Line, IsNotWrittenIfTheStreamIsTakenAwayDuringTheStatement) {
    const CapturedLog log(qv::WARNING);
    FILE* const stream = qv::stream();
    {
        qv::QVDevLog logger;
        logger.get("f", 1, "g", qv::ERROR) << "message";
        qv::stream() = nullptr;
    }
    qv::stream() = stream;
    EXPECT_EQ(log.text(), "");
}

// Its length.

TEST_F(Line, OfAnyLengthIsWrittenWholeAndLeavesNothingToShorterLinesAfterIt) {
    for (const unsigned length : {0U, 1U, 15U, 16U, 100U, 511U, 512U, 4065U, 4066U, 4067U, 4068U,
                                  4096U, 4097U, 10000U, 65536U, 200000U}) {
        const std::string message(length, 'x');
        const auto write = [&] {
            for (const std::string& text : {message, std::string("short"), std::string()}) {
                writeLine(1, text);
                qv::QVDebugProcLog().get(89, "n") << text.substr(0, 10000);
            }
        };
        EXPECT_EQ(
            logAt(qv::WARNING, write),
            (Lines{"14:03:07.2 ERROR: [f:1 | g] " + message + "\r\n",
                   "14:03:07.2 ERROR: [f:1 | g] short\r\n", "14:03:07.2 ERROR: [f:1 | g] \r\n"}));
        EXPECT_EQ(fake::platform().debugTexts(),
                  (Lines{" n: " + message.substr(0, 10000), " n: short", " n: "}));
        fake::resetPlatform();
    }
}

/// A thread keeps the memory of its last line, up to 4096 bytes.
class KeptMemory : public Line {
 protected:
    static void write(int length) {
        static const std::string text(200000, 'x');
        const allocations::Counted counted;
        qv::QVDevLog logger;
        logger.get("file", 1, "int f()", qv::ERROR).write(text.data(), length);
    }

    Journal journal{qv::ERROR};
};

TEST_F(KeptMemory, OfALineOfUpTo4096BytesServesTheNext) {
    write(0);
    write(4000);
    EXPECT_GE(allocations::bytesAlive(), 4000);
    EXPECT_LE(allocations::bytesAlive(), 4096 + 1);
    const long before = allocations::taken();
    write(3900);
    EXPECT_EQ(allocations::taken(), before);
}

TEST_F(KeptMemory, OfALongerLineIsFreed) {
    for (const int length : {4100, 8000, 20000, 200000}) {
        write(length);
        EXPECT_EQ(allocations::bytesAlive(), 0) << length;
    }
}

// Its time.

struct Time {
    const char* name;
    fake::Clock clock;
    const char* text;
};

class NowTime : public Line, public testing::WithParamInterface<Time> {};

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

/// The fake clock's second changes between the two readings, which are not taken together. Only the
/// stream's own lock keeps the lines of two threads apart, so a line must be one call.
TEST_F(Line, ReadsSecondsThenMillisecondsAndIsWrittenByOneCallAndFlushed) {
    Journal journal(qv::WARNING, true);
    qv::QVDevLog().get("f", 1, "g", qv::ERROR) << "te"
                                               << "xt";
    EXPECT_EQ(journal.entries,
              (Lines{"time", "localtime_r", "strftime", "gettimeofday", kLine, "fflush"}));
}

TEST_F(Line, ForTheDebugProcessReadsNoClock) {
    Journal journal(qv::WARNING, true);
    qv::QVDebugProcLog().get(89, std::string("name")) << "te"
                                                      << "xt";
    EXPECT_EQ(journal.entries, Lines{"89 name: text"});
}

// Failures.

struct Fault {
    const char* name;
    const char* call;
    long result;
    int error;
    std::string line;
};

class AFailing : public Line, public testing::WithParamInterface<Fault> {};

TEST_P(AFailing, CallChangesItsLineAndNotTheNext) {
    fake::fail(GetParam().call, {GetParam().result, GetParam().error}, 2);
    Journal journal(qv::WARNING);
    for (int line = 0; line < 3; ++line) writeLine(1, "text");
    EXPECT_EQ(journal.entries, (Lines{GetParam().line, GetParam().line, kLine}));
}

// -1 is a time like any other: the second before 1970.
INSTANTIATE_TEST_SUITE_P(
    Call, AFailing,
    testing::Values(Fault{"TimeIsTheSecondThatItsResultMeans", "time", -1, EFAULT,
                          "23:59:59.2 ERROR: [f:1 | g] text\r\n"},
                    Fault{"GettimeofdayIsTenthZero", "gettimeofday", -1, EFAULT,
                          "14:03:07.0 ERROR: [f:1 | g] text\r\n"},
                    Fault{"StrftimeLeavesTheMillisecondsAlone", "strftime", 0, 0,
                          ".245 ERROR: [f:1 | g] text\r\n"},
                    Fault{"FputsOnAFullDeviceIsIgnored", "fputs", EOF, ENOSPC, kLine},
                    Fault{"FputsThatIsInterruptedIsIgnored", "fputs", EOF, EINTR, kLine},
                    Fault{"FflushIsIgnored", "fflush", EOF, EPIPE, kLine}),
    daemon_test::kCaseName);

TEST_F(Line, IsEmptyAndThrowsIfTheTimeCannotBeConverted) {
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
    writeLine(1, "text");
    EXPECT_EQ(journal.entries, (Lines{"\r\n", "\r\n", kLine}));
}

TEST_F(Line, IsGivenToTheDebugProcessWhateverItReturnedForTheOneBefore) {
    for (const int result : {1, -1, -105, INT_MAX, INT_MIN}) {
        fake::fail("debug_process", {result});
        Journal journal(qv::WARNING);
        for (int line = 0; line < 2; ++line) qv::QVDebugProcLog().get(89, "name") << "text";
        EXPECT_EQ(journal.entries, (Lines{"89 name: text", "89 name: text"}));
    }
}

}  // namespace
