// SPDX-License-Identifier: MIT
// Tests of the attachment to the queues, and of the adapter's life in the process.
#include <limits>
#include <type_traits>

#include "shm_test.h"

namespace {

using shm_test::fields;
using shm_test::Lines;
using shm_test::logAt;

const std::string kInitializing =
    "14:03:07.2 DEBUG: [SHM_Wrapper:135 | virtual bool SHM_Wrapper_App::init()] initializing\r\n";
const std::string kQueueInitCall =
    "pktd_shm_queue_init(\"pmtud\", 0, 1, pktd_tx_queue_pool, pktd_rx_queue_pool)";
const std::string kThreadInitCall =
    "pktd_shm_rx_thread_init(\"pmtud\", pktd_rx_queue_pool, pktd_rx_wl_pool, 32, 32, callback, 0)";

// Taken before any test can have touched the process's adapter.
const std::array<int32_t, 6> kOriginOnFirstUse = fields(getShmWrapperApp()->frameInfo());

class OpenAdapter : public SHM_Wrapper_App {
 public:
    using SHM_Wrapper::m_initialised;
};

class AttachmentTest : public shm_test::ShmTest {
 protected:
    OpenAdapter adapter;
};

TEST_F(AttachmentTest, AttachesTheQueuesThenStartsTheThread) {
    EXPECT_TRUE(adapter.init());
    EXPECT_EQ(fake::platform().calls, (Lines{kQueueInitCall, kThreadInitCall}));
}

TEST_F(AttachmentTest, GivesTheThreadTheReceiveCallback) {
    adapter.init();
    EXPECT_EQ(fake::platform().callback, &SHM_Wrapper_App::pkt_rx_cb);
}

TEST_F(AttachmentTest, SetsTheInitialisedFlag) {
    EXPECT_FALSE(adapter.m_initialised);
    adapter.init();
    EXPECT_TRUE(adapter.m_initialised);
}

TEST_F(AttachmentTest, SetsTheInitialisedFlagOnlyAfterTheThreadHasStarted) {
    bool flagDuringQueueInit = true;
    bool flagDuringThreadInit = true;
    fake::platform().queueInit = [&] {
        flagDuringQueueInit = adapter.m_initialised;
        return 0;
    };
    fake::platform().rxThreadInit = [&] {
        flagDuringThreadInit = adapter.m_initialised;
        return 0;
    };
    adapter.init();
    EXPECT_FALSE(flagDuringQueueInit);
    EXPECT_FALSE(flagDuringThreadInit);
}

TEST_F(AttachmentTest, LogsInitializingOnceAtDebug) {
    EXPECT_EQ(logAt(qv::DEBUG4, [this] { adapter.init(); }), Lines{kInitializing});
    EXPECT_EQ(logAt(qv::DEBUG, [this] { adapter.init(); }), Lines{kInitializing});
}

TEST_F(AttachmentTest, IsSilentAtInfo) {
    EXPECT_EQ(logAt(qv::INFO, [this] { adapter.init(); }), Lines{});
}

TEST_F(AttachmentTest, LogsInitializingBeforeItTouchesTheLibrary) {
    const CapturedLog log(qv::DEBUG);
    Lines loggedBefore;
    fake::platform().queueInit = [&] {
        loggedBefore = linesOf(log.text());
        return 0;
    };
    adapter.init();
    EXPECT_EQ(loggedBefore, Lines{kInitializing});
}

TEST_F(AttachmentTest, LeavesThePoolsUntouched) {
    const auto poolsAreZero = [] {
        for (const uint8_t* pool : {pktd_tx_queue_pool, pktd_rx_queue_pool, pktd_rx_wl_pool}) {
            for (std::size_t i = 0; i < 25980; ++i) {
                if (pool[i] != 0) return false;
            }
        }
        return true;
    };
    ASSERT_TRUE(poolsAreZero());
    adapter.init();
    EXPECT_TRUE(poolsAreZero());
}

TEST(QueuePoolTest, Is25980BytesEach) {
    EXPECT_EQ(sizeof pktd_tx_queue_pool, 25980U);
    EXPECT_EQ(sizeof pktd_rx_queue_pool, 25980U);
    EXPECT_EQ(sizeof pktd_rx_wl_pool, 25980U);
}

struct Failure {
    const char* name;
    int result;
    const char* line;
};

class QueueFailureTest : public AttachmentTest, public testing::WithParamInterface<Failure> {
 protected:
    QueueFailureTest() {
        fake::platform().queueInit = [] { return GetParam().result; };
    }
};

TEST_P(QueueFailureTest, IsLoggedAsAnErrorWithItsNumber) {
    EXPECT_EQ(logAt(qv::ERROR, [this] { EXPECT_FALSE(adapter.init()); }), Lines{GetParam().line});
}

TEST_P(QueueFailureTest, KeepsTheThreadFromBeingStarted) {
    const CapturedLog log(qv::ERROR);
    EXPECT_FALSE(adapter.init());
    EXPECT_EQ(fake::platform().calls, Lines{kQueueInitCall});
    EXPECT_FALSE(adapter.m_initialised);
}

INSTANTIATE_TEST_SUITE_P(
    Results, QueueFailureTest,
    testing::Values(Failure{"PositiveOne", 1,
                            "14:03:07.2 ERROR: [SHM_Wrapper:140 | virtual bool "
                            "SHM_Wrapper_App::init()] Could not initialize SHM queue, ret=1\r\n"},
                    Failure{"MinusOne", -1,
                            "14:03:07.2 ERROR: [SHM_Wrapper:140 | virtual bool "
                            "SHM_Wrapper_App::init()] Could not initialize SHM queue, ret=-1\r\n"},
                    Failure{"TheSmallest", std::numeric_limits<int>::min(),
                            "14:03:07.2 ERROR: [SHM_Wrapper:140 | virtual bool "
                            "SHM_Wrapper_App::init()] Could not initialize SHM queue, "
                            "ret=-2147483648\r\n"}),
    [](const auto& row) { return row.param.name; });

class ThreadFailureTest : public AttachmentTest, public testing::WithParamInterface<Failure> {
 protected:
    ThreadFailureTest() {
        fake::platform().rxThreadInit = [] { return GetParam().result; };
    }
};

TEST_P(ThreadFailureTest, IsLoggedAsAnErrorWithItsNumber) {
    EXPECT_EQ(logAt(qv::ERROR, [this] { EXPECT_FALSE(adapter.init()); }), Lines{GetParam().line});
}

TEST_P(ThreadFailureTest, LeavesTheQueueAttachedAndRetriesNothing) {
    const CapturedLog log(qv::ERROR);
    EXPECT_FALSE(adapter.init());
    EXPECT_EQ(fake::platform().calls, (Lines{kQueueInitCall, kThreadInitCall}));
    EXPECT_FALSE(adapter.m_initialised);
}

INSTANTIATE_TEST_SUITE_P(
    Results, ThreadFailureTest,
    testing::Values(Failure{"PositiveOne", 1,
                            "14:03:07.2 ERROR: [SHM_Wrapper:145 | virtual bool "
                            "SHM_Wrapper_App::init()] Could not initialize SHM thread, ret=1\r\n"},
                    Failure{"MinusTwelve", -12,
                            "14:03:07.2 ERROR: [SHM_Wrapper:145 | virtual bool "
                            "SHM_Wrapper_App::init()] Could not initialize SHM thread, "
                            "ret=-12\r\n"},
                    Failure{"TheLargest", std::numeric_limits<int>::max(),
                            "14:03:07.2 ERROR: [SHM_Wrapper:145 | virtual bool "
                            "SHM_Wrapper_App::init()] Could not initialize SHM thread, "
                            "ret=2147483647\r\n"}),
    [](const auto& row) { return row.param.name; });

TEST_F(AttachmentTest, IsNotUndoneWhenTheAdapterIsDestroyed) {
    {
        SHM_Wrapper_App mortal;
        mortal.init();
    }
    EXPECT_EQ(fake::platform().calls, (Lines{kQueueInitCall, kThreadInitCall}));
}

TEST_F(AttachmentTest, IsNotDoneByTheConstructor) {
    EXPECT_EQ(fake::platform().calls, Lines{});
    EXPECT_EQ(fields(adapter.frameInfo()), (std::array<int32_t, 6>{-1, -1, -1, -1, -1, -1}));
}

TEST_F(AttachmentTest, IsReachedThroughTheBaseClass) {
    SHM_Wrapper& base = adapter;
    EXPECT_TRUE(base.init());
    EXPECT_EQ(fake::platform().calls, (Lines{kQueueInitCall, kThreadInitCall}));
}

TEST(AdapterTest, IsThePublicChildOfTheBaseAndAddsNoData) {
    EXPECT_TRUE((std::is_convertible_v<SHM_Wrapper_App*, SHM_Wrapper*>));
    EXPECT_EQ(sizeof(SHM_Wrapper_App), sizeof(SHM_Wrapper));
}

TEST(AdapterTest, IsOneForTheProcess) {
    SHM_Wrapper_App* const first = getShmWrapperApp();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(getShmWrapperApp(), first);
}

TEST(AdapterTest, HasNoOriginOnFirstUse) {
    EXPECT_EQ(kOriginOnFirstUse, (std::array<int32_t, 6>{-1, -1, -1, -1, -1, -1}));
}

}  // namespace
