// SPDX-License-Identifier: MIT
// The NFLOG group: a socket on which the kernel delivers the packets that rules copy to it.
#include "log_group.h"

#include <arpa/inet.h>
#include <libnetfilter_log/libnetfilter_log.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "netlink.h"

namespace pmtud_linux {

namespace {

// The sender of a burst should not find the socket full while a reply is being built.
constexpr int receiveBuffer = 4 << 20;

// The kernel handles a request, and queues its answer, before the send returns.
int request(const MnlSocket& socket, nlmsghdr* message) {
    message->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    message->nlmsg_seq = 1;
    if (mnl_socket_sendto(socket.get(), message, message->nlmsg_len) < 0) return -errno;
    for (;;) {
        alignas(nlmsghdr) std::array<char, 8192> buffer;
        const ssize_t received = mnl_socket_recvfrom(socket.get(), buffer.data(), buffer.size());
        if (received < 0) return -errno;
        const unsigned int port = mnl_socket_get_portid(socket.get());
        const size_t whole = wholeMessages(buffer.data(), static_cast<size_t>(received));
        const int result = mnl_cb_run(buffer.data(), whole, 1, port, nullptr, nullptr);
        if (result == MNL_CB_STOP) return 0;
        if (result == MNL_CB_ERROR) return -errno;
    }
}

// Any request of this family needs CAP_NET_ADMIN; this one changes nothing.
int askGeneration(const MnlSocket& socket) {
    alignas(nlmsghdr) std::array<char, 64> buffer{};
    nlmsghdr* const message = mnl_nlmsg_put_header(buffer.data());
    message->nlmsg_type = (NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_GETGEN;
    mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg));
    return request(socket, message);
}

}  // namespace

int LogGroup::open(uint16_t group, uint32_t snapLength) {
    MnlSocket opened(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!opened) return -errno;
    if (mnl_socket_bind(opened.get(), 0, MNL_SOCKET_AUTOPID) < 0) return -errno;
    const int socket = mnl_socket_get_fd(opened.get());
    setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer);

    std::array<char, 256> buffer{};
    nlmsghdr* const message =
        nflog_nlmsg_put_header(buffer.data(), NFULNL_MSG_CONFIG, AF_UNSPEC, group);
    nflog_attr_put_cfg_cmd(message, NFULNL_CFG_CMD_BIND);
    nflog_attr_put_cfg_mode(message, NFULNL_COPY_PACKET, snapLength);
    mnl_attr_put_u32(message, NFULA_CFG_QTHRESH, htonl(1));
    mnl_attr_put_u16(message, NFULA_CFG_FLAGS, htons(NFULNL_CFG_F_SEQ));
    const int result = request(opened, message);
    // The kernel refuses another process's group with EPERM too.
    if (result == -EPERM && askGeneration(opened) != -EPERM) return -EBUSY;
    if (result != 0) return result;

    m_socket = std::move(opened);
    return 0;
}

}  // namespace pmtud_linux
