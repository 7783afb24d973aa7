// SPDX-License-Identifier: MIT
// Lines to the system log: their form, what happens to those that it does not accept, and those of
// one frame, which are written together after it, or not at all.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <thread>

#include "calls.h"
#include "debug_process.h"
#include "frame_lines.h"
#include "log_daemon.h"
#include "say.h"
#include "world.h"

using pmtud_linux::FrameLines;
using pmtud_linux::Priority;
using pmtud_linux::say;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Runs the body of a test in a new process with a system log.
void withLog(const std::function<void(LogDaemon& log)>& body) {
    inOwnProcess([&] {
        LogDaemon log;
        body(log);
    });
}

int line(const std::string& text) { return debug_process(89, "%s", text.c_str()); }

void lines(int first, int last) {
    for (int i = first; i <= last; ++i) EXPECT_EQ(line(" " + std::to_string(i)), 0);
}

void linesOfAFrame(int first, int last) {
    const FrameLines frame(true);
    lines(first, last);
}

void expectLines(LogDaemon& log, int first, int last) {
    for (int i = first; i <= last; ++i) EXPECT_EQ(lineOf(log.next()), "89 " + std::to_string(i));
}

std::string lost(int count) { return "89 PMTUD-Linux: " + std::to_string(count) + " lines lost"; }

// Fills the log's queue with lines and loses one; returns how many the queue accepted.
int fill() {
    int taken = 0;
    while (line(" filling") == 0) ++taken;
    return taken;
}

// A line that cannot be formatted: its conversion fails.
int unformattable() { return debug_process(89, "%ls", L"\u2260"); }

// The number of lines in each call that wrote lines.
std::vector<unsigned int> written;

void watchWrites() {
    calls.sendmmsg = [](int fd, mmsghdr* messages, unsigned int count, int flags) {
        written.push_back(count);
        return real.sendmmsg(fd, messages, count, flags);
    };
}

}  // namespace

TEST(Line, HasPriorityLocalTimeProgramProcessAndModule) {
    inOwnProcess([] {
        setenv("TZ", "UTC-5:30", 1);
        tzset();
        LogDaemon log;
        const time_t before = time(nullptr);
        EXPECT_EQ(debug_process(7, " %s %d%%", "mtu", 1280), 0);
        const time_t after = time(nullptr);
        const std::string datagram = log.next();
        std::vector<std::string> expected;
        for (const time_t second : {before, after}) {
            char text[64];
            const time_t local = second + 19800;
            tm parts{};
            gmtime_r(&local, &parts);
            strftime(text, sizeof text, "<31>%b %e %H:%M:%S ", &parts);
            expected.push_back(text +
                               ("linux_parts_test[" + std::to_string(getpid()) + "]: 7 mtu 1280%"));
        }
        EXPECT_THAT(expected, testing::Contains(datagram));
        EXPECT_EQ(debug_process(89, nullptr), -EINVAL);
    });
}

// RFC 3164 section 4.1.2.
TEST(Line, NamesTheMonthInEnglish) {
    withLog([](LogDaemon& log) {
        const time_t newYear = 1767225600;  // 2026-01-01 00:00:00 UTC
        std::vector<std::string> months;
        for (int month = 0; month < 12; ++month) {
            calls.time = [&](time_t*) { return newYear + (month * 305 / 10 + 10) * 86400; };
            line(" of that month");
            months.push_back(log.next().substr(4, 4));
        }
        EXPECT_THAT(months, ElementsAre("Jan ", "Feb ", "Mar ", "Apr ", "May ", "Jun ", "Jul ",
                                        "Aug ", "Sep ", "Oct ", "Nov ", "Dec "));
    });
}

TEST(Line, IsWrittenAsItIsUpToItsBound) {
    withLog([](LogDaemon& log) {
        line(" tab\tline\nescape\x1b %s %n");
        EXPECT_EQ(lineOf(log.next()), "89 tab\tline\nescape\x1b %s %n");
        for (const size_t size : {800U, 1100U, 3000U}) {
            EXPECT_EQ(line(" " + std::string(size, 'x')), 0);
            const std::string datagram = log.next();
            EXPECT_TRUE(lineOf(datagram).starts_with("89 xxxx"));
            EXPECT_EQ(datagram.size() == 1024, size > 1024);
            EXPECT_EQ(datagram.back(), 'x');
        }
    });
}

