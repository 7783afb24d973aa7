// SPDX-License-Identifier: MIT
// How often something is logged: bursts of events, losses of answers, frames.
#include <gtest/gtest.h>

#include "answer_news.h"
#include "burst.h"
#include "line_budget.h"

using namespace std::chrono_literals;
using pmtud_linux::AnswerNews;
using pmtud_linux::Burst;
using pmtud_linux::LineBudget;

namespace {

constexpr std::chrono::steady_clock::time_point kStart{1000s};

int taken(LineBudget& budget, LineBudget::Clock::time_point now) {
    int count = 0;
    while (count < 1000 && budget.take(now)) ++count;
    return count;
}

}  // namespace

TEST(Burst, IsLoggedOnceWhenItIsOver) {
    Burst burst;
    EXPECT_FALSE(burst.pending());
    EXPECT_EQ(burst.due(true, kStart), 0U);
    burst.count(3);
    burst.count(4);
    EXPECT_TRUE(burst.pending());
    EXPECT_EQ(burst.due(true, kStart), 7U);
    EXPECT_FALSE(burst.pending());
    EXPECT_EQ(burst.due(true, kStart), 0U);
}

TEST(Burst, ThatLastsIsLoggedOncePerSecondAndAtItsEnd) {
    Burst burst;
    burst.count(1);
    EXPECT_EQ(burst.due(false, kStart), 1U);
    burst.count(5);
    EXPECT_EQ(burst.due(false, kStart + 999ms), 0U);
    burst.count(2);
    EXPECT_EQ(burst.due(false, kStart + 1000ms), 7U);
    burst.count(5);
    EXPECT_EQ(burst.due(true, kStart + 1001ms), 5U);
}

// A stateful policy lets the answers about known flows pass and drops the others.
TEST(AnswersThatDoNotLeave, AreLoggedOnceAndLeaveAgainIfNoneIsLostFor30Seconds) {
    AnswerNews news;
    EXPECT_FALSE(news.left(7, kStart));
    EXPECT_TRUE(news.lost(7, kStart));
    EXPECT_FALSE(news.left(7, kStart + 29999ms));
    EXPECT_FALSE(news.lost(7, kStart + 30s));
    EXPECT_FALSE(news.left(7, kStart + 59999ms));
    EXPECT_TRUE(news.left(7, kStart + 60s));
    EXPECT_FALSE(news.left(7, kStart + 61s));
    EXPECT_TRUE(news.lost(7, kStart + 62s));
}

TEST(AnswersThatDoNotLeave, AreLoggedForEachInterfaceSeparately) {
    AnswerNews news;
    EXPECT_TRUE(news.lost(7, kStart));
    EXPECT_FALSE(news.left(8, kStart + 30s));
    EXPECT_TRUE(news.lost(8, kStart + 30s));
    EXPECT_TRUE(news.left(7, kStart + 30s));
}

// Also right after the machine has started: its clock starts at zero.
TEST(LineBudget, AllowsABurstOfAHundredFramesAtFirst) {
    for (const auto now : {kStart, LineBudget::Clock::time_point{}}) {
        LineBudget budget;
        EXPECT_EQ(taken(budget, now), 100);
    }
}

TEST(LineBudget, GrowsByTwentyFramesPerSecondUpToTheBurst) {
    LineBudget budget;
    taken(budget, kStart);
    EXPECT_EQ(taken(budget, kStart + 49ms), 0);
    EXPECT_EQ(taken(budget, kStart + 50ms), 1);
    EXPECT_EQ(taken(budget, kStart + 99ms), 0);
    EXPECT_EQ(taken(budget, kStart + 100ms), 1);
    EXPECT_EQ(taken(budget, kStart + 1100ms), 20);
    EXPECT_EQ(taken(budget, kStart + 4100ms), 60);
    EXPECT_EQ(taken(budget, kStart + 1h), 100);
    EXPECT_EQ(taken(budget, kStart + 1h), 0);
}

TEST(LineBudget, HoldsInALongFlood) {
    LineBudget budget;
    int logged = 0;
    for (int millisecond = 0; millisecond < 60000; ++millisecond)
        for (int frame = 0; frame < 3; ++frame)
            logged += budget.take(kStart + millisecond * 1ms) ? 1 : 0;
    EXPECT_EQ(logged, 100 + 20 * 60 - 1);
}

TEST(LineBudget, IsNotExceededWhenTheClockJumps) {
    constexpr auto kLater = kStart + 24h * 365 * 100;
    LineBudget budget;
    EXPECT_EQ(taken(budget, kStart), 100);
    EXPECT_EQ(taken(budget, kLater), 100);
    EXPECT_EQ(taken(budget, kStart), 0);
    EXPECT_EQ(taken(budget, kLater), 0);
    EXPECT_EQ(taken(budget, kLater + 50ms), 1);
}
