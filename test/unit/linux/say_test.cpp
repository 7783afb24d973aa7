// SPDX-License-Identifier: MIT
// When a burst of events is said.
#include "burst.h"

#include <gtest/gtest.h>

#include <chrono>

using namespace std::chrono_literals;
using pmtud_linux::Burst;

namespace {
constexpr Burst::Clock::time_point kStart{1000s};
}

TEST(Burst, OfNothingIsNotSaid) {
    Burst burst;
    EXPECT_FALSE(burst.pending());
    EXPECT_EQ(burst.due(true, kStart), 0U);
}

TEST(Burst, IsSaidOnceWhenItIsOver) {
    Burst burst;
    EXPECT_EQ(burst.due(true, kStart), 0U);
    burst.count(3);
    burst.count(4);
    EXPECT_TRUE(burst.pending());
    EXPECT_EQ(burst.due(true, kStart), 7U);
    EXPECT_FALSE(burst.pending());
    EXPECT_EQ(burst.due(true, kStart), 0U);
}

TEST(Burst, ThatLastsIsSaidOnceASecond) {
    Burst burst;
    burst.count(1);
    EXPECT_EQ(burst.due(false, kStart), 1U);
    burst.count(5);
    EXPECT_EQ(burst.due(false, kStart + 999ms), 0U);
    burst.count(2);
    EXPECT_EQ(burst.due(false, kStart + 1000ms), 7U);
}

TEST(Burst, ThatEndsBeforeTheSecondIsSaidAtItsEnd) {
    Burst burst;
    burst.count(1);
    EXPECT_EQ(burst.due(false, kStart), 1U);
    burst.count(5);
    EXPECT_EQ(burst.due(true, kStart + 1ms), 5U);
}
