// SPDX-License-Identifier: MIT
// The debug lines of one frame: when they are written, and when they are not.
#include "frame_lines.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "calls.h"
#include "debug_process.h"
#include "line_budget.h"
#include "log_daemon.h"
#include "say.h"
#include "world.h"

using namespace std::chrono_literals;
using pmtud_linux::FrameLines;
using pmtud_linux::LineBudget;

namespace {

int line(const std::string& text) { return debug_process(89, "%s", text.c_str()); }

int numbered(int number) { return line(" " + std::to_string(number)); }

std::string lineOfNumber(int number) { return "89 " + std::to_string(number); }

// Counts the calls by which lines are written, and how many lines each call had.
std::vector<unsigned int> written;

void watchWrites() {
    written.clear();
    calls.sendmmsg = [](int fd, mmsghdr* messages, unsigned int count, int flags) {
        written.push_back(count);
        return real::sendmmsg(fd, messages, count, flags);
    };
}

// Fills the log's queue with lines; how many it took.
int fill() {
    int taken = 0;
    while (line(" filling") == 0) ++taken;
    return taken;
}

}  // namespace

TEST(FrameLines, AreWrittenInOrderWhenTheFrameIsDone) {
    inOwnProcess([] {
        LogDaemon log;
        {
            const FrameLines lines(true);
            for (int i = 1; i <= 5; ++i) EXPECT_EQ(numbered(i), 0);
            EXPECT_FALSE(log.poll());
        }
        for (int i = 1; i <= 5; ++i) {
            const std::string datagram = log.next();
            EXPECT_EQ(lineOf(datagram), lineOfNumber(i));
            EXPECT_EQ(priorityOf(datagram), "<31>");
        }
        EXPECT_FALSE(log.poll());
    });
}

TEST(FrameLines, AreWrittenInOneCall) {
    inOwnProcess([] {
        LogDaemon log;
        line(" the first line connects");
        watchWrites();
        {
            const FrameLines lines(true);
            for (int i = 1; i <= 5; ++i) numbered(i);
            EXPECT_TRUE(written.empty());
        }
        EXPECT_EQ(written, (std::vector<unsigned int>{5}));
    });
}

TEST(FrameLines, OfAFrameWithoutAnyCallNothing) {
    inOwnProcess([] {
        LogDaemon log;
        watchWrites();
        { const FrameLines lines(true); }
        EXPECT_TRUE(written.empty());
    });
}

TEST(FrameLines, BeyondSixteenAreWrittenSixteenAtATime) {
    inOwnProcess([] {
        LogDaemon log;
        line(" the first line connects");
        log.next();
        std::vector<std::string> got;
        calls.sendmmsg = [&](int, mmsghdr* messages, unsigned int count, int) {
            written.push_back(count);
            for (unsigned int i = 0; i < count; ++i) {
                const iovec& piece = *messages[i].msg_hdr.msg_iov;
                got.push_back(lineOf({static_cast<const char*>(piece.iov_base), piece.iov_len}));
            }
            return static_cast<int>(count);
        };
        {
            const FrameLines lines(true);
            for (int i = 1; i <= 35; ++i) EXPECT_EQ(numbered(i), 0);
        }
        EXPECT_EQ(written, (std::vector<unsigned int>{16, 16, 3}));
        ASSERT_EQ(got.size(), 35U);
        for (int i = 1; i <= 35; ++i) EXPECT_EQ(got[static_cast<size_t>(i) - 1], lineOfNumber(i));
    });
}

TEST(FrameLines, AreWrittenAtOnceAgainAfterTheFrame) {
    inOwnProcess([] {
        LogDaemon log;
        { const FrameLines lines(true); }
        line(" later");
        EXPECT_EQ(lineOf(log.next()), "89 later");
        { const FrameLines lines(false); }
        line(" later still");
        EXPECT_EQ(lineOf(log.next()), "89 later still");
    });
}

