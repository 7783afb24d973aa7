// SPDX-License-Identifier: MIT
// The platform's own lines: their priorities, and what a line leaves alone.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>

#include "debug_process.h"
#include "log_daemon.h"
#include "say.h"
#include "world.h"

using pmtud_linux::Priority;
using pmtud_linux::say;

TEST(PlatformLine, HasItsPriority) {
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

TEST(PlatformLine, ThatNoLogTakesIsReportedToTheCaller) {
    inOwnProcess([] { EXPECT_FALSE(say(Priority::kError, "what happened")); });
}

TEST(SystemLog, CountsALineThatCannotBeFormatted) {
    inOwnProcess([] {
        LogDaemon log;
        EXPECT_EQ(debug_process(89, "%ls", L"\u2260"), -EINVAL);
        EXPECT_FALSE(log.poll());
        EXPECT_EQ(debug_process(89, " %s", "next"), 0);
        const std::string lost = log.next();
        EXPECT_EQ(lineOf(lost), "89 PMTUD-Linux: 1 lines lost");
        EXPECT_EQ(priorityOf(lost), "<28>");
        EXPECT_EQ(lineOf(log.next()), "89 next");
    });
}

// The socket is opened when it is first needed; until then no descriptor is the log's.
TEST(SystemLog, LeavesTheProcessesDescriptorsAlone) {
    inOwnProcess([] {
        constexpr int kCount = 16;
        std::array<struct stat, kCount> before{};
        for (int fd = 0; fd < kCount; ++fd) {
            const int file = open("/dev", O_TMPFILE | O_RDWR, 0600);
            ASSERT_GE(file, 0);
            // Standard output is the test's own way to report; it is put back below.
            if (fd == 1) dup2(1, 100);
            if (fd == 2) dup2(2, 101);
            if (file != fd) {
                ASSERT_EQ(dup2(file, fd), fd);
                if (file >= kCount) close(file);
            }
        }
        for (int fd = 0; fd < kCount; ++fd) fstat(fd, &before[static_cast<size_t>(fd)]);
        LogDaemon log;
        const int result = debug_process(89, " first");
        std::array<bool, kCount> same{};
        for (int fd = 0; fd < kCount; ++fd) {
            struct stat after {};
            const auto& file = before[static_cast<size_t>(fd)];
            same[static_cast<size_t>(fd)] = fstat(fd, &after) == 0 && after.st_ino == file.st_ino;
        }
        dup2(100, 1);
        dup2(101, 2);
        EXPECT_EQ(result, 0);
        EXPECT_EQ(lineOf(log.next()), "89 first");
        for (int fd = 0; fd < kCount; ++fd)
            EXPECT_TRUE(same[static_cast<size_t>(fd)]) << "descriptor " << fd;
    });
}
