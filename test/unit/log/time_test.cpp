// SPDX-License-Identifier: MIT
// The time stamp: the clock's time, cut to tenths of a second.
#include <gtest/gtest.h>

#include <stdexcept>

#include "QVLog.h"
#include "captured_log.h"
#include "fake_syscalls.h"

namespace {

class NowTime : public testing::Test {
 protected:
    void SetUp() override { fake::resetClock(); }
};

TEST_F(NowTime, Is14_03_07_2At245Milliseconds) {
    fake::clock() = {.hour = 14, .minute = 3, .second = 7, .microseconds = 245000};
    EXPECT_EQ(qv::nowTime(), "14:03:07.2");
}

TEST_F(NowTime, ShowsTheTenthAsZeroFiveMillisecondsAfterAFullSecond) {
    fake::clock().microseconds = 5000;
    EXPECT_EQ(qv::nowTime(), "14:03:07.0");
}

TEST_F(NowTime, CutsAndDoesNotRound) {
    fake::clock().microseconds = 999999;
    EXPECT_EQ(qv::nowTime(), "14:03:07.9");
}

TEST_F(NowTime, DividesMicrosecondsByAThousandFirst) {
    fake::clock().microseconds = 99999;
    EXPECT_EQ(qv::nowTime(), "14:03:07.0");
    fake::clock().microseconds = 100000;
    EXPECT_EQ(qv::nowTime(), "14:03:07.1");
}

TEST_F(NowTime, WritesTwentyFourHoursInTwoDigits) {
    fake::clock() = {.hour = 0, .minute = 0, .second = 0, .microseconds = 0};
    EXPECT_EQ(qv::nowTime(), "00:00:00.0");
    fake::clock() = {.hour = 23, .minute = 59, .second = 60, .microseconds = 500000};
    EXPECT_EQ(qv::nowTime(), "23:59:60.5");
}

TEST_F(NowTime, ThrowsWhereTheTimeCannotBeConverted) {
    fake::clock().localtimeFails = true;
    try {
        qv::nowTime();
        FAIL() << "nothing thrown";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Could not get local time");
    }
}

TEST_F(NowTime, ThatThrowsPassesOutOfTheStatementWhichWritesABareLineEnd) {
    fake::clock().localtimeFails = true;
    const CapturedLog log(qv::ERROR);
    EXPECT_THROW(QV_LOG(ERROR, 1) << "never inserted", std::runtime_error);
    EXPECT_EQ(log.text(), "\r\n");
}

}  // namespace
