// SPDX-License-Identifier: MIT
// The lines of one frame: written together after it, or not at all.
#include "frame_lines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "calls.h"
#include "log_lines.h"
#include "say.h"
#include "world.h"

using pmtud_linux::FrameLines;
using pmtud_linux::Priority;
using pmtud_linux::say;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// How many lines each call that writes had.
std::vector<unsigned int> written;

void watchWrites() {
    calls.sendmmsg = [](int fd, mmsghdr* messages, unsigned int count, int flags) {
        written.push_back(count);
        return real::sendmmsg(fd, messages, count, flags);
    };
}

}  // namespace

TEST(FrameLines, AreWrittenInOneCallAndInOrderWhenTheFrameIsDone) {
    inOwnProcess([] {
        LogDaemon log;
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
    inOwnProcess([] {
        LogDaemon log;
        lines(0, 0);
        std::vector<std::string> got;
        std::vector<std::string> expected;
        calls.sendmmsg = [&](int, mmsghdr* messages, unsigned int count, int) {
            written.push_back(count);
            for (unsigned int i = 0; i < count; ++i) {
                const iovec& piece = *messages[i].msg_hdr.msg_iov;
                got.push_back(lineOf({static_cast<const char*>(piece.iov_base), piece.iov_len}));
            }
            return static_cast<int>(count);
        };
        {
            const FrameLines frame(true);
            lines(1, 35);
        }
        EXPECT_THAT(written, ElementsAre(16, 16, 3));
        for (int i = 1; i <= 35; ++i) expected.push_back("89 " + std::to_string(i));
        EXPECT_EQ(got, expected);
    });
}

TEST(FrameLines, OfOtherThreadsAndThePlatformsOwnAreNotKept) {
    inOwnProcess([] {
        LogDaemon log;
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
    inOwnProcess([] {
        LogDaemon log;
        const int taken = fill();
        ASSERT_GT(taken, 3);
        {
            const FrameLines frame(true);
            lines(1, 2);
        }
        for (int i = 0; i < 4; ++i) log.next();
        {
            const FrameLines frame(true);
            lines(1, 7);
        }
        for (int i = 4; i < taken; ++i) EXPECT_EQ(lineOf(log.next()), "89 filling");
        // The line about those that were lost takes one of the four places.
        EXPECT_EQ(lineOf(log.next()), lost(3));
        expectLines(log, 1, 3);
        EXPECT_FALSE(log.poll());
        {
            const FrameLines frame(true);
            lines(8, 8);
        }
        EXPECT_EQ(lineOf(log.next()), lost(4));
        expectLines(log, 8, 8);
    });
}

TEST(FrameLines, AreWrittenWhenAnExceptionEndsTheFrame) {
    inOwnProcess([] {
        LogDaemon log;
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
    inOwnProcess([] {
        LogDaemon log;
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
