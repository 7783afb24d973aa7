// SPDX-License-Identifier: MIT
// Lines to the system log: their form, and what becomes of those that it does not accept.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <optional>
#include <thread>

#include "frame_lines.h"
#include "log_lines.h"
#include "say.h"
#include "world.h"

using pmtud_linux::FrameLines;
using pmtud_linux::Priority;
using pmtud_linux::say;

TEST(Line, BearsPriorityLocalTimeProgramProcessAndModule) {
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

TEST(Line, IsWrittenAsItIsUpToItsBound) {
    inOwnProcess([] {
        LogDaemon log;
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
    inOwnProcess([] {
        LogDaemon log;
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
    inOwnProcess([] {
        LogDaemon log;
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
TEST(LostLine, IsReportedOnceTheLogIsThereWhichIsLookedForOnceASecond) {
    inOwnProcess([] {
        EXPECT_EQ(line(" lost"), -ENOENT);
        {
            const FrameLines frame(true);
            lines(1, 2);
        }
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

TEST(SystemLog, ThatWasStartedAgainIsReachedWithoutALoss) {
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
        {
            const FrameLines frame(true);
            lines(3, 4);
        }
        expectLines(*log, 3, 4);
        EXPECT_FALSE(log->poll());
    });
}

TEST(SystemLog, TakesLinesFromAllThreads) {
    inOwnProcess([] {
        LogDaemon log;
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
        constexpr int kCount = 16;
        // Standard output and error are the test's own way to report.
        ASSERT_EQ(dup2(1, 100), 100);
        ASSERT_EQ(dup2(2, 101), 101);
        std::array<ino_t, kCount> before{};
        const auto inode = [](int fd) {
            struct stat file {};
            return fstat(fd, &file) == 0 ? file.st_ino : 0;
        };
        for (int fd = 0; fd < kCount; ++fd) {
            const int file = open("/dev", O_TMPFILE | O_RDWR, 0600);
            if (file != fd) dup2(file, fd);
            if (file >= kCount) close(file);
            before[static_cast<size_t>(fd)] = inode(fd);
        }
        LogDaemon log;
        const int result = debug_process(89, " first");
        std::array<ino_t, kCount> after{};
        for (int fd = 0; fd < kCount; ++fd) after[static_cast<size_t>(fd)] = inode(fd);
        dup2(100, 1);
        dup2(101, 2);
        EXPECT_EQ(result, 0);
        EXPECT_EQ(lineOf(log.next()), "89 first");
        EXPECT_EQ(after, before);
        EXPECT_THAT(before, testing::Each(testing::Ne(0U)));
    });
}
