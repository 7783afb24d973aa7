// SPDX-License-Identifier: MIT
// What the log asks of the C library and of the debug process: which calls, in which order.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "QVLog.h"
#include "captured_log.h"
#include "debug_process.h"

namespace {

bool recording = false;
int result = 0;
std::vector<std::string> calls;

}  // namespace

extern "C" {

time_t __real_time(time_t* out);
tm* __real_localtime_r(const time_t* seconds, tm* local);
int __real_gettimeofday(timeval* now, void* zone);
int __real_fputs(const char* text, FILE* file);
int __real_fflush(FILE* file);

time_t __wrap_time(time_t* out) {
    if (!recording) return __real_time(out);
    calls.emplace_back("time");
    return 12 * 3600 + 34 * 60 + 56;
}

tm* __wrap_localtime_r(const time_t* seconds, tm* local) {
    if (!recording) return __real_localtime_r(seconds, local);
    calls.emplace_back("localtime_r");
    local->tm_hour = static_cast<int>(*seconds / 3600);
    local->tm_min = static_cast<int>(*seconds / 60 % 60);
    local->tm_sec = static_cast<int>(*seconds % 60);
    return local;
}

/// The second has changed since time was asked.
int __wrap_gettimeofday(timeval* now, void* zone) {
    if (!recording) return __real_gettimeofday(now, zone);
    calls.emplace_back("gettimeofday");
    now->tv_sec = 12 * 3600 + 34 * 60 + 57;
    now->tv_usec = 5000;
    return 0;
}

int __wrap_fputs(const char* text, FILE* file) {
    if (!recording) return __real_fputs(text, file);
    calls.push_back("fputs " + std::string(text));
    return result;
}

int __wrap_fflush(FILE* file) {
    if (!recording) return __real_fflush(file);
    calls.emplace_back("fflush");
    return result;
}

int debug_process(uint32_t, const char*, ...) {
    calls.emplace_back("debug_process");
    return result;
}

}  // extern "C"

namespace {

using Calls = std::vector<std::string>;

/// The calls of one action, every sink among them answering `answer`.
template <typename Action>
Calls callsOf(int answer, Action action) {
    calls.clear();
    result = answer;
    recording = true;
    action();
    recording = false;
    return calls;
}

TEST(NowTimeCalls, ReadTheSecondsFirstAndTheMillisecondsLast) {
    EXPECT_EQ(callsOf(0, [] { qv::nowTime(); }), Calls({"time", "localtime_r", "gettimeofday"}));
}

/// The two readings are not taken together: the tenth may be the next second's.
TEST(NowTimeCalls, TakeTheSecondsOfTheFirstReadingAndTheTenthOfTheLast) {
    std::string text;
    callsOf(0, [&text] { text = qv::nowTime(); });
    EXPECT_EQ(text, "12:34:56.0");
}

const Calls kCallsOfOneLine = {"time", "localtime_r", "gettimeofday",
                               "fputs 12:34:56.0 ERROR: [f:1 | g] text\r\n", "fflush"};

void logOneLine() {
    qv::QVDevLog().get("f", 1, "g", qv::ERROR) << "te"
                                               << "xt";
}

/// The stream's own lock keeps lines of two threads apart, so a line must be one call.
TEST(FileSinkCalls, WriteALineAtOnceAndFlushItOnce) {
    const CapturedLog log(qv::WARNING);
    EXPECT_EQ(callsOf(0, logOneLine), kCallsOfOneLine);
}

TEST(FileSinkCalls, IgnoreThatALineCouldNotBeWritten) {
    const CapturedLog log(qv::WARNING);
    EXPECT_EQ(callsOf(EOF, logOneLine), kCallsOfOneLine);
}

TEST(DebugProcessCalls, AreOneALineWhateverTheResult) {
    const auto statement = [] {
        qv::QVDebugProcLog().get(89, "PMTUD-Prot") << "te"
                                                   << "xt";
    };
    EXPECT_EQ(callsOf(-105, statement), Calls({"debug_process"}));
}

TEST(DebugProcessCalls, AskForNoTime) {
    const auto empty = [] { qv::QVDebugProcLog().get(89, std::string("PMTUD-Prot")); };
    EXPECT_EQ(callsOf(0, empty), Calls({"debug_process"}));
}

}  // namespace
