// SPDX-License-Identifier: MIT
// Every post action with every answer of a handler, and with none.
#include <limits>

#include "exhaustive.h"

namespace {

using engine_test::Bytes;
using engine_test::Lines;
using engine_test::logAt;
using exhaustive::CountingHandler;

const char* const kUnhandled =
    "14:03:07.2 DEBUG: [SHM_Wrapper:49 | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] "
    "Discarding packet\r\n";

struct Action {
    const char* name;
    int32_t value;
    int code;
    const char* line;
};

class EveryAction : public testing::TestWithParam<Action> {
 protected:
    EveryAction() { adapter.setPostAction(static_cast<SHM_Wrapper::eActions>(GetParam().value)); }

    int verdict() { return adapter.handleFrame(frame.data(), frame.size()); }
    /// What one frame has logged behind the header's dump; its verdict stays in `lastVerdict`.
    Lines verdictLog() {
        Lines lines = logAt(4, [this] { lastVerdict = verdict(); });
        if (!lines.empty()) lines.erase(lines.begin());
        return lines;
    }

    engine_test::FreshFakes fakes;
    CountingHandler accepting{true};
    CountingHandler refusing{false};
    SHM_Wrapper_App adapter;
    Bytes frame = engine_test::frameOfType(0x0800);
    int lastVerdict = 0;
};

TEST_P(EveryAction, AppliesToAFrameThatTheHandlerAccepts) {
    adapter.setHandler(&accepting);
    EXPECT_EQ(verdictLog(), Lines({GetParam().line}));
    EXPECT_EQ(lastVerdict, GetParam().code);
}

TEST_P(EveryAction, AppliesToLaterFramesAsWell) {
    adapter.setHandler(&accepting);
    verdict();
    EXPECT_EQ(verdict(), GetParam().code);
}

TEST_P(EveryAction, IsPassedOverForAFrameThatTheHandlerRefuses) {
    adapter.setHandler(&refusing);
    EXPECT_EQ(verdictLog(), Lines({kUnhandled}));
    EXPECT_EQ(lastVerdict, 7);
}

TEST_P(EveryAction, IsPassedOverWithoutAHandler) {
    EXPECT_EQ(verdictLog(), Lines({kUnhandled}));
    EXPECT_EQ(lastVerdict, 7);
}

TEST_P(EveryAction, IsPassedOverForAFrameWithoutATag) {
    adapter.setHandler(&accepting);
    frame[12] = 0x08;
    EXPECT_EQ(verdictLog(),
              Lines({"14:03:07.2 WARNING: [SHM_Wrapper:40 | int SHM_Wrapper::handleFrame(uint8_t*, "
                     "size_t)] Warning! Invalid tpid 2048 [0x800]\r\n"}));
    EXPECT_EQ(lastVerdict, 7);
}

TEST_P(EveryAction, OutlivesFramesThatItDidNotApplyTo) {
    adapter.setHandler(&refusing);
    verdict();
    adapter.setHandler(nullptr);
    verdict();
    adapter.setHandler(&accepting);
    EXPECT_EQ(verdict(), GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(
    Stored, EveryAction,
    testing::Values(
        Action{"Discard", 0, 7,
               "14:03:07.2 DEBUG: [SHM_Wrapper:57 | int SHM_Wrapper::handleFrame(uint8_t*, "
               "size_t)] Discarding packet\r\n"},
        Action{"Accept", 1, 8,
               "14:03:07.2 DEBUG1: [SHM_Wrapper:54 | int SHM_Wrapper::handleFrame(uint8_t*, "
               "size_t)] Accepting packet\r\n"},
        Action{"Repost", 2, 9,
               "14:03:07.2 DEBUG: [SHM_Wrapper:60 | int SHM_Wrapper::handleFrame(uint8_t*, "
               "size_t)] Reposting packet\r\n"},
        Action{"Invalid3", 3, 1,
               "14:03:07.2 DEBUG: [SHM_Wrapper:63 | int SHM_Wrapper::handleFrame(uint8_t*, "
               "size_t)] Error! Invalid post action code 3\r\n"},
        Action{"InvalidMinus1", -1, 1,
               "14:03:07.2 DEBUG: [SHM_Wrapper:63 | int SHM_Wrapper::handleFrame(uint8_t*, "
               "size_t)] Error! Invalid post action code -1\r\n"},
        Action{"Invalid256", 256, 1,
               "14:03:07.2 DEBUG: [SHM_Wrapper:63 | int SHM_Wrapper::handleFrame(uint8_t*, "
               "size_t)] Error! Invalid post action code 256\r\n"},
        Action{"Invalid65537", 65537, 1,
               "14:03:07.2 DEBUG: [SHM_Wrapper:63 | int SHM_Wrapper::handleFrame(uint8_t*, "
               "size_t)] Error! Invalid post action code 65537\r\n"},
        Action{"InvalidLargest", std::numeric_limits<int32_t>::max(), 1,
               "14:03:07.2 DEBUG: [SHM_Wrapper:63 | int SHM_Wrapper::handleFrame(uint8_t*, "
               "size_t)] Error! Invalid post action code 2147483647\r\n"},
        Action{"InvalidSmallest", std::numeric_limits<int32_t>::min(), 1,
               "14:03:07.2 DEBUG: [SHM_Wrapper:63 | int SHM_Wrapper::handleFrame(uint8_t*, "
               "size_t)] Error! Invalid post action code -2147483648\r\n"}),
    [](const auto& row) { return row.param.name; });

TEST(EveryActionCode, IsTheLibrarysForThreeActionsAndOneForTheRest) {
    SHM_Wrapper_App adapter;
    for (int32_t action = -70000; action <= 70000; ++action) {
        const int code = adapter.queueActionCode(static_cast<SHM_Wrapper::eActions>(action));
        const bool isAction = action >= 0 && action <= 2;
        ASSERT_EQ(code, isAction ? action + 7 : 1) << "action " << action;
    }
}

}  // namespace
