// Tests of frame intake: what is said of every frame, its verdict, and who answers it.
#include "engine_test.h"

using engine_test::Bytes;
using engine_test::EngineTest;
using engine_test::frameOfType;
using engine_test::ipv4Frame;
using engine_test::ipv6Frame;
using engine_test::Journal;
using engine_test::Lines;
using engine_test::logAt;
using engine_test::recordWithEgress;
using engine_test::operator+;

namespace {

class IntakeTest : public EngineTest {
 protected:
    /// The frame from the queue's callback on; the verdict code.
    int receive(Bytes frame) {
        const st_pktd_shm_queue_entry_data_t record = recordWithEgress(77);
        return SHM_Wrapper_App::pkt_rx_cb(&record, frame.data(), static_cast<int>(frame.size()));
    }
};

TEST_F(IntakeTest, HandsIpv4ToTheIpv4Reply) {
    EXPECT_TRUE(handle(ipv4Frame()));
    EXPECT_EQ(fake::syscalls().sent.size(), 1U);
    EXPECT_EQ(fake::platform().icmp6Messages.size(), 0U);
}

TEST_F(IntakeTest, HandsIpv6ToTheIpv6Reply) {
    EXPECT_TRUE(handle(ipv6Frame(1460)));
    EXPECT_EQ(fake::platform().icmp6Messages.size(), 1U);
    EXPECT_EQ(fake::syscalls().sent.size(), 0U);
}

TEST_F(IntakeTest, IsFalseWhereTheReplyIs) {
    answerVlan(0);
    EXPECT_FALSE(handle(ipv4Frame()));
    EXPECT_FALSE(handle(ipv6Frame(1460)));
}

class OtherEtherTypeTest : public IntakeTest, public testing::WithParamInterface<uint16_t> {};

TEST_P(OtherEtherTypeTest, IsNotAnsweredAndNoConfigurationIsAsked) {
    EXPECT_FALSE(handle(frameOfType(GetParam())));
    EXPECT_EQ(fake::platform().calls, Lines());
    EXPECT_EQ(fake::syscalls().calls, Lines());
    EXPECT_EQ(fake::platform().debugLines.size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(Types, OtherEtherTypeTest,
                         testing::Values(0x0806, 0x0000, 0x0801, 0x07FF, 0x86DC, 0x86DE, 0xDD86,
                                         0x0008, 0x8100, 0x8847, 0xFFFF));

TEST_F(IntakeTest, WritesItsTwoLinesToTheDebugProcessWhateverTheLevel) {
    const Lines lines = logAt(qv::ERROR, [this] { handle(frameOfType(0x0806)); });
    EXPECT_EQ(lines, Lines());
    EXPECT_EQ(fake::platform().debugLines,
              std::vector<fake::DebugLine>(
                  {{89, "%s", " PMTUD-Prot: Received frame of size: 60"},
                   {89, "%s",
                    " PMTUD-Prot: Frame Src MAC: 00:00:5e:00:53:01, Dest MAC: 00:1a:2b:3c:4d:5e, "
                    "Rx VLAN: 20, Tx egress: 77"}}));
}

TEST_F(IntakeTest, WritesANegativeEgressAsSigned) {
    adapter.setFrameInfo(0, 0, -1, 0, 0, -1);
    handle(frameOfType(0x0806));
    EXPECT_TRUE(fake::platform().debugTexts().back().ends_with(", Tx egress: -1"));
}

TEST_F(IntakeTest, WritesItsLinesAndSetsTheActionInThisOrder) {
    Journal journal(qv::DEBUG);
    handle(frameOfType(0x0806));
    const Lines& entries = journal.entries();
    const std::string place = " | bool PMTUDApp::handleFrame(uint8_t&, size_t)] ";
    ASSERT_EQ(entries.size(), 6U);
    EXPECT_EQ(entries[0], "14:03:07.2 DEBUG: [PMTUDApp:280" + place + "recvd frame len 60\r\n");
    EXPECT_EQ(entries[1], " PMTUD-Prot: Received frame of size: 60");
    EXPECT_EQ(entries[2],
              "14:03:07.2 DEBUG: [SHM_Wrapper:71 | void "
              "SHM_Wrapper::setPostAction(SHM_Wrapper::eActions)] action 0\r\n");
    EXPECT_EQ(entries[3], "14:03:07.2 DEBUG: [PMTUDApp:286" + place +
                              "\n===== [ETH DUMP] =====\n"
                              "data[18]: [00 1a 2b 3c 4d 5e 00 00 5e 00 53 01 81 00 70 14 08 06]\n"
                              "dest: 0:1a:2b:3c:4d:5e\nsource: 0:0:5e:0:53:1\n"
                              "vlan_tpid: 33024 [0x8100]\nvlan_tci: 28692 [0x7014]\n"
                              "  vlan_pcp: 3 [0x3]\n  vlan_dei: 1 [0x1]\n  vlan_id: 20 [0x14]\n"
                              "proto: 2054 [0x806]\n\r\n");
    EXPECT_EQ(entries[4], "14:03:07.2 DEBUG: [PMTUDApp:288" + place +
                              "Src: 00:00:5e:00:53:01 Dest: 00:1a:2b:3c:4d:5e VLAN: 20\r\n");
    EXPECT_TRUE(entries[5].starts_with(" PMTUD-Prot: Frame Src MAC: "));
}

TEST_F(IntakeTest, DiscardsEveryFrameWhateverActionWasSet) {
    for (const Bytes& frame : {ipv4Frame(), ipv6Frame(1460), frameOfType(0x0806)}) {
        adapter.setPostAction(SHM_Wrapper::eAccept);
        EXPECT_EQ(receive(frame), 7);
    }
}

TEST_F(IntakeTest, LeavesTheDiscardStandingAfterAnAnsweredFrame) {
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_TRUE(handle(ipv4Frame()));
    class Yes : public SHM_Handler {
        bool handleFrame(uint8_t&, std::size_t) override { return true; }
    } yes;
    adapter.setHandler(&yes);
    EXPECT_EQ(receive(ipv4Frame()), 7);
}

TEST_F(IntakeTest, ShowsATagOfAllOnesAsVlan4095) {
    Bytes frame = frameOfType(0x0806);
    frame[14] = frame[15] = 0xFF;
    handle(frame);
    EXPECT_TRUE(fake::platform().debugTexts().back().ends_with("Rx VLAN: 4095, Tx egress: 77"));
}

TEST_F(IntakeTest, ClassifiesAFrameOfLessThanEighteenBytesWithoutACheckOfItsLength) {
    Bytes frame = frameOfType(0x0806);
    EXPECT_FALSE(app.handleFrame(frame.front(), 3));
    EXPECT_EQ(fake::platform().debugTexts().front(), " PMTUD-Prot: Received frame of size: 3");
}

TEST_F(IntakeTest, AnswersAFrameOfEveryLengthFrom18UpInABufferOfZeros) {
    for (const Bytes& whole : {ipv4Frame(), ipv6Frame(1460)}) {
        for (std::size_t length = 18; length <= 1518; ++length) {
            Bytes frame(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
            frame.resize(18 + 40 + 65535);
            const st_pktd_shm_queue_entry_data_t record = recordWithEgress(77);
            ASSERT_EQ(SHM_Wrapper_App::pkt_rx_cb(&record, frame.data(), static_cast<int>(length)),
                      7)
                << length;
        }
    }
    EXPECT_EQ(fake::syscalls().sent.size(), 1501U);
    EXPECT_EQ(fake::platform().icmp6Messages.size(), 1501U);
}

}  // namespace
