// SPDX-License-Identifier: MIT
// Tests of posting a frame to the transmit queue.
#include <limits>

#include "shm_test.h"

namespace {

using shm_test::Bytes;
using shm_test::Lines;
using shm_test::logAt;
using shm_test::QueueRecord;
using shm_test::ScriptedHandler;
using shm_test::taggedFrame;

const uint8_t* frameOfInit = nullptr;

}  // namespace

// The fake's record of a call does not name the frame's address.
extern "C" {

int __real_pktd_queue_entry_data_vlan_based_init(st_pktd_shm_queue_entry_data_t* entry, int proto,
                                                 int vid, const uint8_t* frame, size_t len);

int __wrap_pktd_queue_entry_data_vlan_based_init(st_pktd_shm_queue_entry_data_t* entry, int proto,
                                                 int vid, const uint8_t* frame, size_t len) {
    frameOfInit = frame;
    return __real_pktd_queue_entry_data_vlan_based_init(entry, proto, vid, frame, len);
}

}  // extern "C"

namespace {

const std::string kWriting =
    "14:03:07.2 DEBUG: [SHM_Wrapper:157 | bool SHM_Wrapper_App::pktdTxQueuePost(const uint8_t*, "
    "size_t, bool)] Writing pkt: proto 2048 [0x800], vid 100\r\n";
const std::string kInitCall = "pktd_queue_entry_data_vlan_based_init(2048, 100, frame, 22)";
const std::string kPostCall = "shm_data_entry_post(pktd_tx_queue_pool + 8, 22)";

class TransmitPostTest : public shm_test::ShmTest {
 protected:
    TransmitPostTest() {
        frameOfInit = nullptr;
        adapter.setFrameInfo(16909060, 84281096, 6, 100, 2048, 77);
        // Every byte that the initialiser leaves is 0xEE, so that one written later is seen.
        fake::platform().recordInit = [](st_pktd_shm_queue_entry_data_t* entry) {
            memset(entry, 0xEE, 9364);
            return 0;
        };
    }

    bool post(bool directed) { return adapter.pktdTxQueuePost(frame.data(), 22, directed); }
    /// The one record that was posted.
    static Bytes postedRecord() {
        EXPECT_EQ(fake::platform().posted.size(), 1U);
        return fake::platform().posted.at(0).record;
    }

