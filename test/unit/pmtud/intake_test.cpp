// SPDX-License-Identifier: MIT
// Tests of frame intake: what is said of every frame, its verdict, and who answers it.
#include "engine_test.h"

using engine_test::Bytes;
using engine_test::EngineTest;
using engine_test::frameOfType;
using engine_test::ipv4Frame;
using engine_test::ipv6Frame;
using engine_test::Journal;
using engine_test::last;
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
    EXPECT_TRUE(last(fake::platform().debugTexts()).ends_with(", Tx egress: -1"));
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
    EXPECT_TRUE(last(fake::platform().debugTexts()).ends_with("Rx VLAN: 4095, Tx egress: 77"));
}

TEST_F(IntakeTest, ClassifiesAFrameOfLessThanEighteenBytesWithoutACheckOfItsLength) {
    Bytes frame = frameOfType(0x0806);
    EXPECT_FALSE(app.handleFrame(frame.front(), 3));
    EXPECT_EQ(fake::platform().debugTexts().at(0), " PMTUD-Prot: Received frame of size: 3");
}

TEST_F(IntakeTest, WritesTheLengthAsUnsignedAndHandsItOnUnchanged) {
    constexpr std::size_t kHuge = 4294967295U;
    Bytes frame = ipv4Frame();
    const Lines lines = logAt(qv::DEBUG, [&] { app.handleFrame(frame.front(), kHuge); });
    EXPECT_EQ(lines.at(0),
              "14:03:07.2 DEBUG: [PMTUDApp:280 | bool PMTUDApp::handleFrame(uint8_t&, size_t)] "
              "recvd frame len 4294967295\r\n");
    const Lines texts = fake::platform().debugTexts();
    EXPECT_EQ(texts.at(0), " PMTUD-Prot: Received frame of size: 4294967295");
    EXPECT_EQ(texts.at(2), " PMTUD-Prot: Received IPv4 packet len 4294967295:");
}

TEST_F(IntakeTest, HandsTheLengthOnToTheIpv6ReplyUnchanged) {
    Bytes frame = ipv6Frame(8);
    app.handleFrame(frame.front(), 4294967295U);
    EXPECT_EQ(fake::platform().debugTexts().at(2),
              " PMTUD-Prot: Received IPv6 packet len 4294967295:");
}

class ThresholdTest : public IntakeTest, public testing::WithParamInterface<int32_t> {};

TEST_P(ThresholdTest, ChangesNothingForTheDebugProcess) {
    logAt(GetParam(), [this] { handle(frameOfType(0x0806)); });
    EXPECT_EQ(fake::platform().debugTexts(),
              (Lines{" PMTUD-Prot: Received frame of size: 60",
                     " PMTUD-Prot: Frame Src MAC: 00:00:5e:00:53:01, Dest MAC: 00:1a:2b:3c:4d:5e, "
                     "Rx VLAN: 20, Tx egress: 77"}));
}

INSTANTIATE_TEST_SUITE_P(Levels, ThresholdTest,
                         testing::Values(-1, qv::ERROR, qv::WARNING, qv::INFO, qv::DEBUG,
                                         qv::DEBUG1, qv::DEBUG2, qv::DEBUG3, qv::DEBUG4));

TEST_F(IntakeTest, WritesToTheDebugProcessWithoutAFileChannelAsWell) {
    const CapturedLog log(qv::DEBUG4);
    FILE* const stream = std::exchange(qv::stream(), nullptr);
    handle(frameOfType(0x0806));
    qv::stream() = stream;
    EXPECT_EQ(fake::platform().debugLines.size(), 2U);
    EXPECT_EQ(log.text(), "");
}

TEST_F(IntakeTest, ShowsTheEgressOfTheFrameInHand) {
    handle(frameOfType(0x0806));
    adapter.setFrameInfo(0, 0, -1, 0, 0, 2147483647);
    handle(frameOfType(0x0806));
    const Lines texts = fake::platform().debugTexts();
    EXPECT_TRUE(texts.at(1).ends_with(", Tx egress: 77"));
    EXPECT_TRUE(texts.at(3).ends_with(", Tx egress: 2147483647"));
}

TEST_F(IntakeTest, LeavesTheTagProtocolIdentifierToTheAdapter) {
    Bytes frame = ipv4Frame();
    frame[12] = 0x88;
    frame[13] = 0xA8;
    EXPECT_TRUE(handle(frame));
    EXPECT_EQ(fake::syscalls().sent.size(), 1U);
}