TEST(Line, OfThePlatformHasItsPriorityAndItsCallerLearnsWhetherItWasAccepted) {
    inOwnProcess([] { EXPECT_FALSE(say(Priority::kError, "what happened")); });
    withLog([](LogDaemon& log) {
        const auto priorityOfLine = [&](Priority priority) {
            EXPECT_TRUE(say(priority, "what happened"));
            const std::string datagram = log.next();
            EXPECT_EQ(lineOf(datagram), "89 PMTUD-Linux: what happened");
            return priorityOf(datagram);
        };
        EXPECT_EQ(priorityOfLine(Priority::kError), "<27>");
        EXPECT_EQ(priorityOfLine(Priority::kWarning), "<28>");
        EXPECT_EQ(priorityOfLine(Priority::kInfo), "<30>");
        EXPECT_EQ(priorityOfLine(Priority::kDebug), "<31>");
    });
}

TEST(LostLine, IsCountedAndReportedOnceBeforeTheNext) {
    withLog([](LogDaemon& log) {
        lines(0, 0);
        expectLines(log, 0, 0);
        // A log that is only busy is not connected again.
        calls.socket = failing(EMFILE);
        const int taken = fill();
        EXPECT_GT(taken, 0);
        EXPECT_EQ(line(" lost"), -EAGAIN);
        EXPECT_EQ(unformattable(), -EINVAL);
        for (int i = 0; i < taken; ++i) EXPECT_EQ(lineOf(log.next()), "89 filling");
        EXPECT_FALSE(log.poll());
        lines(1, 2);
        const std::string report = log.next();
        EXPECT_EQ(lineOf(report), lost(3));
        EXPECT_EQ(priorityOf(report), "<28>");
        expectLines(log, 1, 2);
        EXPECT_FALSE(log.poll());
    });
}

// The next attempt to reach the log is a second after the last.
TEST(LostLine, IsReportedOnceTheLogAppearsWhichIsTriedOncePerSecond) {
    inOwnProcess([] {
        EXPECT_EQ(line(" lost"), -ENOENT);
        linesOfAFrame(1, 2);
        LogDaemon log;
        int count = 3;
        int result = 0;
        const auto start = std::chrono::steady_clock::now();
        while ((result = line(" taken")) != 0) {
            EXPECT_EQ(result, -ENOTCONN);
            ++count;
            ASSERT_LT(std::chrono::steady_clock::now() - start, kPatience);
        }
        EXPECT_GT(count, 3);
        EXPECT_EQ(lineOf(log.next()), lost(count));
        EXPECT_EQ(lineOf(log.next()), "89 taken");
    });
}

TEST(SystemLog, ThatWasRestartedIsReachedWithoutALoss) {
    inOwnProcess([] {
        std::optional<LogDaemon> log(std::in_place);
        lines(1, 1);
        expectLines(*log, 1, 1);
        log.reset();
        log.emplace();
        lines(2, 2);
        expectLines(*log, 2, 2);
        log.reset();
        log.emplace();
        linesOfAFrame(3, 4);
        expectLines(*log, 3, 4);
        EXPECT_FALSE(log->poll());
    });
}

TEST(SystemLog, TakesLinesFromAllThreads) {
    withLog([](LogDaemon& log) {
        constexpr int kEach = 200;
        std::vector<std::thread> writers;
        for (int i = 0; i < 4; ++i)
            writers.emplace_back([] {
                for (int n = 0; n < kEach; ++n)
                    while (line(" from a thread") != 0) std::this_thread::yield();
            });
        for (int taken = 0; taken < 4 * kEach;) {
            const std::string got = lineOf(log.next());
            if (got == "89 from a thread")
                ++taken;
            else
                EXPECT_THAT(got, testing::MatchesRegex("89 PMTUD-Linux: [0-9]+ lines lost"));
        }
        for (std::thread& writer : writers) writer.join();
        EXPECT_FALSE(log.poll());
    });
}

// The socket is opened when it is first needed; until then no descriptor is the log's.
TEST(SystemLog, LeavesTheProcessesDescriptorsAlone) {
    inOwnProcess([] {
        // Standard output and error are the test's own way to report.
        ASSERT_EQ(dup2(1, 100), 100);
        ASSERT_EQ(dup2(2, 101), 101);
        const auto inode = [](int fd) {
            struct stat file {};
            return fstat(fd, &file) == 0 ? file.st_ino : 0;
        };
        const int file = open("/dev", O_TMPFILE | O_RDWR, 0600);
        const ino_t before = inode(file);
        for (int fd = 0; fd < 16; ++fd) dup2(file, fd);
        LogDaemon log;
        const int result = debug_process(89, " first");
        std::vector<ino_t> after;
        for (int fd = 0; fd < 16; ++fd) after.push_back(inode(fd));
        dup2(100, 1);
        dup2(101, 2);
        EXPECT_EQ(result, 0);
        EXPECT_EQ(lineOf(log.next()), "89 first");
        EXPECT_NE(before, 0U);
        EXPECT_THAT(after, testing::Each(before));
    });
}

