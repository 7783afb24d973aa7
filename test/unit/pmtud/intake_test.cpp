// SPDX-License-Identifier: MIT
// Tests of frame intake: what is logged of every frame, its verdict, who answers it, exceptions.
#include <boost/system/system_error.hpp>

#include "engine_test.h"

namespace engine_test {
namespace {

class IntakeTest : public EngineTest {};

TEST_F(IntakeTest, HandsIpv4ToTheIpv4ReplyAndIpv6ToTheIpv6Reply) {
    EXPECT_TRUE(handle(ipv4Frame()));
    EXPECT_EQ(fake::syscalls().sent.size(), 1U);
    EXPECT_EQ(fake::platform().icmp6Messages.size(), 0U);
    EXPECT_TRUE(handle(ipv6Frame(8)));
    EXPECT_EQ(fake::syscalls().sent.size(), 1U);
    EXPECT_EQ(fake::platform().icmp6Messages.size(), 1U);
}

class OtherEtherTypeTest : public EngineTest, public testing::WithParamInterface<uint16_t> {};

TEST_P(OtherEtherTypeTest, IsReportedToTheDebugProcessAndNothingElseIsDoneWithIt) {
    Journal journal(qv::INFO);
    EXPECT_FALSE(handle(with(ipv4Frame(), 16, bytesOf(GetParam()))));
    EXPECT_EQ(journal.entries, (Lines{"89 PMTUD-Prot: Received frame of size: 1600",
                                      "89 PMTUD-Prot: Frame Src MAC: 00:00:5e:00:53:01, Dest MAC: "
                                      "00:1a:2b:3c:4d:5e, Rx VLAN: 20, Tx egress: 77"}));
}

// The neighbours of both, their bytes swapped, half of each, other protocols.
INSTANTIATE_TEST_SUITE_P(Types, OtherEtherTypeTest,
                         testing::Values(0x0000, 0x07FF, 0x0801, 0x0008, 0x86DC, 0x86DE, 0xDD86,
                                         0x00DD, 0x8600, 0x08DD, 0x0806, 0x8100, 0x8847, 0xFFFF));

class ThresholdTest : public EngineTest, public testing::WithParamInterface<int32_t> {};

TEST_P(ThresholdTest, ChangesNothingForTheDebugProcess) {
    logAt(GetParam(), [this] { handle(frameOfType(0x0806)); });
    EXPECT_EQ(texts().size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(Levels, ThresholdTest, testing::Range(-1, 8));

TEST_F(IntakeTest, WritesToTheDebugProcessWithoutAFileChannelToo) {
    const CapturedLog log(qv::DEBUG4);
    FILE* const stream = std::exchange(qv::stream(), nullptr);
    handle(frameOfType(0x0806));
    qv::stream() = stream;
    EXPECT_EQ(texts().size(), 2U);
    EXPECT_EQ(log.text(), "");
}

TEST_F(IntakeTest, ShowsATagOfAllOnesAsVlan4095AndTheSignedEgressOfTheFrameInHand) {
    for (const auto& [egress, text] : {std::pair{-1, "-1"}, {2147483647, "2147483647"}}) {
        adapter.setFrameInfo(0, 0, -1, 0, 0, egress);
        handle(with(frameOfType(0x0806), 14, {0xFF, 0xFF}));
        EXPECT_TRUE(last(texts()).ends_with(std::string("Rx VLAN: 4095, Tx egress: ") + text));
    }
}

TEST_F(IntakeTest, LeavesTheTagProtocolIdentifierToTheAdapter) {
    EXPECT_TRUE(handle(with(ipv4Frame(), 12, {0x88, 0xA8})));
}

class LengthTest : public EngineTest, public testing::WithParamInterface<size_t> {};

/// Not compared with anything: shown as unsigned, and handed on.
TEST_P(LengthTest, OfTheFrameIsShownByIntakeAndReplyAndChangesNothingElse) {
    Bytes ipv4 = ipv4Frame();
    const Bytes ipv6 = ipv6Frame(1460);
    const std::string length = std::to_string(GetParam());
    EXPECT_TRUE(app.handleFrame(ipv4.front(), GetParam()));
    EXPECT_EQ(texts().at(0), " PMTUD-Prot: Received frame of size: " + length);
    EXPECT_EQ(texts().at(2), " PMTUD-Prot: Received IPv4 packet len " + length + ":");
    EXPECT_EQ(slice(sent4().bytes, 8, 68), slice(ipv4, 18, 78));
    EXPECT_EQ(ipv4, ipv4Frame());
    EXPECT_TRUE(app.sendICMP6PacketTooBig(ipv6.front(), GetParam()));
    EXPECT_EQ(texts().at(9), " PMTUD-Prot: Received IPv6 packet len " + length + ":");
    EXPECT_EQ(slice(sent6().bytes, 8, 1500), slice(ipv6, 18, 1510));
}

INSTANTIATE_TEST_SUITE_P(Lengths, LengthTest,
                         testing::Values(0, 1, 3, 17, 18, 58, 64, 1499, 1500, 1518, 70000,
                                         4294967295U));

// The verdict is set by the intake and by it alone.

struct Outcome {
    const char* name;
    Bytes frame;
    const char* failing;
    long result;
    bool handled;
};

class OutcomeTest : public EngineTest, public testing::WithParamInterface<Outcome> {};

TEST_P(OutcomeTest, LeavesDiscardInForce) {
    fake::fail(GetParam().failing, {GetParam().result}, 2);
    adapter.setPostAction(SHM_Wrapper::eRepost);
    EXPECT_EQ(receive(GetParam().frame), 7);
    EXPECT_EQ(handle(GetParam().frame), GetParam().handled);
    EXPECT_EQ(storedVerdict(), 7);
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, OutcomeTest,
    testing::Values(
        Outcome{"Ipv4Sent", ipv4Frame(), "", 0, true},
        Outcome{"Ipv4WithoutVlan", ipv4Frame(), "cfg_vlan_l3_get_dest_vlan", -1, false},
        Outcome{"Ipv4WithoutMtu", ipv4Frame(), "cfg_vlan_l3_get_mtu", 0, false},
        Outcome{"Ipv4WithoutSocket", ipv4Frame(), "socket", -1, false},
        Outcome{"Ipv4NotSent", ipv4Frame(), "sendto", -1, true},
        Outcome{"Ipv6Sent", ipv6Frame(8), "", 0, true},
        Outcome{"Ipv6WithoutVlan", ipv6Frame(8), "cfg_vlan_l3_get_dest_vlan", 4095, false},
        Outcome{"Ipv6WithoutMtu", ipv6Frame(8), "cfg_vlan_l3_get_mtu", 0, false},
        Outcome{"Ipv6WithoutSocket", ipv6Frame(8), "arpd_icmp6_socket_create", -1, false},
        Outcome{"Ipv6NotSent", ipv6Frame(8), "arpd_ipv6_pkt_send", -1, false},
        Outcome{"Arp", frameOfType(0x0806), "", 0, false}),
    kCaseName);

TEST_F(IntakeTest, AloneSetsTheVerdictAndNotTheReplies) {
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_TRUE(reply4(ipv4Frame()));
    EXPECT_TRUE(reply6(ipv6Frame(8)));
    EXPECT_EQ(storedVerdict(), 8);
}

// Exceptions; the unit/daemon tests let each log statement and each address throw.

/// Thrown by the platform.
struct Gone {};

struct Throwing {
    const char* name;
    const char* call;
    Bytes frame;
    size_t open;  ///< sockets that stay open
};

class ExceptionTest : public EngineTest, public testing::WithParamInterface<Throwing> {};

TEST_P(ExceptionTest, OfThePlatformPassesTheCallbackLeavesDiscardAndSparesTheNextFrame) {
    fake::on(GetParam().call, [] { throw Gone(); });
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_THROW(receive(GetParam().frame), Gone);
    EXPECT_EQ(fake::syscalls().sent.size(), 0U);
    EXPECT_EQ(fake::openSockets.size(), GetParam().open);
    fake::on(GetParam().call, [] {});
    EXPECT_EQ(receive(GetParam().frame), 7);
    EXPECT_EQ(storedVerdict(), 7);
    EXPECT_TRUE(last(texts()).find("message sent to source") != std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Calls, ExceptionTest,
    testing::Values(Throwing{"VlanOfIpv4", "cfg_vlan_l3_get_dest_vlan", ipv4Frame(), 0},
                    Throwing{"MtuOfIpv4", "cfg_vlan_l3_get_mtu", ipv4Frame(), 0},
                    Throwing{"VlanOfIpv6", "cfg_vlan_l3_get_dest_vlan", ipv6Frame(8), 0},
                    Throwing{"MtuOfIpv6", "cfg_vlan_l3_get_mtu", ipv6Frame(8), 0},
                    Throwing{"SocketOfIpv6", "arpd_icmp6_socket_create", ipv6Frame(8), 0},
                    Throwing{"SendOfIpv6", "arpd_ipv6_pkt_send", ipv6Frame(8), 1}),
    kCaseName);

TEST_F(IntakeTest, ThatCannotWriteItsFirstLineSaysNothingElseAndDoesNotSetTheDiscard) {
    adapter.setPostAction(SHM_Wrapper::eAccept);
    {
        const CapturedLog log(qv::DEBUG);
        fake::clock().localtimeFails = true;
        EXPECT_THROW(handle(ipv4Frame()), std::runtime_error);
        EXPECT_EQ(log.text(), "\r\n");
    }
    EXPECT_EQ(texts(), Lines());
    EXPECT_EQ(storedVerdict(), 8);
}

TEST_F(IntakeTest, LetsAnAddressThatCannotBeWrittenThroughAsItsLibrarysException) {
    for (const Bytes& frame : {ipv4Frame(), ipv6Frame(8)}) {
        fake::fail("inet_ntop", {0, ENOSPC});
        EXPECT_THROW(receive(frame), boost::system::system_error);
    }
}

}  // namespace
}  // namespace engine_test