TEST(FrameLines, OfOtherThreadsAndThePlatformsOwnAreNotKept) {
    inOwnProcess([] {
        LogDaemon log;
        const FrameLines lines(true);
        line(" kept");
        std::thread([] { line(" of another thread"); }).join();
        EXPECT_EQ(lineOf(log.next()), "89 of another thread");
        pmtud_linux::say(pmtud_linux::Priority::kWarning, "of the platform");
        EXPECT_EQ(lineOf(log.next()), "89 PMTUD-Linux: of the platform");
        EXPECT_FALSE(log.poll());
    });
}

TEST(FrameLines, ThatTheLogHasNoRoomForAreCountedAndReportedBeforeTheNext) {
    inOwnProcess([] {
        LogDaemon log;
        const int taken = fill();  // and one line is lost
        ASSERT_GT(taken, 3);
        for (int i = 0; i < 4; ++i) log.next();
        {
            const FrameLines lines(true);
            for (int i = 1; i <= 7; ++i) EXPECT_EQ(numbered(i), 0);
        }
        for (int i = 4; i < taken; ++i) EXPECT_EQ(lineOf(log.next()), "89 filling");
        // The line about the one that was lost takes one of the four places.
        const std::string lost = log.next();
        EXPECT_EQ(lineOf(lost), "89 PMTUD-Linux: 1 lines lost");
        EXPECT_EQ(priorityOf(lost), "<28>");
        for (int i = 1; i <= 3; ++i) EXPECT_EQ(lineOf(log.next()), lineOfNumber(i));
        EXPECT_FALSE(log.poll());

        {
            const FrameLines lines(true);
            numbered(8);
        }
        EXPECT_EQ(lineOf(log.next()), "89 PMTUD-Linux: 4 lines lost");
        EXPECT_EQ(lineOf(log.next()), lineOfNumber(8));
        {
            const FrameLines lines(true);
            numbered(9);
        }
        EXPECT_EQ(lineOf(log.next()), lineOfNumber(9));
    });
}

TEST(FrameLines, ThatAFullLogTakesNoneOfAreAllCounted) {
    inOwnProcess([] {
        LogDaemon log;
        const int taken = fill();
        {
            const FrameLines lines(true);
            for (int i = 1; i <= 7; ++i) EXPECT_EQ(numbered(i), 0);
        }
        for (int i = 0; i < taken; ++i) EXPECT_EQ(lineOf(log.next()), "89 filling");
        EXPECT_FALSE(log.poll());
        {
            const FrameLines lines(true);
            numbered(8);
        }
        EXPECT_EQ(lineOf(log.next()), "89 PMTUD-Linux: 8 lines lost");
        EXPECT_EQ(lineOf(log.next()), lineOfNumber(8));
    });
}

TEST(FrameLines, ReachALogThatWasStartedAgainBetweenTwoFrames) {
    inOwnProcess([] {
        std::optional<LogDaemon> log(std::in_place);
        {
            const FrameLines lines(true);
            numbered(1);
            numbered(2);
        }
        EXPECT_EQ(lineOf(log->next()), lineOfNumber(1));
        EXPECT_EQ(lineOf(log->next()), lineOfNumber(2));
        log.reset();
        log.emplace();
        {
            const FrameLines lines(true);
            numbered(3);
            numbered(4);
        }
        EXPECT_EQ(lineOf(log->next()), lineOfNumber(3));
        EXPECT_EQ(lineOf(log->next()), lineOfNumber(4));
        EXPECT_FALSE(log->poll());
    });
}

TEST(FrameLines, WithoutALogAreCounted) {
    inOwnProcess([] {
        {
            const FrameLines lines(true);
            numbered(1);
            numbered(2);
        }
        LogDaemon log;
        // The next attempt to reach the log is a second after the last.
        const auto limit = std::chrono::steady_clock::now() + kPatience;
        int lost = 2;
        for (; line(" taken") != 0; ++lost) ASSERT_LT(std::chrono::steady_clock::now(), limit);
        EXPECT_EQ(lineOf(log.next()), "89 PMTUD-Linux: " + std::to_string(lost) + " lines lost");
        EXPECT_EQ(lineOf(log.next()), "89 taken");
    });
}

