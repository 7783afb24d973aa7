// SPDX-License-Identifier: MIT
// The debug-process channel: the text as it stands, and never gated.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "QVLog.h"
#include "fake_platform.h"

namespace {

using fake::DebugLine;

class DebugProcessChannel : public testing::Test {
 protected:
    void SetUp() override { fake::resetPlatform(); }

    const std::vector<DebugLine>& lines() const { return fake::platform().debugLines; }
};

TEST_F(DebugProcessChannel, HandsOverBlankNameColonBlankAndMessageAsDataOfThePlainFormat) {
    qv::QVDebugProcLog().get(89, "PMTUD-Prot") << "OK";
    EXPECT_EQ(lines(), std::vector<DebugLine>({{89, "%s", " PMTUD-Prot: OK"}}));
}

TEST_F(DebugProcessChannel, TakesTheNameAsAStringAsWell) {
    qv::QVDebugProcLog().get(4294967295U, std::string("name")) << 1;
    EXPECT_EQ(lines(), std::vector<DebugLine>({{4294967295U, "%s", " name: 1"}}));
}

TEST_F(DebugProcessChannel, HandsOverAConversionInAMessageUnchanged) {
    qv::QVDebugProcLog().get(89, "PMTUD-Prot") << "%s %n %%";
    EXPECT_EQ(lines(), std::vector<DebugLine>({{89, "%s", " PMTUD-Prot: %s %n %%"}}));
}

TEST_F(DebugProcessChannel, WritesThePrefixAloneForAnEmptyMessage) {
    qv::QVDebugProcLog().get(89, "PMTUD-Prot") << "";
    EXPECT_EQ(lines(), std::vector<DebugLine>({{89, "%s", " PMTUD-Prot: "}}));
}

TEST_F(DebugProcessChannel, HandsOverChannel0AndNothingWhereGetWasNotCalled) {
    { const qv::QVDebugProcLog logger; }
    EXPECT_EQ(lines(), std::vector<DebugLine>({{0, "%s", ""}}));
}

TEST_F(DebugProcessChannel, AsksNeitherThresholdNorStream) {
    FILE* const stream = qv::stream();
    qv::stream() = nullptr;
    qv::reportingLevel() = -1;
    qv::QVDebugProcLog().get(89, "PMTUD-Prot") << "written";
    qv::stream() = stream;
    qv::reportingLevel() = qv::WARNING;
    EXPECT_EQ(lines(), std::vector<DebugLine>({{89, "%s", " PMTUD-Prot: written"}}));
}

int throwing() { throw std::runtime_error("converted in vain"); }

TEST_F(DebugProcessChannel, StatementThatAnExceptionInterruptsHandsOverWhatItHas) {
    EXPECT_THROW(qv::QVDebugProcLog().get(89, "PMTUD-Prot") << "   From: " << throwing(),
                 std::runtime_error);
    EXPECT_EQ(lines(), std::vector<DebugLine>({{89, "%s", " PMTUD-Prot:    From: "}}));
}

TEST_F(DebugProcessChannel, NameAsAStringIsItsCharacterData) {
    qv::QVDebugProcLog().get(1, std::string("na\0me", 5)) << "text";
    EXPECT_EQ(lines(), std::vector<DebugLine>({{1, "%s", " na: text"}}));
}

TEST_F(DebugProcessChannel, HandsTheLineOverAtTheEndOfItsStatement) {
    {
        qv::QVDebugProcLog logger;
        logger.get(89, "n") << "text";
        EXPECT_TRUE(lines().empty());
    }
    EXPECT_EQ(lines(), std::vector<DebugLine>({{89, "%s", " n: text"}}));
}

TEST_F(DebugProcessChannel, ShortLineBehindALongOneShowsNothingOfIt) {
    qv::QVDebugProcLog().get(89, "n") << std::string(10000, 'x');
    qv::QVDebugProcLog().get(89, "n") << std::string(100, 'y');
    qv::QVDebugProcLog().get(89, "n") << "z";
    EXPECT_EQ(lines().at(1).text, " n: " + std::string(100, 'y'));
    EXPECT_EQ(lines().at(2).text, " n: z");
}

TEST_F(DebugProcessChannel, EveryExecutionIsALine) {
    for (int i = 0; i < 3; ++i) qv::QVDebugProcLog().get(89, "n") << i;
    EXPECT_EQ(lines(), std::vector<DebugLine>(
                           {{89, "%s", " n: 0"}, {89, "%s", " n: 1"}, {89, "%s", " n: 2"}}));
}

}  // namespace
