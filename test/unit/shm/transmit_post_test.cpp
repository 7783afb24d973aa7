// SPDX-License-Identifier: MIT
// Tests of posting a frame to the transmit queue.
#include "shm_test.h"

namespace {

using shm_test::Bytes;
using shm_test::Lines;
using shm_test::QueueRecord;
using shm_test::ScriptedHandler;
using shm_test::taggedFrame;

const std::string kPlace =
    " | bool SHM_Wrapper_App::pktdTxQueuePost(const uint8_t*, size_t, bool)] ";
const std::string kWriting =
    "14:03:07.2 DEBUG: [SHM_Wrapper:157" + kPlace + "Writing pkt: proto 2048 [0x800], vid 100\r\n";
const std::string kInit = "pktd_queue_entry_data_vlan_based_init(2048, 100, frame, 22)";
const std::string kPost = "shm_data_entry_post(pktd_tx_queue_pool + 8, 22)";

/// A record of 0xEE, as the initialiser leaves it, with a destination.
Bytes directedRecord(int32_t unit, int32_t port) {
    return QueueRecord()
        .set(9034, unit)
        .set(9038, port)
        .set(9042, uint8_t{1})
        .set(9356, uint32_t{4})
        .bytes();
}

class TransmitPostTest : public daemon_test::FakesTest {
 protected:
    TransmitPostTest() { adapter.setFrameInfo(16909060, 84281096, 6, 100, 2048, 77); }

    bool post(bool directed) { return adapter.pktdTxQueuePost(frame.data(), 22, directed); }
    static Bytes posted() { return fake::platform().posted.at(0); }

    SHM_Wrapper_App adapter;
    Bytes frame = taggedFrame();
};

TEST_F(TransmitPostTest, LogsThenInitialisesTheRecordThenPostsItToTheQueueInThePool) {
    fake::Journal journal(qv::DEBUG4);
    EXPECT_TRUE(post(false));
    EXPECT_EQ(journal.entries, (Lines{kWriting, kInit, kPost}));
    EXPECT_EQ(fake::platform().frameToPost, frame.data());
}

TEST_F(TransmitPostTest, DoesNotCheckFrameAndLength) {
    EXPECT_TRUE(adapter.pktdTxQueuePost(nullptr, 0, true));
    EXPECT_EQ(fake::platform().calls,
              (Lines{"pktd_queue_entry_data_vlan_based_init(2048, 100, 0, 0)",
                     "shm_data_entry_post(pktd_tx_queue_pool + 8, 0)"}));
}

TEST_F(TransmitPostTest, UndirectedWritesThePostKindAlone) {
    post(false);
    EXPECT_EQ(posted(), QueueRecord().set(9356, uint32_t{4}).bytes());
}

TEST_F(TransmitPostTest, DirectedWritesUnitAndPortCountedFromZeroValidFlagAndPostKind) {
    post(true);
    EXPECT_EQ(posted(), directedRecord(16909060, 84281096));
}

TEST_F(TransmitPostTest, BeforeAnyFramePassesMinusOneOn) {
    SHM_Wrapper_App untouched;
    fake::Journal journal(qv::DEBUG);
    EXPECT_TRUE(untouched.pktdTxQueuePost(frame.data(), 22, true));
    EXPECT_EQ(journal.entries,
              (Lines{"14:03:07.2 DEBUG: [SHM_Wrapper:157" + kPlace +
                         "Writing pkt: proto -1 [0xffffffff], vid -1\r\n",
                     "pktd_queue_entry_data_vlan_based_init(-1, -1, frame, 22)", kPost}));
    EXPECT_EQ(posted(), directedRecord(-1, -1));
}

TEST_F(TransmitPostTest, FromAHandlerUsesTheOriginOfTheFrameBeingHandled) {
    ScriptedHandler answering([this](uint8_t&, size_t) {
        return getShmWrapperApp()->pktdTxQueuePost(frame.data(), 22, true);
    });
    getShmWrapperApp()->setHandler(&answering);
    const QueueRecord received = QueueRecord()
                                     .set(9000, int32_t{1})
                                     .set(9004, int32_t{23})
                                     .set(9071, int32_t{34525})
                                     .set(9089, int32_t{20});
    SHM_Wrapper_App::pkt_rx_cb(received.get(), frame.data(), 22);
    getShmWrapperApp()->setHandler(nullptr);
    EXPECT_EQ(fake::platform().calls,
              (Lines{"pktd_queue_entry_data_vlan_based_init(34525, 20, frame, 22)", kPost}));
    EXPECT_EQ(posted(), directedRecord(1, 23));
}

// Failures in a row, at the lowest threshold that shows their line, and then a success.

TEST_F(TransmitPostTest, LogsThatTheInitialiserFailedAndPostsNothing) {
    for (const auto& [result, text] : shm_test::kFailures) {
        fake::fail("pktd_queue_entry_data_vlan_based_init", {result});
        fake::Journal journal(qv::ERROR);
        EXPECT_FALSE(post(true));
        EXPECT_EQ(journal.entries, (Lines{kInit, "14:03:07.2 ERROR: [SHM_Wrapper:164" + kPlace +
                                                     "init error, ret " + text}));
    }
    EXPECT_TRUE(post(true));
}

TEST_F(TransmitPostTest, LogsThatTheQueueFailedAndDoesNotRetry) {
    for (const auto& [result, text] : shm_test::kFailures) {
        fake::fail("shm_data_entry_post", {result});
        fake::Journal journal(qv::ERROR);
        EXPECT_FALSE(post(false));
        EXPECT_EQ(journal.entries, (Lines{kInit, kPost,
                                          "14:03:07.2 ERROR: [SHM_Wrapper:179" + kPlace +
                                              "post error, ret " + text}));
    }
    EXPECT_TRUE(post(false));
}

}  // namespace
