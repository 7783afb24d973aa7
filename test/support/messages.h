// SPDX-License-Identifier: MIT
// Packets and netlink messages byte by byte, as hosts and the kernel write them, for the Linux
// platform's tests and fuzz targets.
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
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;
using Span = std::span<const uint8_t>;

struct Ipv4 {
    size_t size = 1400;  ///< header included
    bool dontFragment = true;
    uint16_t identification = 0x1234;
    uint8_t protocol = 17;
    std::string source = "10.0.10.2";
    std::string destination = "10.0.20.2";
    Bytes start = {};  ///< of the payload; bytes 0xa5 follow
};

struct Ipv6 {
    size_t size = 1400;  ///< header included
    uint8_t nextHeader = 17;
    std::string source = "fd00:10::2";
    std::string destination = "fd00:20::2";
    Bytes start = {};
};

inline void put16(Bytes& bytes, size_t at, size_t value) {
    bytes.at(at) = static_cast<uint8_t>(value >> 8);
    bytes.at(at + 1) = static_cast<uint8_t>(value);
}

inline size_t get16(Span bytes, size_t at) { return size_t{bytes[at]} << 8 | bytes[at + 1]; }

inline Bytes cut(Span bytes, size_t from, size_t to) {
    const Span part = bytes.subspan(from, to - from);
    return {part.begin(), part.end()};
}

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// The Internet checksum (RFC 1071) of the bytes: 0 over what carries a right one.
inline uint16_t checksum(Span bytes) {
    size_t sum = 0;
    for (size_t i = 0; i < bytes.size(); ++i) sum += i % 2 == 0 ? bytes[i] * 256U : bytes[i];
    while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum & 0xffff);
}

/// The checksum over an IPv6 packet's payload and pseudo-header (RFC 8200 section 8.1).
inline uint16_t transportChecksum(const Bytes& ipv6Packet) {
    Bytes length(8);
    put16(length, 2, ipv6Packet.size() - 40);
    length[7] = ipv6Packet[6];
    return checksum(cut(ipv6Packet, 8, 40) + length + cut(ipv6Packet, 40, ipv6Packet.size()));
}

inline void putAddress(int family, const std::string& text, uint8_t* to) {
    if (inet_pton(family, text.c_str(), to) != 1) throw std::invalid_argument(text);
}

/// The whole packet, with its header checksum.
inline Bytes packet(const Ipv4& ipv4) {
    Bytes bytes(ipv4.size, 0xa5);
    std::fill_n(bytes.begin(), 20, uint8_t{0});
    std::copy(ipv4.start.begin(), ipv4.start.end(), bytes.begin() + 20);
    bytes[0] = 0x45;
    put16(bytes, 2, ipv4.size);
    put16(bytes, 4, ipv4.identification);
    bytes[6] = ipv4.dontFragment ? 0x40 : 0;
    bytes[8] = 64;
    bytes[9] = ipv4.protocol;
    putAddress(AF_INET, ipv4.source, &bytes[12]);
    putAddress(AF_INET, ipv4.destination, &bytes[16]);
    put16(bytes, 10, checksum(cut(bytes, 0, 20)));
    return bytes;
}

inline Bytes packet(const Ipv6& ipv6) {
    Bytes bytes(ipv6.size, 0xa5);
    std::fill_n(bytes.begin(), 40, uint8_t{0});
    std::copy(ipv6.start.begin(), ipv6.start.end(), bytes.begin() + 40);
    bytes[0] = 0x60;
    put16(bytes, 4, ipv6.size - 40);
    bytes[6] = ipv6.nextHeader;
    bytes[7] = 64;
    putAddress(AF_INET6, ipv6.source, &bytes[8]);
    putAddress(AF_INET6, ipv6.destination, &bytes[24]);
    return bytes;
}

/// The IPv6 packet with the checksum of its payload, which is zero so far, at the offset.
inline Bytes withChecksum(Bytes ipv6Packet, size_t at) {
    put16(ipv6Packet, at, transportChecksum(ipv6Packet));
    return ipv6Packet;
}

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

/// What the kernel tells of an interface.
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
