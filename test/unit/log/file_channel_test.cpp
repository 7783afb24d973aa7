// SPDX-License-Identifier: MIT
// A line of the file channel, whole.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>

#include "QVLog.h"
#include "captured_log.h"
#include "fake_syscalls.h"

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

class FileChannel : public testing::Test {
 protected:
    void SetUp() override { fake::resetClock(); }
};

void logFrom(const char* file, int line, const char* function, qv::LogLevel level,
             const char* message) {
    qv::QVDevLog().get(file, line, function, level) << message;
}

TEST_F(FileChannel, StatementCarriesItsFileWithoutExtensionItsNumberAndItsFunction) {
    const CapturedLog log(qv::WARNING);
    statementOfAFunction(0);
    EXPECT_EQ(log.text(),
              "14:03:07.2 ERROR: [file_channel_test:52 | int statementOfAFunction(int)] text\r\n");
}

TEST_F(FileChannel, StatementCarriesTheFullSignatureOfAMember) {
    const CapturedLog log(qv::WARNING);
    Adapter adapter;
    adapter.init();
    adapter.run();
    adapter.handleFrame(nullptr, 0);
    EXPECT_EQ(log.text(),
              "14:03:07.2 ERROR: [file_channel_test:54 | virtual bool Adapter::init()] text\r\n"
              "14:03:07.2 ERROR: [file_channel_test:55 | bool Adapter::run() const] text\r\n"
              "14:03:07.2 WARNING: [file_channel_test:40 | int Adapter::handleFrame(uint8_t*, "
              "size_t)] text\r\n");
}

