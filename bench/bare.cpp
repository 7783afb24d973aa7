// SPDX-License-Identifier: MIT
// Answers like the daemon, with the least work possible: the floor for the daemon's figures.
#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_log/libnetfilter_log.h>
#include <linux/netfilter/nfnetlink.h>
#include <netinet/in.h>
#include <nftables/libnftables.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "check.h"

namespace {

using machine::check;

constexpr uint16_t kGroup = 90;
constexpr uint16_t kMtu = 1400;
constexpr size_t kAtOnce = 16;

// Packets that arrive on a VLAN and are too long for the lab's VLAN 20 are copied whole, one
// message per packet. The kernel's own answers are dropped; those of processes pass.
constexpr char kTable[] = R"(table inet bare {
    flags owner
    chain prerouting {
        type filter hook prerouting priority 350; policy accept;
        iifname "bcm0.*" meta length > 1400 log group 90 snaplen 1500 queue-threshold 1
    }
    chain postrouting {
        type filter hook postrouting priority 1000000; policy accept;
        meta skuid 0-4294967295 accept
        icmp type destination-unreachable icmp code frag-needed drop
        icmpv6 type packet-too-big drop
    }
})";

struct Packet {
    uint32_t ingress = 0;
    const uint8_t* bytes = nullptr;
    size_t size = 0;
};

int readAttribute(const nlattr* attribute, void* data) {
    Packet& packet = *static_cast<Packet*>(data);
    const auto* const bytes = static_cast<const uint8_t*>(mnl_attr_get_payload(attribute));
    if (mnl_attr_get_type(attribute) == NFULA_IFINDEX_INDEV) {
        memcpy(&packet.ingress, bytes, sizeof packet.ingress);
        packet.ingress = ntohl(packet.ingress);
    } else if (mnl_attr_get_type(attribute) == NFULA_PAYLOAD) {
        packet.bytes = bytes;
        packet.size = mnl_attr_get_payload_len(attribute);
    }
    return MNL_CB_OK;
}

uint16_t checksum(const uint8_t* bytes, size_t size) {
    uint32_t sum = 0;
    for (size_t i = 0; i < size; i += 2) sum += static_cast<uint32_t>(bytes[i] << 8 | bytes[i + 1]);
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return htons(static_cast<uint16_t>(~sum));
}

// Quotes as much of the packet as the daemon does: 60 bytes.
void answerIpv4(const Packet& packet) {
    std::array<uint8_t, 68> message{3, 4, 0, 0, 0, 0, kMtu >> 8, kMtu & 0xFF};
    std::copy_n(packet.bytes, message.size() - 8, message.begin() + 8);
    const uint16_t sum = checksum(message.data(), message.size());
    memcpy(&message[2], &sum, sizeof sum);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    memcpy(&to.sin_addr, packet.bytes + 12, sizeof to.sin_addr);
    const uint8_t ttl = 64;
    const int raw = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
    setsockopt(raw, IPPROTO_IP, IP_TTL, &ttl, sizeof ttl);
    sendto(raw, message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&to),
           sizeof to);
    close(raw);
}

// Quotes as much as the MTU allows, like the daemon.
void answerIpv6(const Packet& packet) {
    std::array<uint8_t, kMtu> message{2, 0, 0, 0, 0, 0, kMtu >> 8, kMtu & 0xFF};
    std::copy_n(packet.bytes, message.size() - 8, message.begin() + 8);
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    memcpy(&to.sin6_addr, packet.bytes + 8, sizeof to.sin6_addr);
    const int raw = socket(AF_INET6, SOCK_RAW, IPPROTO_ICMPV6);
    setsockopt(raw, SOL_SOCKET, SO_BINDTOIFINDEX, &packet.ingress, sizeof packet.ingress);
    iovec piece{message.data(), message.size()};
    const msghdr header{&to, sizeof to, &piece, 1, nullptr, 0, 0};
    sendmsg(raw, &header, 0);
    close(raw);
}

void answer(const nlmsghdr& message) {
    if (message.nlmsg_type != ((NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_PACKET)) return;
    Packet packet;
    mnl_attr_parse(&message, sizeof(nfgenmsg), readAttribute, &packet);
    if (packet.size <= kMtu) return;
    if (packet.bytes[0] >> 4 == 4)
        answerIpv4(packet);
    else
        answerIpv6(packet);
}

int openGroup() {
    mnl_socket* const opened = mnl_socket_open(NETLINK_NETFILTER);
    check(opened != nullptr && mnl_socket_bind(opened, 0, MNL_SOCKET_AUTOPID) == 0, "netlink");
    const int group = mnl_socket_get_fd(opened);
    constexpr int kRoom = 8 << 20;
    check(setsockopt(group, SOL_SOCKET, SO_RCVBUFFORCE, &kRoom, sizeof kRoom) == 0, "buffer");
    alignas(nlmsghdr) std::array<char, 256> buffer{};
    nlmsghdr* const message =
        nflog_nlmsg_put_header(buffer.data(), NFULNL_MSG_CONFIG, AF_UNSPEC, kGroup);
    nflog_attr_put_cfg_cmd(message, NFULNL_CFG_CMD_BIND);
    nflog_attr_put_cfg_mode(message, NFULNL_COPY_PACKET, 1500);
    message->nlmsg_flags |= NLM_F_REQUEST | NLM_F_ACK;
    check(mnl_socket_sendto(opened, message, message->nlmsg_len) > 0, "binding the group");
    const ssize_t size = mnl_socket_recvfrom(opened, buffer.data(), buffer.size());
    check(size > 0 && mnl_cb_run(buffer.data(), static_cast<size_t>(size), 0,
                                 mnl_socket_get_portid(opened), nullptr, nullptr) >= 0,
          "binding the group");
    return group;
}

[[noreturn]] void answerAll(int group) {
    struct alignas(nlmsghdr) Buffer {
        std::array<char, 8192> bytes;
    };
    static std::array<Buffer, kAtOnce> buffers;
    std::array<iovec, kAtOnce> pieces;
    std::array<mmsghdr, kAtOnce> headers{};
    for (size_t i = 0; i < kAtOnce; ++i) {
        pieces[i] = {buffers[i].bytes.data(), buffers[i].bytes.size()};
        headers[i].msg_hdr.msg_iov = &pieces[i];
        headers[i].msg_hdr.msg_iovlen = 1;
    }
    for (;;) {
        const int count = recvmmsg(group, headers.data(), kAtOnce, MSG_WAITFORONE, nullptr);
        check(count > 0, "receiving");
        for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
            int left = static_cast<int>(headers[i].msg_len);
            const auto* message = reinterpret_cast<const nlmsghdr*>(buffers[i].bytes.data());
            for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left))
                answer(*message);
        }
    }
}

}  // namespace

int main() {
    try {
        const int group = openGroup();
        nft_ctx* const rules = nft_ctx_new(NFT_CTX_DEFAULT);
        if (rules == nullptr || nft_run_cmd_from_buffer(rules, kTable) != 0)
            throw std::runtime_error("the rules could not be installed");
        answerAll(group);
    } catch (const std::exception& error) {
        fprintf(stderr, "pmtud_bare: %s\n", error.what());
        return 1;
    }
}
