// SPDX-License-Identifier: MIT
// ICMPv6 messages that the kernel sends.
#include "arpd.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

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

int sendMessage(int fd, const char* to, Bytes message, uint32_t ifindex) {
    const sockaddr_in6 address = destination(to);
    const iovec piece{message.data(), message.size()};
    return arpd_ipv6_pkt_send(fd, &address, &piece, 1, ifindex);
}

bool isPacketTooBig(const Bytes& packet) {
    return packet.size() > 41 && packet[0] >> 4 == 6 && packet[6] == 58 && packet[40] == 2;
}

int openDescriptors() {
    DIR* const directory = opendir("/proc/self/fd");
    int count = 0;
    while (readdir(directory) != nullptr) ++count;
    closedir(directory);
    return count;
}

// A socket on host a that gets the Packet Too Big messages as the kernel there accepts
// them: fragments put together, the checksum found right.
Descriptor receiverOnA() {
    Descriptor receiver;
    onHost("a", [&] { receiver.reset(socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6)); });
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

// The kernel accepts packets to a new address once it has added the route for it, which it does
// after the command that adds the address has ended, also without duplicate address detection.
void awaitAddress(const std::string& address) {
    const auto limit = std::chrono::steady_clock::now() + kPatience;
    while (output("ip -6 route show table local " + address).empty()) {
        if (std::chrono::steady_clock::now() > limit)
            throw std::runtime_error("timed out waiting for " + address);
        std::this_thread::yield();
    }
}

}  // namespace

class Icmp6Send : public World {
 protected:
    Descriptor open(const char* interface) {
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
    const sockaddr_in6 to = destination("fd00:10::2");
    EXPECT_EQ(arpd_ipv6_pkt_send(fd.get(), &to, pieces, 2, if_nametoindex("bcm0.10")), 11);
    const Bytes packet = atA.next(isPacketTooBig);
    EXPECT_EQ(transportChecksum(packet), 0);
    EXPECT_NE(get16(packet, 42), 0U);
    EXPECT_EQ(cut(packet, 8, 40), Bytes({0xfd, 0, 0, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1,
                                         0xfd, 0, 0, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}));
    EXPECT_EQ(cut(packet, 44, packet.size()), Bytes({0, 0, 5, 0, 1, 2, 3}));
}

TEST_F(Icmp6Send, SendsAMessageLargerThanTheLinkInFragments) {
    Capture atA("a");
    const Descriptor receiver = receiverOnA();
    const Descriptor fd = open("bcm0.10");
    EXPECT_EQ(sendMessage(fd.get(), "fd00:10::2", packetTooBig(1500), if_nametoindex("bcm0.10")),
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
    onHost("a", [] {
        run("ip addr add fe80::2/64 dev eth0 nodad");
        awaitAddress("fe80::2");
    });
    run("ip addr add fe80::1/64 dev bcm0.10 nodad");
    awaitAddress("fe80::1");
    run("ip neigh replace fe80::2 lladdr 02:00:00:00:10:02 dev bcm0.10");
    const Descriptor receiver = receiverOnA();
    const Descriptor fd = open("bcm0.10");
    EXPECT_EQ(sendMessage(fd.get(), "fe80::2", packetTooBig(48), if_nametoindex("bcm0.10")), 48);
    EXPECT_EQ(receivePacketTooBig(receiver).size(), 48U);
    EXPECT_EQ(sendMessage(fd.get(), "fe80::2", packetTooBig(56), 0), 56);
    EXPECT_EQ(receivePacketTooBig(receiver).size(), 56U);
}

TEST_F(Icmp6Send, LeavesByTheInterfaceEvenWhereTheRouteLeadsElsewhere) {
    // The source of the offending packet, as the routing table of the switch sees it, is on
    // VLAN 20.
    Capture atA("a");
    run("ip route add fd00:99::/64 dev bcm0.20");
    run("ip route add fd00:99::/64 dev bcm0.10 metric 5000");
    run("ip neigh add fd00:99::2 lladdr 02:00:00:00:10:02 dev bcm0.10");
    const Descriptor fd = open("bcm0.10");
    EXPECT_EQ(sendMessage(fd.get(), "fd00:99::2", packetTooBig(48), if_nametoindex("bcm0.10")), 48);
    EXPECT_EQ(atA.next(isPacketTooBig).size(), 88U);
}

TEST_F(Icmp6Send, ReceivesNothing) {
    const Descriptor fd = open("bcm0.10");
    const Descriptor other(socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6));
    send(withChecksum(packet(Ipv6{.size = 48,
                                  .nextHeader = 58,
                                  .destination = "fd00:10::1",
                                  .start = {129, 0, 0, 0, 0, 0, 0, 0}}),
                      42));
    awaitReadable(other.get(), "the echo reply");
    pollfd readable{fd.get(), POLLIN, 0};
    EXPECT_EQ(poll(&readable, 1, 0), 0);
}

TEST_F(Icmp6Send, NeedsAnInterfaceThatIsThere) {
    const int before = openDescriptors();
    int32_t fd = -7;
    EXPECT_EQ(arpd_icmp6_socket_create(&fd, "bcm0.99"), -ENODEV);
    EXPECT_EQ(arpd_icmp6_socket_create(&fd, "bcm0.10-and-more-of-it"), -ENODEV);
    // Cut short after fifteen bytes it would be another one's.
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

TEST_F(Icmp6Send, SaysWhyAMessageCouldNotBeSent) {
    const Descriptor fd = open("bcm0.10");
    EXPECT_EQ(sendMessage(-1, "fd00:10::2", packetTooBig(48), 0), -EBADF);
    EXPECT_EQ(sendMessage(fd.get(), "2001:db8::1", packetTooBig(48), 0), -ENETUNREACH);
    const sockaddr_in6 to = destination("fd00:10::2");
    const iovec piece{nullptr, 0};
    EXPECT_EQ(arpd_ipv6_pkt_send(fd.get(), nullptr, &piece, 1, 0), -EINVAL);
    EXPECT_EQ(arpd_ipv6_pkt_send(fd.get(), &to, nullptr, 1, 0), -EINVAL);
    EXPECT_EQ(arpd_ipv6_pkt_send(fd.get(), &to, &piece, 0, 0), -EINVAL);
    EXPECT_EQ(arpd_ipv6_pkt_send(fd.get(), &to, &piece, -1, 0), -EINVAL);
}
