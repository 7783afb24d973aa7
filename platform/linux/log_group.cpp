// SPDX-License-Identifier: MIT
// The NFLOG group: a socket on which the kernel delivers what the rules log.
#include "log_group.h"

#include <arpa/inet.h>
#include <libnetfilter_log/libnetfilter_log.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "netlink.h"
#include "netlink_request.h"

namespace pmtud_linux {

namespace {

// Large enough for what arrives, at the highest rates that the rules allow, while this process
// waits a few hundred milliseconds for a CPU.
constexpr int kReceiveBuffer = 8 << 20;

// Room for a copy and the message that refuses it, or for two copies. With the kernel's overhead
// this is one page. Every datagram, however short, takes up such a page in the socket's buffer.
constexpr uint32_t kCollected = 3712;
constexpr uint32_t kCollectedMessages = 16;

// Every request of this family needs CAP_NET_ADMIN; this one changes nothing.
int askGeneration(const MnlSocket& socket) {
    alignas(nlmsghdr) std::array<char, 64> buffer{};
    nlmsghdr* const message = mnl_nlmsg_put_header(buffer.data());
    message->nlmsg_type = (NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_GETGEN;
    mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg));
    return requestFromKernel(socket, message, nullptr, nullptr);
}

}  // namespace

int LogGroup::open(uint16_t group, uint32_t snapLength) {
    MnlSocket opened;
    if (const int result = openSocket(opened, NETLINK_NETFILTER, 0); result != 0) return result;
    const int socket = mnl_socket_get_fd(opened.get());
    setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof kReceiveBuffer);

    alignas(nlmsghdr) std::array<char, 256> buffer{};
    nlmsghdr* const message =
        nflog_nlmsg_put_header(buffer.data(), NFULNL_MSG_CONFIG, AF_UNSPEC, group);
    nflog_attr_put_cfg_cmd(message, NFULNL_CFG_CMD_BIND);
    nflog_attr_put_cfg_mode(message, NFULNL_COPY_PACKET, snapLength);
    mnl_attr_put_u32(message, NFULA_CFG_NLBUFSIZ, htonl(kCollected));
    mnl_attr_put_u32(message, NFULA_CFG_QTHRESH, htonl(kCollectedMessages));
    mnl_attr_put_u16(message, NFULA_CFG_FLAGS, htons(NFULNL_CFG_F_SEQ));
    const int result = requestFromKernel(opened, message, nullptr, nullptr);
    // EPERM may also mean that another process has the group.
    if (result == -EPERM && askGeneration(opened) != -EPERM) return -EBUSY;
    if (result != 0) return result;

    m_socket = std::move(opened);
    return 0;
}

int LogGroup::receive(std::array<Datagram, kAtOnce>& datagrams) {
    std::array<iovec, kAtOnce> pieces;
    std::array<sockaddr_nl, kAtOnce> senders;
    std::array<mmsghdr, kAtOnce> headers{};
    for (size_t i = 0; i < kAtOnce; ++i) {
        pieces[i] = {m_buffers[i].bytes.data(), kDatagramSize};
        headers[i].msg_hdr.msg_iov = &pieces[i];
        headers[i].msg_hdr.msg_iovlen = 1;
        headers[i].msg_hdr.msg_name = &senders[i];
        headers[i].msg_hdr.msg_namelen = sizeof senders[i];
    }
    const int count = recvmmsg(fd(), headers.data(), kAtOnce, MSG_DONTWAIT, nullptr);
    if (count < 0) return -errno;
    for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
        const bool isWhole = (headers[i].msg_hdr.msg_flags & MSG_TRUNC) == 0;
        const char* const bytes = m_buffers[i].bytes.data();
        datagrams[i].usable = isWhole && isFromKernel(senders[i], headers[i].msg_hdr.msg_namelen);
        datagrams[i].bytes = {bytes, wholeMessages(bytes, headers[i].msg_len)};
    }
    return count;
}

}  // namespace pmtud_linux
