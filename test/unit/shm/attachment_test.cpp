// SPDX-License-Identifier: MIT
// Tests of the attachment to the queues, and of the adapter's lifetime.
#include <algorithm>
#include <type_traits>

#include "shm_test.h"

namespace {

using std::string_literals::operator""s;
using shm_test::Fields;
using shm_test::fields;
using shm_test::Lines;

const std::string kInitializing =
    "14:03:07.2 DEBUG: [SHM_Wrapper:135 | virtual bool SHM_Wrapper_App::init()] initializing\r\n";
const std::string kQueueInit =
    "pktd_shm_queue_init(\"pmtud\", 0, 1, pktd_tx_queue_pool, pktd_rx_queue_pool)";
const std::string kThreadInit =
    "pktd_shm_rx_thread_init(\"pmtud\", pktd_rx_queue_pool, pktd_rx_wl_pool, 32, 32, callback, 0)";

// Read before any test can have touched the process's adapter.
const Fields kOriginOnFirstUse = fields(getShmWrapperApp()->frameInfo());

class OpenAdapter : public SHM_Wrapper_App {
 public:
    using SHM_Wrapper::m_initialised;
};

class AttachmentTest : public daemon_test::FakesTest {
 protected:
    OpenAdapter adapter;
};

TEST_F(AttachmentTest, LogsThenAttachesTheQueuesThenStartsTheThreadOnTheReceiveCallback) {
    SHM_Wrapper& base = adapter;
    fake::Journal journal(qv::DEBUG4);
    EXPECT_TRUE(base.init());
    EXPECT_EQ(journal.entries, (Lines{kInitializing, kQueueInit, kThreadInit}));
    EXPECT_EQ(fake::platform().callback, &SHM_Wrapper_App::pkt_rx_cb);
}

TEST_F(AttachmentTest, SetsTheInitialisedFlagOnlyAfterTheThreadHasStarted) {
    const auto isClear = [this] { EXPECT_FALSE(adapter.m_initialised); };
    isClear();
    fake::on("pktd_shm_queue_init", isClear);
    fake::on("pktd_shm_rx_thread_init", isClear);
    adapter.init();
    EXPECT_TRUE(adapter.m_initialised);
}

TEST_F(AttachmentTest, LeavesThePoolsOf25980BytesEachUntouched) {
    adapter.init();
    for (const auto* pool : {&pktd_tx_queue_pool, &pktd_rx_queue_pool, &pktd_rx_wl_pool}) {
        EXPECT_EQ(sizeof *pool, 25980U);
        EXPECT_TRUE(
            std::all_of(*pool, *pool + sizeof *pool, [](uint8_t byte) { return byte == 0; }));
    }
}

TEST_F(AttachmentTest, IsNeitherMadeByTheConstructorNorUndoneByTheDestructor) {
    { OpenAdapter mortal; }
    EXPECT_EQ(fake::platform().calls, Lines{});
    {
        SHM_Wrapper_App mortal;
        mortal.init();
    }
    EXPECT_EQ(fake::platform().calls, (Lines{kQueueInit, kThreadInit}));
}

// Failures in a row, at the lowest threshold that shows their line, and then a success.

TEST_F(AttachmentTest, LogsThatTheQueueFailedAndDoesNotStartTheThread) {
    for (const auto& [result, text] : shm_test::kFailures) {
        fake::fail("pktd_shm_queue_init", {result});
        fake::Journal journal(qv::ERROR);
        EXPECT_FALSE(adapter.init());
        EXPECT_EQ(journal.entries,
                  (Lines{kQueueInit,
                         "14:03:07.2 ERROR: [SHM_Wrapper:140 | virtual bool "
                         "SHM_Wrapper_App::init()] Could not initialize SHM queue, ret="s +
                             text}));
        EXPECT_FALSE(adapter.m_initialised);
    }
    EXPECT_TRUE(adapter.init());
}

TEST_F(AttachmentTest, LogsThatTheThreadFailedAndLeavesTheQueueAttached) {
    for (const auto& [result, text] : shm_test::kFailures) {
        fake::fail("pktd_shm_rx_thread_init", {result});
        fake::Journal journal(qv::ERROR);
        EXPECT_FALSE(adapter.init());
        EXPECT_EQ(journal.entries,
                  (Lines{kQueueInit, kThreadInit,
                         "14:03:07.2 ERROR: [SHM_Wrapper:145 | virtual bool "
                         "SHM_Wrapper_App::init()] Could not initialize SHM thread, ret="s +
                             text}));
        EXPECT_FALSE(adapter.m_initialised);
    }
    EXPECT_TRUE(adapter.init());
}

TEST(AdapterTest, IsOnePerProcessAndHasNoOriginBeforeItsFirstFrame) {
    ASSERT_NE(getShmWrapperApp(), nullptr);
    EXPECT_EQ(getShmWrapperApp(), getShmWrapperApp());
    EXPECT_EQ(kOriginOnFirstUse, (Fields{-1, -1, -1, -1, -1, -1}));
}

static_assert(std::is_convertible_v<SHM_Wrapper_App*, SHM_Wrapper*>);
static_assert(sizeof(SHM_Wrapper_App) == sizeof(SHM_Wrapper), "no data of its own");
static_assert(std::is_abstract_v<SHM_Wrapper> && std::has_virtual_destructor_v<SHM_Wrapper>);

}  // namespace
