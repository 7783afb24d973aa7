// SPDX-License-Identifier: MIT
// The whole daemon at work: frames in by the queue, and what the platform is asked to send.
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "daemon_process.h"
#include "private_machine.h"

namespace {

class DaemonAtWork : public testing::Test {
 protected:
    void SetUp() override { enterPrivateMachine(); }

    static std::string logOfFrames(const std::string& statements) {
        DaemonProcess daemon(play(statements));
        daemon.logUntil("usleep(500)");
        return daemon.logUntil("frames done");
    }
};

// Tag VLAN 10, from fd00:10::2 to fd00:20::2, 4 bytes of payload.
const std::string kIpv6Packet =
    "60000000 0004 3b 40 fd000010000000000000000000000002 fd000020000000000000000000000002"
    "cafef00d";
const std::string kIpv6Frame = "frame 020000000001 02000000000a 8100000a 86dd" + kIpv6Packet + "\n";
const std::string kArpFrame = "frame 020000000001 02000000000a 8100000a 0806\n";
const std::string kRecord =
    "record unit=0 port=4 trunk=0 tid=0 vid=10 proto=2048 vtag=10 egress=7\n";

const std::string kIntakeOfIpv6Frame =
    "89 PMTUD-Prot: Received frame of size: 62\n"
    "89 PMTUD-Prot: Frame Src MAC: 02:00:00:00:00:0a, Dest MAC: "
    "02:00:00:00:00:01, Rx VLAN: 10, Tx egress: 7\n"
    "cfg_vlan_l3_get_dest_vlan(7)\n";

TEST_F(DaemonAtWork, AnswersAnIpv6FrameWithPacketTooBig) {
    EXPECT_EQ(logOfFrames("vlan 7 20\nmtu 20 1400\n" + kRecord + kIpv6Frame),
              kIntakeOfIpv6Frame +
                  "cfg_vlan_l3_get_mtu(20)\n"
                  "89 PMTUD-Prot: Received IPv6 packet len 62:\n"
                  "89 PMTUD-Prot:    From: fd00:10::2\n"
                  "89 PMTUD-Prot:    To: fd00:20::2\n"
                  "89 PMTUD-Prot:    Dest VLAN ID: 20\n"
                  "89 PMTUD-Prot:    Dest VLAN MTU: 1400\n"
                  "89 PMTUD-Prot: Creating ICMPv6 Packet Too Big "
                  "message. MTU size: 1400\n"
                  "arpd_icmp6_socket_create(\"bcm0.10\")\n"
                  "arpd_ipv6_pkt_send(606, 0) to fd000010000000000000000000000002: "
                  "0200000000000578"
                  "6000000000043b40fd000010000000000000000000000002"
                  "fd000020000000000000000000000002cafef00d\n"
                  "89 PMTUD-Prot: ICMPv6 message sent to source "
                  "fd00:10::2\n"
                  "verdict 7\n"
                  "frames done\n");
}

TEST_F(DaemonAtWork, DiscardsAFrameThatItCannotAnswer) {
    EXPECT_EQ(logOfFrames(kRecord + kArpFrame),
              "89 PMTUD-Prot: Received frame of size: 18\n"
              "89 PMTUD-Prot: Frame Src MAC: 02:00:00:00:00:0a, "
              "Dest MAC: 02:00:00:00:00:01, Rx VLAN: 10, Tx egress: 7\n"
              "verdict 7\n"
              "frames done\n");
}

TEST_F(DaemonAtWork, EndsByAbortWhereAnExceptionLeavesTheReceiveCallback) {
    DaemonProcess daemon(
        play("throw cfg_vlan_l3_get_dest_vlan 1 qv lost\n" + kRecord + kIpv6Frame));
    daemon.logUntil("usleep(500)");
    const Ending ending = daemon.ending();
    EXPECT_EQ(ending.how, "signal 6");
    EXPECT_EQ(ending.log.substr(0, kIntakeOfIpv6Frame.size()), kIntakeOfIpv6Frame);
    EXPECT_EQ(ending.log.find("[main:"), std::string::npos) << ending.log;
    EXPECT_EQ(ending.log.find("cfg_clear_pid"), std::string::npos) << ending.log;
}

TEST_F(DaemonAtWork, StaysParkedBehindItsFrames) {
    DaemonProcess daemon(play(kRecord + kArpFrame));
    daemon.logUntil("frames done");
    EXPECT_TRUE(daemon.isRunning());
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.ending(), (Ending{"signal 15", ""}));
}

}  // namespace
