// SPDX-License-Identifier: MIT
// Lines of the debug process in the system log.
#include "debug_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>
#include <cerrno>
#include <ctime>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "log_daemon.h"
#include "world.h"

using testing::StartsWith;

namespace {

int line(const char* text) { return debug_process(89, "%s", text); }

// Lets the log daemon read until a line that is sent is taken again; the library tries to
// reach a log that was missing once a second.
int lineOnceTaken(const char* text) {
    const auto limit = std::chrono::steady_clock::now() + kPatience;
    int result = line(text);
    while (result != 0 && std::chrono::steady_clock::now() < limit) result = line(text);
    return result;
}

}  // namespace

TEST(DebugProcess, HandsTheLineToTheSystemLogUnderTheDaemonsNameAndModule) {
    inOwnProcess([] {
        LogDaemon log;
        EXPECT_EQ(line(" PMTUD-Prot: Received IPv4 packet len 1418:"), 0);
        EXPECT_EQ(lineOf(log.next()), "89 PMTUD-Prot: Received IPv4 packet len 1418:");
    });
}

TEST(DebugProcess, StampsTheLineWithTheLocalTime) {
    inOwnProcess([] {
        setenv("TZ", "UTC-5:30", 1);
        tzset();
        LogDaemon log;
        const time_t before = time(nullptr);
        line(" x");
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
                               ("linux_kernel_test[" + std::to_string(getpid()) + "]: 89 x"));
        }
        EXPECT_THAT(expected, testing::Contains(datagram));
    });
}

TEST(DebugProcess, FormatsAsPrintfDoes) {
    inOwnProcess([] {
        LogDaemon log;
        EXPECT_EQ(debug_process(7, " %s %d%%", "mtu", 1280), 0);
        EXPECT_EQ(lineOf(log.next()), "7 mtu 1280%");
        EXPECT_EQ(debug_process(89, nullptr), -EINVAL);
    });
}

TEST(DebugProcess, PassesTheTextAsItStands) {
    inOwnProcess([] {
        LogDaemon log;
        line(" tab\tline\nescape\x1b %s %n");
        EXPECT_EQ(lineOf(log.next()), "89 tab\tline\nescape\x1b %s %n");
    });
}

TEST(DebugProcess, CutsALineAtTheBound) {
    inOwnProcess([] {
        LogDaemon log;
        EXPECT_EQ(line((" " + std::string(3000, 'x')).c_str()), 0);
        const std::string datagram = log.next();
        EXPECT_EQ(datagram.size(), 1024U);
        EXPECT_THAT(lineOf(datagram), StartsWith("89 xxxx"));
        EXPECT_EQ(datagram.back(), 'x');
    });
}

TEST(DebugProcess, DropsLinesThatTheLogDoesNotTakeAndSaysHowMany) {
    inOwnProcess([] {
        LogDaemon log;
        int taken = 0;
        while (line(" x") == 0) ++taken;
        EXPECT_GT(taken, 0);
        EXPECT_EQ(line(" y"), -EAGAIN);
        EXPECT_EQ(line(" y"), -EAGAIN);
        for (int i = 0; i < taken; ++i) EXPECT_EQ(lineOf(log.next()), "89 x");
        EXPECT_FALSE(log.poll());

        EXPECT_EQ(line(" z"), 0);
        EXPECT_EQ(lineOf(log.next()), "89 PMTUD-Linux: 3 lines lost");
        EXPECT_EQ(lineOf(log.next()), "89 z");
        EXPECT_EQ(line(" z"), 0);
        EXPECT_EQ(lineOf(log.next()), "89 z");
    });
}

TEST(DebugProcess, FindsALogDaemonThatWasStartedAgain) {
    inOwnProcess([] {
        std::optional<LogDaemon> log(std::in_place);
        EXPECT_EQ(line(" before"), 0);
        EXPECT_EQ(lineOf(log->next()), "89 before");
        log.reset();
        log.emplace();
        EXPECT_EQ(line(" after"), 0);
        EXPECT_EQ(lineOf(log->next()), "89 after");
    });
}

TEST(DebugProcess, LooksForAMissingLogOnceASecond) {
    inOwnProcess([] {
        EXPECT_EQ(line(" lost"), -ENOENT);
        LogDaemon log;
        // There is one now; but it is not looked for yet.
        EXPECT_EQ(line(" lost"), -ENOTCONN);
        EXPECT_FALSE(log.poll());
    });
}

TEST(DebugProcess, FindsALogThatWasMissingAndSaysWhatItMissed) {
    inOwnProcess([] {
        EXPECT_EQ(line(" lost"), -ENOENT);
        LogDaemon log;
        EXPECT_EQ(lineOnceTaken(" taken"), 0);
        EXPECT_THAT(lineOf(log.next()), testing::MatchesRegex("89 PMTUD-Linux: [0-9]+ lines lost"));
        EXPECT_EQ(lineOf(log.next()), "89 taken");
    });
}

TEST(DebugProcess, TakesLinesFromAllThreads) {
    inOwnProcess([] {
        LogDaemon log;
        constexpr int kEach = 200;
        int taken = 0;
        std::vector<std::thread> writers;
        for (int i = 0; i < 4; ++i)
            writers.emplace_back([] {
                for (int n = 0; n < kEach; ++n)
                    while (line(" from a thread") != 0) std::this_thread::yield();
            });
        for (; taken < 4 * kEach;) {
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
