// SPDX-License-Identifier: MIT
// ICMPv6 messages that the kernel sends.
#include "arpd.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "world.h"

using pmtud_linux::Descriptor;

namespace {

sockaddr_in6 destination(const char* text) {
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    inet_pton(AF_INET6, text, &to.sin6_addr);
    return to;
}

// A Packet Too Big message of that many bytes, with the MTU 1,280 and no checksum.
Bytes packetTooBig(size_t size) {
    return Bytes{2, 0, 0, 0, 0x00, 0x00, 0x05, 0x00} + Bytes(size - 8, 0x5a);
}

int sendMessage(int fd, const char* to, Bytes message, int interface) {
    const sockaddr_in6 address = destination(to);
    const iovec piece{message.data(), message.size()};
    return arpd_ipv6_pkt_send(fd, &address, &piece, 1, static_cast<uint32_t>(interface));
}

// A socket on host a. The kernel there has reassembled what it receives and checked the checksum.
Descriptor receiverOnA() {
    Descriptor receiver;
    inNetwork("a",
              [&] { receiver.reset(socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6)); });
    return receiver;
}

Bytes receivePacketTooBig(const Descriptor& receiver) {
    for (;;) {
        awaitReadable(receiver.get(), "an ICMPv6 message");
        Bytes message(65536);
        const ssize_t length = recv(receiver.get(), message.data(), message.size(), 0);
        message.resize(length > 0 ? static_cast<size_t>(length) : 0);
        if (!message.empty() && message[0] == 2) return message;
    }
}

ptrdiff_t openDescriptors() {
    using Entries = std::filesystem::directory_iterator;
    return std::distance(Entries("/proc/self/fd"), Entries());
}

// The kernel accepts packets to a new address once it has added a route for it. It does that after
// the command has ended, even without duplicate address detection.
void awaitAddress(const std::string& address) {
    await("an address", [&] { return !output("ip -6 route show table local " + address).empty(); });
}

}  // namespace

class Icmp6Send : public World {
 protected:
    static Descriptor open(const char* interface) {
        int32_t fd = -1;
        EXPECT_EQ(arpd_icmp6_socket_create(&fd, interface), 0);
        return Descriptor(fd);
    }
};

TEST_F(Icmp6Send, JoinsThePiecesAndFillsInChecksumAndSource) {
    Capture atA("a");
    const Descriptor fd = open("bcm0.10");
    Bytes head = {2, 0, 0, 0, 0, 0, 5, 0};
    Bytes quote = {1, 2, 3};
    const iovec pieces[] = {{head.data(), head.size()}, {quote.data(), quote.size()}};
    const sockaddr_in6 to = destination("2001:db8:10::2");
    EXPECT_EQ(arpd_ipv6_pkt_send(fd.get(), &to, pieces, 2, if_nametoindex("bcm0.10")), 11);
    const Bytes packet = atA.next([](const Bytes& bytes) { return bytes.size() == 51; });
    EXPECT_EQ(packets::transportChecksum(packet, 40, 58), 0);
    EXPECT_NE(packets::get16(packet, 42), 0U);
    EXPECT_EQ(cut(packet, 8, 40),
              Bytes({0x20, 1, 0x0d, 0xb8, 0, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1,
                     0x20, 1, 0x0d, 0xb8, 0, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}));
    EXPECT_EQ(cut(packet, 44, 51), Bytes({0, 0, 5, 0, 1, 2, 3}));
}

TEST_F(Icmp6Send, SendsAMessageLargerThanTheLinkInFragments) {
    Capture atA("a");
    const Descriptor receiver = receiverOnA();
    const Descriptor fd = open("bcm0.10");
    EXPECT_EQ(sendMessage(fd.get(), "2001:db8:10::2", packetTooBig(1500), indexOf("bcm0.10")),
              1500);
    const auto isFragment = [](const Bytes& packet) {
        return packet.size() > 40 && packet[0] >> 4 == 6 && packet[6] == 44;
    };
    EXPECT_LE(atA.next(isFragment).size(), 1500U);
    EXPECT_LE(atA.next(isFragment).size(), 1500U);
    const Bytes message = receivePacketTooBig(receiver);
    ASSERT_EQ(message.size(), 1500U);
    EXPECT_EQ(message[1499], 0x5a);
}

