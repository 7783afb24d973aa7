// SPDX-License-Identifier: MIT
// Tests of frame intake: what is logged of every frame, its verdict, exceptions of the platform.
// Its lines in order, and the verdict when a call fails, are in unit/daemon.
#include "engine_test.h"

namespace engine_test {
namespace {

class IntakeTest : public EngineTest {};

/// Values next to both EtherTypes, their bytes swapped, half of each, and other protocols'.
TEST_F(IntakeTest, ReportsOtherEtherTypesToTheDebugProcessAndDoesNothingElseWithThem) {
    for (const int type : {0x0000, 0x07FF, 0x0801, 0x0008, 0x86DC, 0x86DE, 0xDD86, 0x00DD, 0x8600,
                           0x08DD, 0x0806, 0x8100, 0x8847, 0xFFFF}) {
        Journal journal(qv::INFO);
        EXPECT_FALSE(handle(with(ipv4Frame(), 16, bytesOf(static_cast<uint16_t>(type))))) << type;
        EXPECT_EQ(journal.entries,
                  (Lines{"89 PMTUD-Prot: Received frame of size: 1600",
                         "89 PMTUD-Prot: Frame Src MAC: 00:00:5e:00:53:01, Dest MAC: "
                         "00:1a:2b:3c:4d:5e, Rx VLAN: 20, Tx egress: 77"}))
            << type;
    }
}

TEST_F(IntakeTest, LeavesTheTagProtocolIdentifierToTheAdapter) {
    EXPECT_TRUE(handle(with(ipv4Frame(), 12, {0x88, 0xA8})));
}

/// A length is not compared with anything.
TEST_F(IntakeTest, ShowsAnyLengthAsUnsignedAndAnswersTheFrameWhateverItIs) {
    for (const size_t length :
         {0U, 1U, 3U, 17U, 18U, 58U, 64U, 1499U, 1500U, 1518U, 70000U, 4294967295U}) {
        fake::reset();
        Bytes ipv4 = ipv4Frame();
        const Bytes ipv6 = ipv6Frame(1460);
        const std::string text = std::to_string(length);
        EXPECT_TRUE(app.handleFrame(ipv4.front(), length));
        EXPECT_EQ(texts().at(0), " PMTUD-Prot: Received frame of size: " + text);
        EXPECT_EQ(texts().at(2), " PMTUD-Prot: Received IPv4 packet len " + text + ":");
        EXPECT_EQ(cut(sent4().bytes, 8, 68), cut(ipv4, 18, 78));
        EXPECT_TRUE(app.sendICMP6PacketTooBig(ipv6.front(), length));
        EXPECT_EQ(texts().at(9), " PMTUD-Prot: Received IPv6 packet len " + text + ":");
        EXPECT_EQ(cut(sent6().bytes, 8, 1500), cut(ipv6, 18, 1510));
    }
}

TEST_F(IntakeTest, SetsTheVerdictAndTheRepliesDoNot) {
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_TRUE(reply4(ipv4Frame()));
    EXPECT_TRUE(reply6(ipv6Frame(8)));
    EXPECT_EQ(storedVerdict(), 8);
}

/// Thrown by the platform. In unit/daemon, each log statement and each address throws.
struct Gone {};

struct Throwing {
    const char* name;
    const char* call;
    Bytes frame;
    size_t open;  ///< sockets that stay open
};

class ExceptionTest : public EngineTest, public testing::WithParamInterface<Throwing> {};

TEST_P(ExceptionTest, OfThePlatformLeavesTheCallbackKeepsDiscardAndSparesTheNextFrame) {
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

}  // namespace
}  // namespace engine_test
