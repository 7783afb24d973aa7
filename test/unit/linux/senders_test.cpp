// SPDX-License-Identifier: MIT
// Netlink messages that another process sends to the daemon's sockets.
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/rtnetlink.h>
#include <net/if_arp.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "calls.h"
#include "link_monitor.h"
#include "netlink_request.h"
#include "vlan_table.h"
#include "world.h"

using pmtud_linux::LinkMonitor;
using pmtud_linux::MnlSocket;
using pmtud_linux::VlanTable;

namespace {

uint32_t portOf(int fd) {
    sockaddr_nl address{};
    socklen_t size = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0)
        throw std::runtime_error("getsockname");
    return address.nl_pid;
}

// Sends the message to the socket with the port as any process with the privilege can.
void forge(int bus, uint32_t port, const nlmsghdr* message) {
    const MnlSocket socket(mnl_socket_open2(bus, SOCK_CLOEXEC));
    ASSERT_TRUE(socket);
    ASSERT_EQ(mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID), 0);
    sockaddr_nl to{};
    to.nl_family = AF_NETLINK;
    to.nl_pid = port;
    ASSERT_EQ(sendto(mnl_socket_get_fd(socket.get()), message, message->nlmsg_len, 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(message->nlmsg_len));
}

// That there is, or was, an interface bcm0.N.
void forgeLink(uint32_t port, uint16_t type, const std::string& name, int index, uint32_t mtu) {
    alignas(nlmsghdr) std::array<char, 256> bytes{};
    nlmsghdr* const message = mnl_nlmsg_put_header(bytes.data());
    message->nlmsg_type = type;
    auto* const link =
        static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg)));
    link->ifi_type = ARPHRD_ETHER;
    link->ifi_index = index;
    mnl_attr_put_strz(message, IFLA_IFNAME, name.c_str());
    mnl_attr_put_u32(message, IFLA_MTU, mtu);
    forge(NETLINK_ROUTE, port, message);
}

}  // namespace

class ForgedMessage : public World {};

TEST_F(ForgedMessage, OfALinkIsIgnored) {
    inOwnProcess([] {
        LinkMonitor monitor;
        VlanTable table;
        ASSERT_EQ(monitor.open(), 0);
        ASSERT_EQ(monitor.list(table), 0);
        const auto before = table.vlans();
        ASSERT_EQ(before.size(), 3U);
        const uint32_t port = portOf(monitor.fd());
        forgeLink(port, RTM_NEWLINK, "bcm0.40", 4711, 1280);
        forgeLink(port, RTM_NEWLINK, "bcm0.20", static_cast<int>(before.at(20).ifindex), 576);
        forgeLink(port, RTM_DELLINK, "bcm0.30", static_cast<int>(before.at(30).ifindex), 1000);
        EXPECT_FALSE(monitor.follow(table));
        EXPECT_EQ(table.vlans(), before);
        // The kernel's own are followed past them.
        forgeLink(port, RTM_NEWLINK, "bcm0.40", 4711, 1280);
        run("ip link set bcm0.20 mtu 1400");
        EXPECT_TRUE(monitor.follow(table));
        EXPECT_EQ(table.vlans().size(), 3U);
        EXPECT_EQ(table.vlans().at(20).mtu, 1400U);
    });
}

TEST_F(ForgedMessage, InAListOfLinksIsIgnored) {
    inOwnProcess([] {
        LinkMonitor monitor;
        VlanTable table;
        ASSERT_EQ(monitor.open(), 0);
        // The first request has the number 1: this claims to be its end.
        alignas(nlmsghdr) std::array<char, 64> bytes{};
        nlmsghdr* const done = mnl_nlmsg_put_header(bytes.data());
        done->nlmsg_type = NLMSG_DONE;
        done->nlmsg_seq = 1;
        // It arrives after what is older than the list has been thrown away.
        bool forged = false;
        calls.recvfrom = [&](int fd, void* buffer, size_t size, int flags, sockaddr* from,
                             socklen_t* fromSize) {
            const ssize_t received = real::recvfrom(fd, buffer, size, flags, from, fromSize);
            if (received >= 0 || forged) return received;
            forged = true;
            forge(NETLINK_ROUTE, portOf(fd), done);
            errno = EAGAIN;
            return received;
        };
        EXPECT_EQ(monitor.list(table), 0);
        EXPECT_TRUE(forged);
        EXPECT_FALSE(monitor.stale());
        EXPECT_EQ(table.vlans().size(), 3U);
    });
}

TEST_F(ForgedMessage, ThatAnswersARequestOfNetfilterIsIgnored) {
    inOwnProcess([] {
        const MnlSocket socket(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC | SOCK_NONBLOCK));
        ASSERT_TRUE(socket);
        ASSERT_EQ(mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID), 0);
        const uint32_t port = mnl_socket_get_portid(socket.get());

        alignas(nlmsghdr) std::array<char, 64> refusal{};
        nlmsghdr* const message = mnl_nlmsg_put_header(refusal.data());
        message->nlmsg_type = NLMSG_ERROR;
        message->nlmsg_seq = 1;
        message->nlmsg_pid = port;
        auto* const error =
            static_cast<nlmsgerr*>(mnl_nlmsg_put_extra_header(message, sizeof(nlmsgerr)));
        error->error = -EBUSY;
        forge(NETLINK_NETFILTER, port, message);

        alignas(nlmsghdr) std::array<char, 64> bytes{};
        nlmsghdr* const request = mnl_nlmsg_put_header(bytes.data());
        request->nlmsg_type = (NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_GETGEN;
        mnl_nlmsg_put_extra_header(request, sizeof(nfgenmsg));
        EXPECT_EQ(pmtud_linux::requestFromKernel(socket, request, nullptr, nullptr), 0);
    });
}
