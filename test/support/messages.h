// SPDX-License-Identifier: MIT
// Netlink messages byte by byte, as the kernel writes them, for the Linux platform's tests and fuzz
// targets.
#ifndef PMTUD_TEST_MESSAGES_H
#define PMTUD_TEST_MESSAGES_H

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "packets/bytes.h"

using packets::Bytes;
using packets::cut;
using packets::get16;
using packets::put16;
using packets::Span;
using packets::operator+;

/// One netlink message. Its numbers are in this machine's byte order.
struct Netlink {
    static constexpr size_t kHeader = sizeof(nlmsghdr);

    /// With zeros for the header of the family.
    Netlink(uint16_t type, size_t familyHeader, uint32_t sequence = 0)
        : bytes(kHeader + familyHeader) {
        header().nlmsg_type = type;
        header().nlmsg_seq = sequence;
        close();
    }

    static constexpr size_t aligned(size_t size) { return (size + 3) / 4 * 4; }

    Netlink& add(uint16_t type, Span payload) {
        const nlattr attribute{static_cast<uint16_t>(sizeof(nlattr) + payload.size()), type};
        const size_t start = bytes.size();
        bytes.resize(start + sizeof attribute);
        memcpy(&bytes[start], &attribute, sizeof attribute);
        bytes.insert(bytes.end(), payload.begin(), payload.end());
        bytes.resize(aligned(bytes.size()));
        return close();
    }

    /// With the terminating zero.
    Netlink& text(uint16_t type, const std::string& text) {
        return add(type, {reinterpret_cast<const uint8_t*>(text.c_str()), text.size() + 1});
    }

    Netlink& number(uint16_t type, uint32_t value) {
        return add(type, {reinterpret_cast<const uint8_t*>(&value), sizeof value});
    }

    /// In network order, as netfilter has its numbers.
    Netlink& netNumber(uint16_t type, uint32_t value) { return number(type, htonl(value)); }

    Netlink& nest(uint16_t type, const Netlink& inside) {
        return add(type, Span(inside.bytes).subspan(kHeader));
    }

    /// Its length becomes that of its bytes.
    Netlink& close() {
        header().nlmsg_len = static_cast<uint32_t>(bytes.size());
        return *this;
    }

    nlmsghdr& header() { return *reinterpret_cast<nlmsghdr*>(bytes.data()); }
    const nlmsghdr& header() const { return *reinterpret_cast<const nlmsghdr*>(bytes.data()); }

    Bytes bytes;
};

/// Attributes to be nested.
inline Netlink nested() { return {0, 0}; }

/// An interface as the kernel describes it.
inline Netlink linkMessage(uint16_t type, int index, uint16_t hardware = ARPHRD_ETHER,
                           uint8_t family = AF_UNSPEC) {
    Netlink message(type, sizeof(ifinfomsg));
    ifinfomsg link{};
    link.ifi_family = family;
    link.ifi_type = hardware;
    link.ifi_index = index;
    memcpy(&message.bytes[Netlink::kHeader], &link, sizeof link);
    return message;
}

/// A packet of a log group: NFNL_SUBSYS_ULOG and NFULNL_MSG_PACKET.
constexpr uint16_t kLoggedPacket = 0x0400;
inline Netlink logMessage() { return {kLoggedPacket, 4}; }

/// The kernel's acknowledgement, or a refusal with a negative errno value.
inline Netlink errorMessage(uint32_t sequence, int error, uint32_t port = 0) {
    Netlink message(NLMSG_ERROR, sizeof(nlmsgerr), sequence);
    message.header().nlmsg_pid = port;
    memcpy(&message.bytes[Netlink::kHeader], &error, sizeof error);
    return message;
}

#endif
