// SPDX-License-Identifier: MIT
// What error a message of libnftables stands for.
#include "nft_connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

using pmtud_linux::errorOfMessage;

TEST(NftMessage, EndsWithTheKernelsError) {
    EXPECT_EQ(errorOfMessage("internal:0:0-0: Error: Could not process rule: "
                             "Operation not permitted\n"),
              EPERM);
    EXPECT_EQ(errorOfMessage("Error: Could not process rule: File exists\n"), EEXIST);
    EXPECT_EQ(errorOfMessage("Error: Could not process rule: Operation not supported\n"),
              EOPNOTSUPP);
    EXPECT_EQ(errorOfMessage("netlink: Error: cache initialization failed: "
                             "Operation not permitted\n"),
              EPERM);
}

TEST(NftMessage, IsJudgedByItsFirstLine) {
    EXPECT_EQ(errorOfMessage("Error: Could not process rule: Device or resource busy\n"
                             "delete chain inet pmtud x\n"
                             "Error: Could not process rule: No such file or directory\n"),
              EBUSY);
}

TEST(NftMessage, OfARefusedCommandIsAnInvalidArgument) {
    EXPECT_EQ(errorOfMessage("Error: syntax error, unexpected newline\n"), EINVAL);
    EXPECT_EQ(errorOfMessage("Error: datatype mismatch, map expects network interface name\n"),
              EINVAL);
    EXPECT_EQ(errorOfMessage(""), EINVAL);
}

TEST(NftConnection, RefusesCommandsThatItCannotReadAndSaysWhy) {
    pmtud_linux::NftConnection connection;
    ASSERT_EQ(connection.open(), 0);
    EXPECT_EQ(connection.run("add nonsense\n"), -EINVAL);
    EXPECT_THAT(connection.problem(), testing::StartsWith("Error: syntax error"));
    EXPECT_THAT(connection.problem(), testing::Not(testing::HasSubstr("\n")));
}
