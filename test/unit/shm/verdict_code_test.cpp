// SPDX-License-Identifier: MIT
// Tests of the values that the queue library and the application share: actions and codes.
#include <cstdint>
#include <limits>
#include <type_traits>

#include "pktd.h"
#include "shm_test.h"

namespace {

TEST(EActionsTest, DiscardIs0) { EXPECT_EQ(int32_t{SHM_Wrapper::eDiscard}, 0); }

TEST(EActionsTest, AcceptIs1) { EXPECT_EQ(int32_t{SHM_Wrapper::eAccept}, 1); }

TEST(EActionsTest, RepostIs2) { EXPECT_EQ(int32_t{SHM_Wrapper::eRepost}, 2); }

TEST(EActionsTest, AreHeldInASigned32BitInteger) {
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<SHM_Wrapper::eActions>, int32_t>));
}

TEST(PktdVerdictTest, IsWhatTheQueueLibraryExpects) {
    EXPECT_EQ(int{PKTD_VERDICT_DISCARD}, 7);
    EXPECT_EQ(int{PKTD_VERDICT_ACCEPT}, 8);
    EXPECT_EQ(int{PKTD_VERDICT_REPOST}, 9);
    EXPECT_EQ(int{PKTD_VERDICT_INVALID}, 1);
}

struct ActionCode {
    const char* name;
    int32_t action;
    int code;
};

class QueueActionCodeTest : public testing::TestWithParam<ActionCode> {};

TEST_P(QueueActionCodeTest, IsTheLibrarysCodeForTheAction) {
    SHM_Wrapper_App adapter;
    const auto action = static_cast<SHM_Wrapper::eActions>(GetParam().action);
    EXPECT_EQ(adapter.queueActionCode(action), GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(
    Actions, QueueActionCodeTest,
    testing::Values(ActionCode{"DiscardIs7", 0, 7}, ActionCode{"AcceptIs8", 1, 8},
                    ActionCode{"RepostIs9", 2, 9}, ActionCode{"Action3IsInvalid", 3, 1},
                    ActionCode{"Action5IsInvalid", 5, 1}, ActionCode{"Action7IsInvalid", 7, 1},
                    ActionCode{"Action8IsInvalid", 8, 1}, ActionCode{"Action9IsInvalid", 9, 1},
                    ActionCode{"MinusOneIsInvalid", -1, 1},
                    ActionCode{"Action256IsInvalid", 256, 1},
                    ActionCode{"TheLargestIsInvalid", std::numeric_limits<int32_t>::max(), 1},
                    ActionCode{"TheSmallestIsInvalid", std::numeric_limits<int32_t>::min(), 1}),
    [](const auto& row) { return row.param.name; });

TEST(QueueActionCodeOrderTest, StandsBehindDestructorAndInitInTheVirtualTable) {
    // By the Itanium C++ ABI a virtual destructor takes two slots, and a pointer to a virtual
    // function is 1 plus the slot's offset in bytes.
    const auto init = &SHM_Wrapper::init;
    const auto code = &SHM_Wrapper::queueActionCode;
    std::ptrdiff_t offset = 0;
    memcpy(&offset, &init, sizeof offset);
    EXPECT_EQ(offset, static_cast<std::ptrdiff_t>(2 * sizeof(void*) + 1));
    memcpy(&offset, &code, sizeof offset);
    EXPECT_EQ(offset, static_cast<std::ptrdiff_t>(3 * sizeof(void*) + 1));
}

}  // namespace
