// SPDX-License-Identifier: MIT
// Tests of the receive callback: what it reads from the record, logs, stores and returns. Its lines
// in order, and exceptions, are in unit/daemon; fuzz/receive_fuzz.cpp checks that it changes
// nothing.
#include <sstream>

#include "shm_test.h"

namespace {

using shm_test::Bytes;
using shm_test::Fields;
using shm_test::fields;
using shm_test::kCaseName;
using shm_test::kMost;
using shm_test::Lines;
using shm_test::logAt;
using shm_test::QueueRecord;
using shm_test::ScriptedHandler;
using shm_test::taggedFrame;

/// Every field that the callback reads; the trunk id is set, but the frame is not from a trunk.
QueueRecord record(size_t shift = 0) {
    QueueRecord made(shift);
    made.set(9000, int32_t{0})
        .set(9004, int32_t{4})
        .set(9017, uint8_t{0})
        .set(9018, int32_t{88})
        .set(9071, int32_t{2048})
        .set(9089, int32_t{100})
        .set(9095, uint16_t{8292})
        .set(9111, int32_t{77});
    return made;
}

const std::string kPlace =
    " | static int SHM_Wrapper_App::pkt_rx_cb(const st_pktd_shm_queue_entry_data_t*, uint8_t*, "
    "int)] ";

std::string newPacket(const std::string& text) {
    return "14:03:07.2 DEBUG: [SHM_Wrapper:97" + kPlace + "new pkt from " + text + "\r\n";
}

const std::string kUsual =
    "unit 1, port 5, is_trunk 0, tid 0, vid 100, proto 2048 [0x800], vtag 8292, egress 77";
constexpr Fields kStored = {0, 4, -1, 100, 2048, 77};

/// The process's one adapter, with nothing left over from other tests.
class ReceiveCallbackTest : public daemon_test::FakesTest {
 protected:
    ReceiveCallbackTest() {
        adapter.setPostAction(SHM_Wrapper::eDiscard);
        adapter.setFrameInfo(-1, -1, -1, -1, -1, -1);
        adapter.setHandler(&accepting);
    }
    ~ReceiveCallbackTest() override { adapter.setHandler(nullptr); }

    int receive(const QueueRecord& entry) {
        const pktd_rx_cb_t callback = &SHM_Wrapper_App::pkt_rx_cb;
        return callback(entry.get(), frame.data(), 22);
    }
    Lines receiveLog(int32_t level, const QueueRecord& entry) {
        return logAt(level, [&] { receive(entry); });
    }
    Fields stored() const { return fields(adapter.frameInfo()); }