TEST_F(Icmp6Send, ReachesALinkLocalAddressWithoutScopeId) {
    inNetwork("a", [] {
        run("ip addr add fe80::2/64 dev eth0 nodad");
        awaitAddress("fe80::2");
    });
    run("ip addr add fe80::1/64 dev bcm0.10 nodad");
    awaitAddress("fe80::1");
    run("ip neigh replace fe80::2 lladdr 02:00:00:00:10:02 dev bcm0.10");
    const Descriptor receiver = receiverOnA();
    const Descriptor fd = open("bcm0.10");
    EXPECT_EQ(sendMessage(fd.get(), "fe80::2", packetTooBig(48), indexOf("bcm0.10")), 48);
    EXPECT_EQ(receivePacketTooBig(receiver).size(), 48U);
    EXPECT_EQ(sendMessage(fd.get(), "fe80::2", packetTooBig(56), 0), 56);
    EXPECT_EQ(receivePacketTooBig(receiver).size(), 56U);
}

TEST_F(Icmp6Send, LeavesViaTheInterfaceEvenIfTheRouteLeadsElsewhere) {
    // According to the switch's routing table, the sender is on VLAN 20.
    Capture atA("a");
    run("ip route add 2001:db8:99::/64 dev bcm0.20");
    run("ip route add 2001:db8:99::/64 dev bcm0.10 metric 5000");
    run("ip neigh add 2001:db8:99::2 lladdr 02:00:00:00:10:02 dev bcm0.10");
    const Descriptor fd = open("bcm0.10");
    EXPECT_EQ(sendMessage(fd.get(), "2001:db8:99::2", packetTooBig(48), indexOf("bcm0.10")), 48);
    EXPECT_EQ(atA.nextAnswer().packetLength, 88U);
}

TEST_F(Icmp6Send, ReceivesNothing) {
    const Descriptor fd = open("bcm0.10");
    const Descriptor other(socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6));
    constexpr uint8_t kEchoReply = 129;
    const std::string from = "2001:db8:10::2";
    const std::string to = "2001:db8:10::1";
    send(bytesOf(Ipv6{.size = 48,
                      .from = from,
                      .to = to,
                      .nextHeader = 58,
                      .payload = packets::icmp6(kEchoReply, 0, 8, from, to)}));
    awaitReadable(other.get(), "the echo reply");
    pollfd readable{fd.get(), POLLIN, 0};
    EXPECT_EQ(poll(&readable, 1, 0), 0);
}

TEST_F(Icmp6Send, NeedsAnInterfaceThatExists) {
    const ptrdiff_t before = openDescriptors();
    int32_t fd = -7;
    EXPECT_EQ(arpd_icmp6_socket_create(&fd, "bcm0.99"), -ENODEV);
    EXPECT_EQ(arpd_icmp6_socket_create(&fd, "bcm0.10-and-more-of-it"), -ENODEV);
    // The name below, truncated to fifteen bytes, would be this one.
    run("ip link add bcm0.10-and-mor type veth peer name other");
    EXPECT_EQ(arpd_icmp6_socket_create(&fd, "bcm0.10-and-more"), -ENODEV);

    EXPECT_EQ(arpd_icmp6_socket_create(&fd, ""), -EINVAL);
    EXPECT_EQ(arpd_icmp6_socket_create(&fd, nullptr), -EINVAL);
    EXPECT_EQ(arpd_icmp6_socket_create(nullptr, "bcm0.10"), -EINVAL);
    EXPECT_EQ(fd, -7);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(arpd_icmp6_socket_create(&fd, "bcm0.10-and-mor"), 0);
    const Descriptor longest(fd);
}

TEST_F(Icmp6Send, ReportsWhyAMessageCouldNotBeSent) {
    const Descriptor fd = open("bcm0.10");
    EXPECT_EQ(sendMessage(-1, "2001:db8:10::2", packetTooBig(48), 0), -EBADF);
    EXPECT_EQ(sendMessage(fd.get(), "2001:db9::1", packetTooBig(48), 0), -ENETUNREACH);
    const sockaddr_in6 to = destination("2001:db8:10::2");
    const iovec piece{nullptr, 0};
    EXPECT_EQ(arpd_ipv6_pkt_send(fd.get(), nullptr, &piece, 1, 0), -EINVAL);
    EXPECT_EQ(arpd_ipv6_pkt_send(fd.get(), &to, nullptr, 1, 0), -EINVAL);
    EXPECT_EQ(arpd_ipv6_pkt_send(fd.get(), &to, &piece, 0, 0), -EINVAL);
    EXPECT_EQ(arpd_ipv6_pkt_send(fd.get(), &to, &piece, -1, 0), -EINVAL);
}

TEST_F(Icmp6Send, BindsItsSocketToAnInterfaceWithTheVlansAlternativeName) {
    run("ip link property add dev fence altname bcm0.40");
    const Descriptor socket = open("bcm0.40");
    std::array<char, IFNAMSIZ> bound{};
    socklen_t size = bound.size();
    ASSERT_EQ(getsockopt(socket.get(), SOL_SOCKET, SO_BINDTODEVICE, bound.data(), &size), 0);
    EXPECT_STREQ(bound.data(), "fence");
}