TEST_F(FileChannel, GetReturnsTheStreamThatTheLineIsBuiltIn) {
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

TEST_F(FileChannel, LoggerThatDidNotBeginALineWritesABareLineEnd) {
    const CapturedLog log(qv::WARNING);
    { const qv::QVDevLog logger; }
    EXPECT_EQ(log.text(), "\r\n");
}

TEST_F(FileChannel, StatementMayStateTheTextOfItsFunction) {
    const CapturedLog log(qv::WARNING);
    QV_LOG_IN(ERROR, 71, "void f(C::T)") << "text";
    EXPECT_EQ(log.text(), "14:03:07.2 ERROR: [file_channel_test:71 | void f(C::T)] text\r\n");
}

TEST_F(FileChannel, WritesANegativeLineNumberAsItStands) {
    const CapturedLog log(qv::WARNING);
    logFrom("f", -1, "g", qv::ERROR, "");
    EXPECT_EQ(log.text(), "14:03:07.2 ERROR: [f:-1 | g] \r\n");
}

TEST_F(FileChannel, EscapesAndLimitsNothing) {
    const CapturedLog log(qv::WARNING);
    const std::string message = "%s %d\n\t\x01" + std::string(10000, 'x');
    logFrom("f", 1, "g", qv::ERROR, message.c_str());
    EXPECT_EQ(log.text(), "14:03:07.2 ERROR: [f:1 | g] " + message + "\r\n");
}

class LineLength : public testing::TestWithParam<size_t> {};

TEST_P(LineLength, IsKeptAndLeavesNothingToShorterLinesAfterIt) {
    fake::resetClock();
    const CapturedLog log(qv::WARNING);
    const std::string message(GetParam(), 'x');
    logFrom("f", 1, "g", qv::ERROR, message.c_str());
    logFrom("f", 2, "g", qv::ERROR, "short");
    logFrom("f", 3, "g", qv::ERROR, "");
    EXPECT_EQ(log.text(), "14:03:07.2 ERROR: [f:1 | g] " + message +
                              "\r\n14:03:07.2 ERROR: [f:2 | g] short\r\n"
                              "14:03:07.2 ERROR: [f:3 | g] \r\n");
}

INSTANTIATE_TEST_SUITE_P(Of, LineLength,
                         testing::Values(0, 1, 15, 16, 100, 511, 512, 4065, 4066, 4067, 4068, 4096,
                                         4097, 65536, 200000));

TEST_F(FileChannel, StatementWithinAStatementIsALineOfItsOwn) {
    const CapturedLog log(qv::WARNING);
    const auto inner = [] {
        logFrom("f", 2, "g", qv::ERROR, "inner");
        return "outer";
    };
    qv::QVDevLog().get("f", 1, "g", qv::ERROR) << inner();
    EXPECT_EQ(log.text(),
              "14:03:07.2 ERROR: [f:2 | g] inner\r\n14:03:07.2 ERROR: [f:1 | g] outer\r\n");
}

int throwing() { throw std::runtime_error("converted in vain"); }

TEST_F(FileChannel, StatementThatAnExceptionInterruptsWritesWhatItHas) {
    const CapturedLog log(qv::WARNING);
    EXPECT_THROW(qv::QVDevLog().get("f", 1, "g", qv::ERROR) << "before " << throwing() << "behind",
                 std::runtime_error);
    EXPECT_EQ(log.text(), "14:03:07.2 ERROR: [f:1 | g] before \r\n");
}

TEST_F(FileChannel, WritesNothingWhereTheStreamIsTakenAwayDuringTheStatement) {
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

TEST_F(FileChannel, FlushesEveryLine) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    FILE* const original = qv::stream();
    FILE* const writer = fdopen(ends[1], "w");
    setvbuf(writer, nullptr, _IOFBF, 65536);
    qv::stream() = writer;
    logFrom("f", 1, "g", qv::ERROR, "seen at once");
    pollfd readable{ends[0], POLLIN, 0};
    ASSERT_EQ(poll(&readable, 1, 0), 1);
    char text[64] = {};
    EXPECT_EQ(read(ends[0], text, sizeof text - 1), 42);
    EXPECT_STREQ(text, "14:03:07.2 ERROR: [f:1 | g] seen at once\r\n");
    qv::stream() = original;
    fclose(writer);
    close(ends[0]);
}

TEST_F(FileChannel, LinesOfTwoThreadsAreNotInterleaved) {
    FILE* const original = qv::stream();
    FILE* const file = tmpfile();
    qv::stream() = file;
    constexpr int kLines = 2000;
    const auto write = [](const char* message) {
        for (int i = 0; i < kLines; ++i) logFrom("f", 1, "g", qv::ERROR, message);
    };
    std::thread other(write, "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa");
    write("bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb");
    other.join();
    qv::stream() = original;

    std::map<std::string, int> counts;
    rewind(file);
    char line[128];
    while (fgets(line, sizeof line, file) != nullptr) ++counts[line];
    fclose(file);
    EXPECT_EQ(
        counts,
        (std::map<std::string, int>(
            {{"14:03:07.2 ERROR: [f:1 | g] aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa\r\n", kLines},
             {"14:03:07.2 ERROR: [f:1 | g] bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb\r\n",
              kLines}})));
}

struct Level {
    qv::LogLevel level;
    int code;
    const char* name;
};

class LevelNames : public testing::TestWithParam<Level> {};

TEST_P(LevelNames, CodeNameAndLineOfEachAreFixed) {
    fake::resetClock();
    const CapturedLog log(qv::ERROR);
    logFrom("f", 1, "g", GetParam().level, "text");
    EXPECT_EQ(log.text(), "14:03:07.2 " + std::string(GetParam().name) + ": [f:1 | g] text\r\n");
    EXPECT_EQ(static_cast<int>(GetParam().level), GetParam().code);
    EXPECT_EQ(qv::toString(GetParam().level), GetParam().name);
}

static_assert(std::is_same_v<std::underlying_type_t<qv::LogLevel>, int32_t>);

INSTANTIATE_TEST_SUITE_P(
    Every, LevelNames,
    testing::Values(Level{qv::ERROR, 0, "ERROR"}, Level{qv::WARNING, 1, "WARNING"},
                    Level{qv::INFO, 2, "INFO"}, Level{qv::DEBUG, 3, "DEBUG"},
                    Level{qv::DEBUG1, 4, "DEBUG1"}, Level{qv::DEBUG2, 5, "DEBUG2"},
                    Level{qv::DEBUG3, 6, "DEBUG3"}, Level{qv::DEBUG4, 7, "DEBUG4"}),
    [](const auto& level) { return std::string(level.param.name); });

}  // namespace