    SHM_Wrapper_App& adapter = *getShmWrapperApp();
    ScriptedHandler accepting{true};
    Bytes frame = taggedFrame();
};

// What is read from the record: shown from 1 on the front panel, stored from 0.

struct Read {
    const char* name;
    QueueRecord entry;
    std::string text;
    Fields stored;
};

class RecordFieldTest : public ReceiveCallbackTest, public testing::WithParamInterface<Read> {};

TEST_P(RecordFieldTest, IsReadAtItsOffsetLoggedAndStored) {
    EXPECT_EQ(receiveLog(qv::DEBUG, GetParam().entry).front(), newPacket(GetParam().text));
    EXPECT_EQ(stored(), GetParam().stored);
}

QueueRecord trunk(uint8_t flag, int32_t id) { return record().set(9017, flag).set(9018, id); }

QueueRecord fullWidth(size_t shift) {
    return record(shift)
        .set(9000, 16909060)
        .set(9004, 84281096)
        .set(9071, 151653132)
        .set(9089, 219025168)
        .set(9095, uint16_t{0xFFFF})
        .set(9111, 353769240);
}

const std::string kFullWidth =
    "unit 16909061, port 84281097, is_trunk 0, tid 0, vid 219025168, proto 151653132 [0x90a0b0c], "
    "vtag 65535, egress 353769240";
constexpr Fields kFullWidthStored = {16909060, 84281096, -1, 219025168, 151653132, 353769240};

const Read kReads[] = {
    {"EachAsItIs", record(), kUsual, kStored},
    {"EachInFullWidthAndTheTagUnsigned", fullWidth(0), kFullWidth, kFullWidthStored},
    {"EachAtAnOddAddress", fullWidth(1), kFullWidth, kFullWidthStored},
    {"EachNegative",
     record().set(9000, -1).set(9004, -2).set(9071, -3).set(9089, -4).set(9111, -5),
     "unit 0, port -1, is_trunk 0, tid 0, vid -4, proto -3 [0xfffffffd], vtag 8292, egress -5",
     {-1, -2, -1, -4, -3, -5}},
    {"TheLargestUnit",
     record().set(9000, kMost),
     "unit -2147483648, port 5, is_trunk 0, tid 0, vid 100, proto 2048 [0x800], vtag 8292, egress "
     "77",
     {kMost, 4, -1, 100, 2048, 77}},
    {"TrunkIdOfNoTrunk", trunk(0, 0x7fffffff), kUsual, kStored},
    {"TheFirstTrunk",
     trunk(1, 0),
     "unit 1, port 5, is_trunk 1, tid 1, vid 100, proto 2048 [0x800], vtag 8292, egress 77",
     {0, 4, 0, 100, 2048, 77}},
    {"TrunkIdInFullWidth",
     trunk(1, 16909060),
     "unit 1, port 5, is_trunk 1, tid 16909061, vid 100, proto 2048 [0x800], vtag 8292, egress 77",
     {0, 4, 16909060, 100, 2048, 77}},
    {"TrunkFlag2IsShownAs1",
     trunk(2, 6),
     "unit 1, port 5, is_trunk 1, tid 7, vid 100, proto 2048 [0x800], vtag 8292, egress 77",
     {0, 4, 6, 100, 2048, 77}},
    {"TrunkFlag255IsShownAs1",
     trunk(0xff, 6),
     "unit 1, port 5, is_trunk 1, tid 7, vid 100, proto 2048 [0x800], vtag 8292, egress 77",
     {0, 4, 6, 100, 2048, 77}},
};

void PrintTo(const Read& read, std::ostream* os) { *os << read.name; }

INSTANTIATE_TEST_SUITE_P(Fields, RecordFieldTest, testing::ValuesIn(kReads), kCaseName);

TEST_F(ReceiveCallbackTest, ForgetsTheTrunkOfThePreviousFrame) {
    receive(trunk(1, 6));
    receive(record());
    EXPECT_EQ(stored(), kStored);
}

TEST_F(ReceiveCallbackTest, DoesNotTouchTheRecordsFirst9000Bytes) {
    // The first page is unreadable, and so is the record up to the control block.
    const packets::GuardedBytes memory(Bytes(9000 + 4096));
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    uint8_t* const control = memory.data() + 9000 + 4096 - page;
    memcpy(control, record().bytes().data() + 9000, 364);
    ASSERT_EQ(mprotect(control - 2 * page, 2 * page, PROT_NONE), 0);
    const CapturedLog log(qv::DEBUG4);
    SHM_Wrapper_App::pkt_rx_cb(
        reinterpret_cast<const st_pktd_shm_queue_entry_data_t*>(control - 9000), frame.data(), 22);
    EXPECT_EQ(stored(), kStored);
}

// Its lines.

TEST_F(ReceiveCallbackTest, DumpsThe364BytesOfTheControlBlockAtDebug1WhereverItLies) {
    std::ostringstream dump;
    for (int i = 0; i < 364; ++i) dump << (i == 0 ? "" : " ") << std::hex << i % 256;
    for (const size_t shift : {0U, 1U}) {
        QueueRecord entry(shift);
        for (size_t i = 0; i < 364; ++i) entry.set(9000 + i, static_cast<uint8_t>(i));
        const Lines lines = receiveLog(qv::DEBUG1, entry);
        ASSERT_EQ(lines.size(), 5U);
        EXPECT_EQ(lines[1], "14:03:07.2 DEBUG1: [SHM_Wrapper:106" + kPlace +
                                "Dumping '&pktd_entry_data->ctrl' (364 bytes):\n[" + dump.str() +
                                "]\r\n");
        EXPECT_NE(lines[2].find("[ETH DUMP]"), std::string::npos);
    }
}

TEST_F(ReceiveCallbackTest, LogsTheFrameBeforeItStoresTheOrigin) {
    const CapturedLog log(qv::DEBUG);
    fake::clock().localtimeFails = true;
    EXPECT_THROW(receive(record()), std::runtime_error);
    EXPECT_EQ(stored(), (Fields{-1, -1, -1, -1, -1, -1}));
}

// To the handler and back.

TEST_F(ReceiveCallbackTest, HasLoggedTheFrameAndStoredTheOriginBeforeTheHandlerRuns) {
    const CapturedLog log(qv::DEBUG);
    accepting.answer = [&](uint8_t& first, size_t len) {
        EXPECT_EQ(&first, frame.data());
        EXPECT_EQ(len, 22U);
        EXPECT_EQ(linesOf(log.text()), Lines{newPacket(kUsual)});
        EXPECT_EQ(stored(), kStored);
        return true;
    };
    receive(record());
    EXPECT_EQ(accepting.calls, 1);
}

TEST_F(ReceiveCallbackTest, WidensANegativeLengthWithoutCheckingIt) {
    accepting.answer = [](uint8_t&, size_t len) {
        EXPECT_EQ(len, std::numeric_limits<size_t>::max());
        return true;
    };
    SHM_Wrapper_App::pkt_rx_cb(record().get(), frame.data(), -1);
    EXPECT_EQ(accepting.calls, 1);
}

TEST_F(ReceiveCallbackTest, ReturnsTheVerdictThatItLogs) {
    for (const auto& [action, code] : {std::pair{0, 7}, {1, 8}, {2, 9}, {5, 1}}) {
        adapter.setPostAction(static_cast<SHM_Wrapper::eActions>(action));
        int verdict = 0;
        const Lines lines = logAt(qv::DEBUG, [&] { verdict = receive(record()); });
        EXPECT_EQ(verdict, code);
        EXPECT_EQ(lines.back(), "14:03:07.2 DEBUG: [SHM_Wrapper:112" + kPlace +
                                    "handle frame ret " + std::to_string(code) + "\r\n");
    }
}

TEST_F(ReceiveCallbackTest, StoresTheOriginOfAnUntaggedFrameToo) {
    frame[12] = 0x08;
    const CapturedLog log(qv::ERROR);
    EXPECT_EQ(receive(record()), 7);
    EXPECT_EQ(stored(), kStored);
}

static_assert(alignof(st_pktd_shm_queue_entry_data_t) == 1, "may be at any address");

}  // namespace