struct EarlyLength {
    const char* name;
    std::size_t length;
};

class EarlyLengthTest : public IntakeTest, public testing::WithParamInterface<EarlyLength> {};

TEST_P(EarlyLengthTest, IsNotComparedWithAnything) {
    Bytes ipv4 = ipv4Frame();
    Bytes ipv6 = ipv6Frame(8);
    EXPECT_TRUE(app.handleFrame(ipv4.front(), GetParam().length));
    EXPECT_TRUE(app.handleFrame(ipv6.front(), GetParam().length));
    EXPECT_EQ(fake::syscalls().sent.size(), 1U);
    EXPECT_EQ(fake::platform().icmp6Messages.size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Lengths, EarlyLengthTest,
                         testing::Values(EarlyLength{"None", 0}, EarlyLength{"OneByte", 1},
                                         EarlyLength{"OneByteLessThanTheHeader", 17},
                                         EarlyLength{"TheHeader", 18},
                                         EarlyLength{"LessThanTheMtu", 1499},
                                         EarlyLength{"TheMtu", 1500},
                                         EarlyLength{"TheMtuBehindTheHeader", 1518},
                                         EarlyLength{"MoreThanAnyMtu", 70000}),
                         [](const auto& row) { return row.param.name; });

// The verdict is set by the intake and by it alone.

/// What the adapter answers for a frame that a handler has accepted: 7 where discard stands, 8
/// where accept does.
int standingVerdict(SHM_Wrapper& adapter) {
    class Yes : public SHM_Handler {
        bool handleFrame(uint8_t&, std::size_t) override { return true; }
    } yes;
    adapter.setHandler(&yes);
    Bytes frame = ipv4Frame();
    return adapter.handleFrame(frame.data(), frame.size());
}

struct Outcome {
    const char* name;
    Bytes (*frame)();
    void (*prepare)();
    bool handled;
};

class OutcomeTest : public IntakeTest, public testing::WithParamInterface<Outcome> {};

TEST_P(OutcomeTest, LeavesDiscardStanding) {
    GetParam().prepare();
    adapter.setPostAction(SHM_Wrapper::eRepost);
    EXPECT_EQ(handle(GetParam().frame()), GetParam().handled);
    EXPECT_EQ(standingVerdict(adapter), 7);
}

void prepareNothing() {}
void prepareNoVlan() {
    fake::platform().destVlan = [](int) { return 0; };
}
void prepareNoMtu() {
    fake::platform().vlanMtu = [](int) { return 0U; };
}
void prepareNoSocket() {
    fake::syscalls().socket = [] { return -1; };
    fake::platform().icmp6SocketCreate = [](int32_t*) { return -1; };
}
void prepareNoSend() {
    fake::syscalls().sendto = [](std::size_t) { return -1L; };
    fake::platform().icmp6Send = [] { return -1; };
}
Bytes arp() { return frameOfType(0x0806); }
Bytes eightBytesOfIpv6() { return ipv6Frame(8); }

INSTANTIATE_TEST_SUITE_P(
    Outcomes, OutcomeTest,
    testing::Values(Outcome{"Ipv4Sent", ipv4Frame, prepareNothing, true},
                    Outcome{"Ipv4WithoutVlan", ipv4Frame, prepareNoVlan, false},
                    Outcome{"Ipv4WithoutMtu", ipv4Frame, prepareNoMtu, false},
                    Outcome{"Ipv4WithoutSocket", ipv4Frame, prepareNoSocket, false},
                    Outcome{"Ipv4NotSent", ipv4Frame, prepareNoSend, true},
                    Outcome{"Ipv6Sent", eightBytesOfIpv6, prepareNothing, true},
                    Outcome{"Ipv6WithoutVlan", eightBytesOfIpv6, prepareNoVlan, false},
                    Outcome{"Ipv6WithoutMtu", eightBytesOfIpv6, prepareNoMtu, false},
                    Outcome{"Ipv6WithoutSocket", eightBytesOfIpv6, prepareNoSocket, false},
                    Outcome{"Ipv6NotSent", eightBytesOfIpv6, prepareNoSend, false},
                    Outcome{"Arp", arp, prepareNothing, false}),
    [](const auto& row) { return row.param.name; });

TEST_F(IntakeTest, AloneSetsTheVerdictAndNotTheReplies) {
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_TRUE(reply4(ipv4Frame()));
    EXPECT_TRUE(reply6(ipv6Frame(8)));
    EXPECT_EQ(standingVerdict(adapter), 8);
}

}  // namespace