    SHM_Wrapper_App adapter;
    Bytes frame = taggedFrame();
};

TEST_F(TransmitPostTest, InitialisesTheRecordThenPostsItToTheQueueInThePool) {
    EXPECT_TRUE(post(false));
    EXPECT_EQ(fake::platform().calls, (Lines{kInitCall, kPostCall}));
    EXPECT_EQ(fake::platform().posted.at(0).queue, &pktd_tx_queue_pool[8]);
    EXPECT_EQ(fake::platform().posted.at(0).len, 22U);
}

TEST_F(TransmitPostTest, GivesTheInitialiserTheFrame) {
    post(false);
    EXPECT_EQ(frameOfInit, frame.data());
}

TEST_F(TransmitPostTest, DoesNotTestFrameAndLength) {
    EXPECT_TRUE(adapter.pktdTxQueuePost(nullptr, 0, true));
    EXPECT_EQ(fake::platform().calls,
              (Lines{"pktd_queue_entry_data_vlan_based_init(2048, 100, 0, 0)",
                     "shm_data_entry_post(pktd_tx_queue_pool + 8, 0)"}));
}

TEST_F(TransmitPostTest, UndirectedWritesThePostKindAlone) {
    EXPECT_TRUE(post(false));
    EXPECT_EQ(postedRecord(), QueueRecord().set(9356, uint32_t{4}).bytes());
}

TEST_F(TransmitPostTest, DirectedWritesUnitPortValidFlagAndPostKind) {
    EXPECT_TRUE(post(true));
    EXPECT_EQ(postedRecord(), QueueRecord()
                                  .set(9034, int32_t{16909060})
                                  .set(9038, int32_t{84281096})
                                  .set(9042, uint8_t{1})
                                  .set(9356, uint32_t{4})
                                  .bytes());
}

TEST_F(TransmitPostTest, DirectedWritesUnitAndPortCountedFromZero) {
    adapter.setFrameInfo(0, 4, -1, 100, 2048, 77);
    post(true);
    EXPECT_EQ(postedRecord(), QueueRecord()
                                  .set(9034, int32_t{0})
                                  .set(9038, int32_t{4})
                                  .set(9042, uint8_t{1})
                                  .set(9356, uint32_t{4})
                                  .bytes());
}

TEST_F(TransmitPostTest, BeforeAnyFramePassesMinusOneOn) {
    SHM_Wrapper_App untouched;
    EXPECT_TRUE(untouched.pktdTxQueuePost(frame.data(), 22, true));
    EXPECT_EQ(fake::platform().calls,
              (Lines{"pktd_queue_entry_data_vlan_based_init(-1, -1, frame, 22)", kPostCall}));
    EXPECT_EQ(postedRecord(), QueueRecord()
                                  .set(9034, int32_t{-1})
                                  .set(9038, int32_t{-1})
                                  .set(9042, uint8_t{1})
                                  .set(9356, uint32_t{4})
                                  .bytes());
}

TEST_F(TransmitPostTest, FillsARecordOfItsOwn) {
    std::vector<const st_pktd_shm_queue_entry_data_t*> records;
    fake::platform().recordInit = [&](st_pktd_shm_queue_entry_data_t* entry) {
        records.push_back(entry);
        if (records.size() == 1) post(false);
        return 0;
    };
    post(false);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_NE(records[0], records[1]);
}

TEST_F(TransmitPostTest, IgnoresWhatThePostOperationWritesOut) {
    // The fake writes 0xFFFFFFFF there.
    EXPECT_EQ(logAt(qv::DEBUG, [this] { EXPECT_TRUE(post(true)); }), Lines{kWriting});
}

TEST_F(TransmitPostTest, LogsTheFrameOnceAtDebug) {
    EXPECT_EQ(logAt(qv::DEBUG4, [this] { post(false); }), Lines{kWriting});
    EXPECT_EQ(logAt(qv::DEBUG, [this] { post(false); }), Lines{kWriting});
}

TEST_F(TransmitPostTest, IsSilentAtInfo) {
    EXPECT_EQ(logAt(qv::INFO, [this] { post(true); }), Lines{});
}

TEST_F(TransmitPostTest, LogsMinusOneBeforeAnyFrame) {
    SHM_Wrapper_App untouched;
    EXPECT_EQ(logAt(qv::DEBUG, [&] { untouched.pktdTxQueuePost(frame.data(), 22, false); }),
              Lines{"14:03:07.2 DEBUG: [SHM_Wrapper:157 | bool "
                    "SHM_Wrapper_App::pktdTxQueuePost(const uint8_t*, size_t, bool)] Writing pkt: "
                    "proto -1 [0xffffffff], vid -1\r\n"});
}

TEST_F(TransmitPostTest, LogsProto0WithoutAPrefix) {
    adapter.setFrameInfo(0, 4, -1, 4094, 0, 77);
    EXPECT_EQ(logAt(qv::DEBUG, [this] { post(false); }),
              Lines{"14:03:07.2 DEBUG: [SHM_Wrapper:157 | bool "
                    "SHM_Wrapper_App::pktdTxQueuePost(const uint8_t*, size_t, bool)] Writing pkt: "
                    "proto 0 [0], vid 4094\r\n"});
}

TEST_F(TransmitPostTest, LogsTheFrameBeforeItInitialisesTheRecord) {
    const CapturedLog log(qv::DEBUG);
    Lines loggedBefore;
    fake::platform().recordInit = [&](st_pktd_shm_queue_entry_data_t*) {
        loggedBefore = linesOf(log.text());
        return 0;
    };
    post(false);
    EXPECT_EQ(loggedBefore, Lines{kWriting});
}

struct Failure {
    const char* name;
    int result;
    const char* line;
};

class RecordInitFailureTest : public TransmitPostTest, public testing::WithParamInterface<Failure> {
 protected:
    RecordInitFailureTest() {
        fake::platform().recordInit = [](st_pktd_shm_queue_entry_data_t*) {
            return GetParam().result;
        };
    }
};

TEST_P(RecordInitFailureTest, IsLoggedAsAnErrorWithItsNumber) {
    EXPECT_EQ(logAt(qv::ERROR, [this] { EXPECT_FALSE(post(false)); }), Lines{GetParam().line});
}

TEST_P(RecordInitFailureTest, PostsNothing) {
    const CapturedLog log(qv::ERROR);
    EXPECT_FALSE(post(true));
    EXPECT_EQ(fake::platform().calls, Lines{kInitCall});
}

INSTANTIATE_TEST_SUITE_P(
    Results, RecordInitFailureTest,
    testing::Values(Failure{"PositiveOne", 1,
                            "14:03:07.2 ERROR: [SHM_Wrapper:164 | bool "
                            "SHM_Wrapper_App::pktdTxQueuePost(const uint8_t*, size_t, bool)] init "
                            "error, ret 1\r\n"},
                    Failure{"MinusTwentyTwo", -22,
                            "14:03:07.2 ERROR: [SHM_Wrapper:164 | bool "
                            "SHM_Wrapper_App::pktdTxQueuePost(const uint8_t*, size_t, bool)] init "
                            "error, ret -22\r\n"},
                    Failure{"TheSmallest", std::numeric_limits<int>::min(),
                            "14:03:07.2 ERROR: [SHM_Wrapper:164 | bool "
                            "SHM_Wrapper_App::pktdTxQueuePost(const uint8_t*, size_t, bool)] init "
                            "error, ret -2147483648\r\n"}),
    [](const auto& row) { return row.param.name; });

class PostFailureTest : public TransmitPostTest, public testing::WithParamInterface<Failure> {
 protected:
    PostFailureTest() {
        fake::platform().post = [] { return GetParam().result; };
    }
};

TEST_P(PostFailureTest, IsLoggedAsAnErrorWithItsNumber) {
    EXPECT_EQ(logAt(qv::ERROR, [this] { EXPECT_FALSE(post(false)); }), Lines{GetParam().line});
}

TEST_P(PostFailureTest, IsNotRetried) {
    const CapturedLog log(qv::ERROR);
    EXPECT_FALSE(post(true));
    EXPECT_EQ(fake::platform().calls, (Lines{kInitCall, kPostCall}));
}

INSTANTIATE_TEST_SUITE_P(
    Results, PostFailureTest,
    testing::Values(Failure{"PositiveOne", 1,
                            "14:03:07.2 ERROR: [SHM_Wrapper:179 | bool "
                            "SHM_Wrapper_App::pktdTxQueuePost(const uint8_t*, size_t, bool)] post "
                            "error, ret 1\r\n"},
                    Failure{"MinusFive", -5,
                            "14:03:07.2 ERROR: [SHM_Wrapper:179 | bool "
                            "SHM_Wrapper_App::pktdTxQueuePost(const uint8_t*, size_t, bool)] post "
                            "error, ret -5\r\n"},
                    Failure{"TheLargest", std::numeric_limits<int>::max(),
                            "14:03:07.2 ERROR: [SHM_Wrapper:179 | bool "
                            "SHM_Wrapper_App::pktdTxQueuePost(const uint8_t*, size_t, bool)] post "
                            "error, ret 2147483647\r\n"}),
    [](const auto& row) { return row.param.name; });

TEST_F(TransmitPostTest, FromAHandlerUsesTheOriginOfTheFrameBeingHandled) {
    ScriptedHandler answering([this](uint8_t&, size_t) {
        return getShmWrapperApp()->pktdTxQueuePost(frame.data(), 22, true);
    });
    getShmWrapperApp()->setHandler(&answering);
    const QueueRecord received = QueueRecord()
                                     .set(9000, int32_t{1})
                                     .set(9004, int32_t{23})
                                     .set(9017, uint8_t{0})
                                     .set(9071, int32_t{34525})
                                     .set(9089, int32_t{20});
    Bytes receivedFrame = taggedFrame();
    SHM_Wrapper_App::pkt_rx_cb(received.get(), receivedFrame.data(), 22);
    getShmWrapperApp()->setHandler(nullptr);
    EXPECT_EQ(fake::platform().calls,
              (Lines{"pktd_queue_entry_data_vlan_based_init(34525, 20, frame, 22)", kPostCall}));
    EXPECT_EQ(postedRecord(), QueueRecord()
                                  .set(9034, int32_t{1})
                                  .set(9038, int32_t{23})
                                  .set(9042, uint8_t{1})
                                  .set(9356, uint32_t{4})
                                  .bytes());
}

}  // namespace
