// SPDX-License-Identifier: MIT
// The whole daemon at work: frames in by the queue, and what the platform is asked to send.
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/if_ether.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdlib>
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

// A pair of interfaces, of which the platform sends by bcm0.10 and the test listens at host10.
class DaemonOnARealInterface : public DaemonAtWork {
 protected:
    void SetUp() override {
        DaemonAtWork::SetUp();
        ASSERT_EQ(system("set -e\n"
                         "sysctl -qw net.ipv6.conf.default.accept_dad=0 "
                         "net.ipv6.conf.default.router_solicitations=0\n"
                         "ip link add bcm0.10 address 02:00:00:00:00:01 type veth "
                         "peer name host10 address 02:00:00:00:00:0a\n"
                         "sysctl -qw net.ipv6.conf.host10.disable_ipv6=1\n"
                         "ip link set bcm0.10 up\n"
                         "ip link set host10 up\n"
                         "ip address add fd00:10::1/64 dev bcm0.10 nodad\n"
                         "ip neighbour add fd00:10::2 lladdr 02:00:00:00:00:0a dev bcm0.10\n"),
                  0);
        m_socket = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IPV6));
        ASSERT_NE(m_socket, -1);
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_IPV6);
        address.sll_ifindex = static_cast<int>(if_nametoindex("host10"));
        ASSERT_EQ(bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    void TearDown() override { close(m_socket); }

    /// The next frame whose ICMPv6 message is of this type, in hexadecimal; "" after 10 s.
    std::string nextIcmp6Frame(uint8_t type) const {
        std::array<uint8_t, 2048> bytes{};
        pollfd readable{m_socket, POLLIN, 0};
        while (poll(&readable, 1, 10000) == 1) {
            const auto length = recv(m_socket, bytes.data(), bytes.size(), 0);
            if (length < 58 || bytes[20] != IPPROTO_ICMPV6 || bytes[54] != type) continue;
            std::string text;
            for (std::size_t i = 0; i < static_cast<std::size_t>(length); ++i) {
                constexpr char kDigits[] = "0123456789abcdef";
                text += kDigits[bytes[i] / 16];
                text += kDigits[bytes[i] % 16];
            }
            return text;
        }
        return "";
    }

 private:
    int m_socket = -1;
};

TEST_F(DaemonOnARealInterface, SendsPacketTooBigWithItsChecksumOutOfTheTagVlan) {
    DaemonProcess daemon(play("arpd real\nvlan 7 20\nmtu 20 1400\n" + kRecord + kIpv6Frame));
    daemon.logUntil("frames done");
    const std::string frame = nextIcmp6Frame(2);
    ASSERT_EQ(frame.size(), 2U * (14 + 40 + 52));
    EXPECT_EQ(frame.substr(0, 28),
              "02000000000a"
              "020000000001"
              "86dd");
    // From the payload length on: the flow label before it is the kernel's choice.
    EXPECT_EQ(frame.substr(2 * 18),
              "00343a40"
              "fd000010000000000000000000000001"
              "fd000010000000000000000000000002"
              "0200ad6d00000578"
              "6000000000043b40fd000010000000000000000000000002"
              "fd000020000000000000000000000002cafef00d");
}

}  // namespace
