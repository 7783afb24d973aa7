// SPDX-License-Identifier: MIT
// The two sinks by themselves, given a text as a logger's destructor gives it.
#include <gtest/gtest.h>

#include <sstream>

#include "QVLog.h"
#include "captured_log.h"
#include "fake_platform.h"

namespace {

class Policies : public testing::Test {
 protected:
    void SetUp() override { fake::resetPlatform(); }
};

TEST_F(Policies, FileWritesTheTextAndCrLfWhateverChannelAndReserved) {
    const CapturedLog log(qv::ERROR);
    std::ostringstream os;
    os << "text";
    qv::Output2FilePolicy::output(4294967295U, os, -1);
    EXPECT_EQ(log.text(), "text\r\n");
}

TEST_F(Policies, FileAsksNoThreshold) {
    const CapturedLog log(-1);
    std::ostringstream os;
    os << "text";
    qv::Output2FilePolicy::output(0, os, 0);
    EXPECT_EQ(log.text(), "text\r\n");
}

TEST_F(Policies, FileAppendsCrLfToTheBufferAlsoWhereThereIsNoStream) {
    const CapturedLog log(qv::ERROR);
    FILE* const stream = qv::stream();
    qv::stream() = nullptr;
    std::ostringstream os;
    os << "text";
    qv::Output2FilePolicy::output(0, os, 0);
    qv::stream() = stream;
    EXPECT_EQ(os.str(), "text\r\n");
    EXPECT_EQ(log.text(), "");
}

TEST_F(Policies, DebugProcessHandsOverTheTextAsItStandsWhateverReserved) {
    std::ostringstream os;
    os << "text\n";
    qv::Output2DebugProcessPolicy::output(5, os, -1);
    EXPECT_EQ(fake::platform().debugLines, std::vector<fake::DebugLine>({{5, "%s", "text\n"}}));
}

TEST_F(Policies, DebugProcessHandsOverAnEmptyTextToo) {
    std::ostringstream os;
    qv::Output2DebugProcessPolicy::output(0, os, 0);
    EXPECT_EQ(fake::platform().debugLines, std::vector<fake::DebugLine>({{0, "%s", ""}}));
}

}  // namespace