TEST(FrameLines, AreWrittenInOneCallAndInOrderWhenTheFrameIsDone) {
    withLog([](LogDaemon& log) {
        lines(0, 0);
        expectLines(log, 0, 0);
        watchWrites();
        { const FrameLines nothing(true); }
        EXPECT_THAT(written, IsEmpty());
        {
            const FrameLines frame(true);
            lines(1, 5);
            EXPECT_THAT(written, IsEmpty());
        }
        EXPECT_THAT(written, ElementsAre(5));
        expectLines(log, 1, 5);
        lines(6, 6);
        expectLines(log, 6, 6);
        EXPECT_FALSE(log.poll());
    });
}

TEST(FrameLines, BeyondSixteenAreWrittenSixteenAtATime) {
    withLog([](LogDaemon&) {
        lines(0, 0);
        int next = 1;
        calls.sendmmsg = [&](int, mmsghdr* messages, unsigned int count, int) {
            written.push_back(count);
            for (unsigned int i = 0; i < count; ++i) {
                const iovec& piece = *messages[i].msg_hdr.msg_iov;
                const std::string got(static_cast<const char*>(piece.iov_base), piece.iov_len);
                EXPECT_EQ(lineOf(got), "89 " + std::to_string(next++));
            }
            return static_cast<int>(count);
        };
        linesOfAFrame(1, 35);
        EXPECT_THAT(written, ElementsAre(16, 16, 3));
    });
}

TEST(FrameLines, OfOtherThreadsAndThePlatformsOwnAreNotKept) {
    withLog([](LogDaemon& log) {
        const FrameLines frame(true);
        line(" kept");
        std::thread([] { line(" of another thread"); }).join();
        EXPECT_EQ(lineOf(log.next()), "89 of another thread");
        say(Priority::kWarning, "of the platform");
        EXPECT_EQ(lineOf(log.next()), "89 PMTUD-Linux: of the platform");
        EXPECT_FALSE(log.poll());
    });
}

TEST(FrameLines, ThatTheLogHasNoRoomForAreCountedAndReportedBeforeTheNext) {
    withLog([](LogDaemon& log) {
        const int taken = fill();
        ASSERT_GT(taken, 3);
        linesOfAFrame(1, 2);
        for (int i = 0; i < 4; ++i) log.next();
        linesOfAFrame(1, 7);
        for (int i = 4; i < taken; ++i) EXPECT_EQ(lineOf(log.next()), "89 filling");
        // The line about those that were lost takes one of the four places.
        EXPECT_EQ(lineOf(log.next()), lost(3));
        expectLines(log, 1, 3);
        EXPECT_FALSE(log.poll());
        linesOfAFrame(8, 8);
        EXPECT_EQ(lineOf(log.next()), lost(4));
        expectLines(log, 8, 8);
    });
}

TEST(FrameLines, AreLostOnlyFromTheOneAtWhichTheLogEnded) {
    inOwnProcess([] {
        std::optional<LogDaemon> log(std::in_place);
        lines(0, 0);
        calls.sendmmsg = [&](int fd, mmsghdr* messages, unsigned int count, int flags) {
            const int sent = real.sendmmsg(fd, messages, std::min(count, 2U), flags);
            log.reset();
            return sent;
        };
        linesOfAFrame(1, 5);
        calls = real;
        log.emplace();
        int count = 3;
        const auto start = std::chrono::steady_clock::now();
        for (; line(" taken") != 0; ++count)
            ASSERT_LT(std::chrono::steady_clock::now() - start, kPatience);
        EXPECT_EQ(lineOf(log->next()), lost(count));
    });
}

TEST(FrameLines, AreWrittenWhenAnExceptionEndsTheFrame) {
    withLog([](LogDaemon& log) {
        try {
            const FrameLines frame(true);
            lines(1, 1);
            throw std::runtime_error("the callback's own");
        } catch (const std::runtime_error&) {
        }
        lines(2, 2);
        expectLines(log, 1, 2);
    });
}

// If it were formatted, the one whose conversion fails would be refused and counted as lost.
TEST(FrameLines, ThatAreIgnoredAreNotEvenFormatted) {
    withLog([](LogDaemon& log) {
        {
            const FrameLines frame(false);
            EXPECT_EQ(unformattable(), 0);
            lines(1, 1);
        }
        EXPECT_FALSE(log.poll());
        lines(2, 2);
        expectLines(log, 2, 2);
    });
}
