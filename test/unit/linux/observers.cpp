// SPDX-License-Identifier: MIT
// What a test sees of its world: packets, changes of the rules, counters.
#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if_ether.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <stdexcept>

#include "world.h"

Capture::Capture(const std::string& host, const std::string& interface) {
    const auto open = [&] {
        m_socket.reset(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        check(m_socket.valid(), "packet socket");
        constexpr int kRoom = 32 << 20;
        check(setsockopt(m_socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kRoom, sizeof kRoom) == 0,
              "room of a capture");
        constexpr int kYes = 1;
        check(
            setsockopt(m_socket.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &kYes, sizeof kYes) == 0,
            "incoming packets only");
        const sockaddr_ll link = address(indexOf(interface));
        check(bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&link), sizeof link) == 0,
              "bind");
    };
    if (host.empty())
        open();
    else
        onHost(host, open);
}

Bytes Capture::next(const std::function<bool(const Bytes&)>& wanted) {
    for (;;) {
        awaitReadable(m_socket.get(), "a packet");
        Bytes packet(65536);
        sockaddr_ll from{};
        socklen_t size = sizeof from;
        const ssize_t length = recvfrom(m_socket.get(), packet.data(), packet.size(), 0,
                                        reinterpret_cast<sockaddr*>(&from), &size);
        check(length >= 0, "recvfrom");
        m_packetType = from.sll_pkttype;
        m_etherType = ntohs(from.sll_protocol);
        packet.resize(static_cast<size_t>(length));
        if (wanted(packet)) return packet;
    }
}

RuleChanges::RuleChanges() {
    m_socket.reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
    check(m_socket.valid(), "netlink socket");
    // Bound: an unbound socket is left out of what the kernel itself sends.
    sockaddr_nl any{};
    any.nl_family = AF_NETLINK;
    check(bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0, "bind");
    constexpr int kGroup = NFNLGRP_NFTABLES;
    check(setsockopt(m_socket.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &kGroup, sizeof kGroup) ==
              0,
          "nftables events");
}

void RuleChanges::await() {
    for (;;) {
        awaitReadable(m_socket.get(), "a change of the rules");
        alignas(nlmsghdr) std::array<char, 65536> buffer;
        const ssize_t length = recv(m_socket.get(), buffer.data(), buffer.size(), 0);
        if (length < 0 && errno == ENOBUFS) {
            // There were more than the socket holds, and it takes none until it is empty.
            while (recv(m_socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT) >= 0) continue;
            return;
        }
        check(length >= 0, "nftables events");
        int left = static_cast<int>(length);
        const auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data());
        for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left))
            if (message->nlmsg_type == ((NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_NEWGEN)) return;
    }
}

uint64_t handedOver(const std::string& interface) {
    const std::string text = output("nft list counter inet pmtud " + interface);
    constexpr std::string_view kBefore = "packets ";
    const size_t at = text.find(kBefore);
    if (at == std::string::npos) throw std::runtime_error("no counter " + interface);
    return std::stoull(text.substr(at + kBefore.size()));
}

std::string ruleset() { return output("nft list ruleset"); }

bool isTooBig4(const Bytes& packet) {
    return packet.size() >= 48 && packet[0] == 0x45 && packet[9] == 1 &&
           get16(packet, 20) == 0x0304;
}

size_t mtuOf4(const Bytes& tooBig) { return get16(tooBig, 26); }