TEST(FrameLines, AreWrittenWhenAnExceptionEndsTheFrame) {
    inOwnProcess([] {
        LogDaemon log;
        EXPECT_THROW(
            {
                const FrameLines lines(true);
                numbered(1);
                throw std::runtime_error("the callback's own");
            },
            std::runtime_error);
        EXPECT_EQ(lineOf(log.next()), lineOfNumber(1));
        line(" later");
        EXPECT_EQ(lineOf(log.next()), "89 later");
    });
}

// The first line's conversion fails: if it were formatted, it would be refused and counted as lost.
TEST(FrameLines, ThatAreIgnoredAreNotEvenFormatted) {
    inOwnProcess([] {
        constexpr wchar_t kBeyondAscii[] = L"\u2260";
        LogDaemon log;
        ASSERT_EQ(debug_process(89, "%ls", kBeyondAscii), -EINVAL);
        line(" next");
        ASSERT_EQ(lineOf(log.next()), "89 PMTUD-Linux: 1 lines lost");
        ASSERT_EQ(lineOf(log.next()), "89 next");
        {
            const FrameLines lines(false);
            EXPECT_EQ(debug_process(89, "%ls", kBeyondAscii), 0);
            EXPECT_EQ(line(" ignored"), 0);
        }
        EXPECT_FALSE(log.poll());
        line(" next");
        EXPECT_EQ(lineOf(log.next()), "89 next");
    });
}

namespace {

constexpr LineBudget::Clock::time_point kStart{1000s};

int taken(LineBudget& budget, LineBudget::Clock::time_point now) {
    int count = 0;
    while (count < 1000 && budget.take(now)) ++count;
    return count;
}

}  // namespace

TEST(LineBudget, IsABurstOfAHundredFramesAtFirst) {
    LineBudget budget;
    EXPECT_EQ(taken(budget, kStart), 100);
}

// The clock starts with the machine.
TEST(LineBudget, IsTheSameBurstRightAfterTheMachineHasStarted) {
    LineBudget budget;
    EXPECT_EQ(taken(budget, LineBudget::Clock::time_point{}), 100);
}

TEST(LineBudget, GrowsByTwentyFramesASecond) {
    LineBudget budget;
    taken(budget, kStart);
    EXPECT_EQ(taken(budget, kStart + 49ms), 0);
    EXPECT_EQ(taken(budget, kStart + 50ms), 1);
    EXPECT_EQ(taken(budget, kStart + 99ms), 0);
    EXPECT_EQ(taken(budget, kStart + 100ms), 1);
    EXPECT_EQ(taken(budget, kStart + 1100ms), 20);
    EXPECT_EQ(taken(budget, kStart + 4100ms), 60);
}

TEST(LineBudget, NeverGrowsBeyondTheBurst) {
    LineBudget budget;
    taken(budget, kStart);
    EXPECT_EQ(taken(budget, kStart + 1h), 100);
    EXPECT_EQ(taken(budget, kStart + 1h), 0);
}

TEST(LineBudget, IsKeptInAFloodThatLasts) {
    LineBudget budget;
    int logged = 0;
    for (int millisecond = 0; millisecond < 60000; ++millisecond)
        for (int frame = 0; frame < 3; ++frame)
            logged += budget.take(kStart + millisecond * 1ms) ? 1 : 0;
    EXPECT_EQ(logged, 100 + 20 * 60 - 1);
}

TEST(LineBudget, IsNotExceededWhenTheClockJumps) {
    LineBudget budget;
    EXPECT_EQ(taken(budget, kStart), 100);
    EXPECT_EQ(taken(budget, kStart + 24h * 365 * 100), 100);
    EXPECT_EQ(taken(budget, kStart), 0);
    EXPECT_EQ(taken(budget, kStart + 24h * 365 * 100), 0);
    EXPECT_EQ(taken(budget, kStart + 24h * 365 * 100 + 50ms), 1);
}
