// SPDX-License-Identifier: MIT
// The logger classes, their sinks, the debug-process channel, and the framework's error class.
#include <memory>
#include <sstream>
#include <stdexcept>
#include <type_traits>
#include <typeinfo>

#include "daemon_test.h"
#include "qv_exception.h"

namespace {

using fake::DebugLine;
using FileLog = qv::Log<qv::Output2FilePolicy>;
using DebugProcessLog = qv::Log<qv::Output2DebugProcessPolicy>;

static_assert(std::is_convertible_v<qv::QVDevLog*, FileLog*>);
static_assert(std::is_convertible_v<qv::QVDebugProcLog*, DebugProcessLog*>);
static_assert(sizeof(qv::QVDevLog) == sizeof(FileLog), "no fields of its own");
static_assert(sizeof(qv::QVDebugProcLog) == sizeof(DebugProcessLog), "no fields of its own");
static_assert(std::is_empty_v<qv::Output2FilePolicy> &&
              std::is_empty_v<qv::Output2DebugProcessPolicy>);

template <typename... Loggers>
constexpr bool kAreDestroyedByTheirBaseAndNotCopied = ((std::has_virtual_destructor_v<Loggers> &&
                                                        !std::is_copy_constructible_v<Loggers> &&
                                                        !std::is_copy_assignable_v<Loggers>)&&...);
static_assert(kAreDestroyedByTheirBaseAndNotCopied<FileLog, DebugProcessLog, qv::QVDevLog,
                                                   qv::QVDebugProcLog>);

class Loggers : public daemon_test::FakesTest {
 protected:
    using DebugLines = std::vector<DebugLine>;
    static const DebugLines& lines() { return fake::platform().debugLines; }
};

TEST_F(Loggers, EmitTheirLineOnceThroughAPointerToTheirBase) {
    std::unique_ptr<DebugProcessLog> logger = std::make_unique<qv::QVDebugProcLog>();
    const DebugProcessLog& base = *logger;
    EXPECT_EQ(typeid(base), typeid(qv::QVDebugProcLog));
    EXPECT_NE(typeid(qv::QVDevLog), typeid(FileLog));
    logger->get(89, "n") << "text";
    EXPECT_TRUE(lines().empty());
    logger.reset();
    EXPECT_EQ(lines(), DebugLines({{89, "%s", " n: text"}}));
}

// The debug process: it gets the text as it is, whatever the threshold.

struct Statement {
    const char* name;
    uint32_t module;
    std::string text;
    void (*run)();
};

void PrintTo(const Statement& statement, std::ostream* os) { *os << statement.name; }

class DebugProcessChannel : public Loggers, public testing::WithParamInterface<Statement> {};

TEST_P(DebugProcessChannel, PassesItsLineAsDataOfThePlainFormat) {
    GetParam().run();
    EXPECT_EQ(lines(), DebugLines({{GetParam().module, "%s", GetParam().text}}));
}

int throwing() { throw std::runtime_error("converted"); }

void logWhileInterrupted() {
    EXPECT_THROW(qv::QVDebugProcLog().get(89, "n") << "From: " << throwing(), std::runtime_error);
}

void logAtNoThresholdAndWithoutAStream() {
    const CapturedLog log(-1);
    FILE* const stream = std::exchange(qv::stream(), nullptr);
    qv::QVDebugProcLog().get(89, "n") << "written";
    qv::stream() = stream;
}

const Statement kStatements[] = {
    {"OfAName", 89, " PMTUD: OK", [] { qv::QVDebugProcLog().get(89, "PMTUD") << "OK"; }},
    {"OfANameAsAString", 4294967295U, " name: 1",
     [] { qv::QVDebugProcLog().get(4294967295U, std::string("name")) << 1; }},
    {"OfANameWithAZeroByteUpToIt", 1, " na: text",
     [] { qv::QVDebugProcLog().get(1, std::string("na\0me", 5)) << "text"; }},
    {"WithAConversion", 89, " n: %s %n %%",
     [] { qv::QVDebugProcLog().get(89, "n") << "%s %n %%"; }},
    {"OfAnEmptyMessage", 89, " n: ", [] { qv::QVDebugProcLog().get(89, "n") << ""; }},
    {"ThatWasNotBegun", 0, "", [] { const qv::QVDebugProcLog logger; }},
    {"ThatAnExceptionInterrupts", 89, " n: From: ", logWhileInterrupted},
    {"AtNoThresholdAndWithoutAStream", 89, " n: written", logAtNoThresholdAndWithoutAStream},
};

INSTANTIATE_TEST_SUITE_P(Line, DebugProcessChannel, testing::ValuesIn(kStatements),
                         daemon_test::kCaseName);

// The sinks by themselves. They get a text in the same way as from a logger's destructor.

TEST_F(Loggers, WriteTextAndCrLfWhateverChannelReservedAndThreshold) {
    const CapturedLog log(-1);
    std::ostringstream os;
    os << "text";
    qv::Output2FilePolicy::output(4294967295U, os, -1);
    EXPECT_EQ(log.text(), "text\r\n");
}

TEST_F(Loggers, AppendCrLfToTheBufferEvenIfThereIsNoStream) {
    const CapturedLog log(qv::ERROR);
    FILE* const stream = std::exchange(qv::stream(), nullptr);
    std::ostringstream os;
    os << "text";
    qv::Output2FilePolicy::output(0, os, 0);
    qv::stream() = stream;
    EXPECT_EQ(os.str(), "text\r\n");
    EXPECT_EQ(log.text(), "");
}

TEST_F(Loggers, PassTheDebugProcessAnyTextWhateverReservedHolds) {
    for (const char* const text : {"text\n", ""}) {
        std::ostringstream os;
        os << text;
        qv::Output2DebugProcessPolicy::output(5, os, -1);
        EXPECT_EQ(lines().back(), (DebugLine{5, "%s", text}));
    }
}

// The error class, which only a handler that names it catches.

std::string handlerOf(void (*thrower)()) {
    try {
        thrower();
    } catch (const std::runtime_error&) {
        return "std::runtime_error";
    } catch (const std::exception&) {
        return "std::exception";
    } catch (qv::exception& e) {
        return std::string("qv::exception ") + e.what();
    } catch (...) {
        return "...";
    }
    return "none";
}

TEST(QvException, IsCaughtByItsOwnNameOnly) {
    EXPECT_EQ(handlerOf([] { throw qv::exception("text"); }), "qv::exception text");
    EXPECT_EQ(handlerOf([] { throw qv::exception(std::string("a text")); }),
              "qv::exception a text");
    EXPECT_EQ(handlerOf([] { throw std::runtime_error("text"); }), "std::runtime_error");
}

static_assert(sizeof(qv::exception) == sizeof(std::runtime_error), "no fields of its own");
static_assert(std::is_base_of_v<std::runtime_error, qv::exception> &&
              !std::is_convertible_v<qv::exception*, std::runtime_error*>);

}  // namespace
