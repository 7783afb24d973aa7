// SPDX-License-Identifier: MIT
// Which packets the client is given, and as what.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "client.h"
#include "world.h"

using testing::ElementsAre;

namespace {

int32_t indexOf(const char* name) { return static_cast<int32_t>(if_nametoindex(name)); }

// The packet that sendFence sends, as the client gets it.
bool isFence(const Delivered& delivered) { return delivered.control.egress == indexOf("bcm0.30"); }

Bytes cut(const Bytes& bytes, size_t from, size_t to) {
    return {bytes.begin() + static_cast<ptrdiff_t>(from),
            bytes.begin() + static_cast<ptrdiff_t>(to)};
}

auto ipv4From(const std::string& source) {
    in_addr wanted{};
    inet_pton(AF_INET, source.c_str(), &wanted);
    return [wanted](const Bytes& packet) {
        return packet.size() >= 20 && packet[0] >> 4 == 4 &&
               std::memcmp(&packet[12], &wanted, sizeof wanted) == 0;
    };
}

auto icmp6OfType(uint8_t type) {
    return [type](const Bytes& packet) {
        return packet.size() > 44 && packet[0] >> 4 == 6 && packet[6] == 58 && packet[40] == type;
    };
}

// A UDP socket on a host or, for an empty name, on the switch.
pmtud_linux::Descriptor udpSocket(const std::string& host, int family, uint16_t port) {
    pmtud_linux::Descriptor result;
    const auto open = [&] {
        result.reset(socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_storage local{};
        local.ss_family = static_cast<sa_family_t>(family);
        if (family == AF_INET)
            reinterpret_cast<sockaddr_in&>(local).sin_port = htons(port);
        else
            reinterpret_cast<sockaddr_in6&>(local).sin6_port = htons(port);
        const socklen_t size = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        if (bind(result.get(), reinterpret_cast<const sockaddr*>(&local), size) != 0)
            throw std::system_error(errno, std::generic_category(), "bind");
    };
    if (host.empty())
        open();
    else
        onHost(host, open);
    return result;
}

ssize_t receiveDatagram(int fd) {
    awaitReadable(fd, "a datagram");
    char bytes[2048];
    return recv(fd, bytes, sizeof bytes, 0);
}

// UDP to port 5000 that fills a packet of 1,400 bytes; IPv4 goes without checksum.
const Bytes kUdpToPort5000 = {0x13, 0x88, 0x13, 0x88, 0x05, 0x64, 0x00, 0x00};

}  // namespace

class Dispatch : public World {};

TEST_F(Dispatch, DeliversARefusedIpv4PacketTaggedWithItsIngress) {
    Client client;
    ASSERT_EQ(client.attached(), 0);
    ASSERT_EQ(client.started(), 0);
    send(packet(Ipv4{}));

    const Delivered delivered = client.next();
    ASSERT_EQ(delivered.frame.size(), 1418U);
    EXPECT_THAT(cut(delivered.frame, 0, 42),
                ElementsAre(0x02, 0x00, 0x00, 0x00, 0x10, 0x01,  // bcm0.10
                            0x02, 0x00, 0x00, 0x00, 0x10, 0x02,  // host a
                            0x81, 0x00, 0x00, 0x0a, 0x08, 0x00,  // VLAN 10, IPv4
                            0x45, 0x00, 0x05, 0x78, 0x12, 0x34, 0x40, 0x00, 0x40, 0x11, 0xf1, 0x3d,
                            0x0a, 0x00, 0x0a, 0x02, 0x0a, 0x00, 0x14, 0x02,  //
                            0xa5, 0xa5, 0xa5, 0xa5));
    EXPECT_THAT(cut(delivered.frame, 42, 1418), testing::Each(0xa5));
    EXPECT_TRUE(delivered.zeroBehind);
}

TEST_F(Dispatch, DeliversARefusedIpv6PacketTaggedWithItsIngress) {
    Client client;
    send(packet(Ipv6{}));

    const Delivered delivered = client.next();
    ASSERT_EQ(delivered.frame.size(), 1418U);
    EXPECT_THAT(cut(delivered.frame, 0, 59),
                ElementsAre(0x02, 0x00, 0x00, 0x00, 0x10, 0x01,              // bcm0.10
                            0x02, 0x00, 0x00, 0x00, 0x10, 0x02,              // host a
                            0x81, 0x00, 0x00, 0x0a, 0x86, 0xdd,              // VLAN 10, IPv6
                            0x60, 0x00, 0x00, 0x00, 0x05, 0x50, 0x11, 0x40,  //
                            0xfd, 0x00, 0x00, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02,  //
                            0xfd, 0x00, 0x00, 0x20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02, 0xa5));
    EXPECT_TRUE(delivered.zeroBehind);
}

TEST_F(Dispatch, TellsIngressAndEgressInTheRecord) {
    Client client;
    send(packet(Ipv4{}));
    send(packet(Ipv6{}));

    const Delivered ipv4 = client.next();
    EXPECT_EQ(+ipv4.control.unit, 0);
    EXPECT_EQ(+ipv4.control.port, indexOf("bcm0.10") - 1);
    EXPECT_EQ(+ipv4.control.is_trunk, 0);
    EXPECT_EQ(+ipv4.control.tid, 0);
    EXPECT_EQ(+ipv4.control.proto, 0x0800);
    EXPECT_EQ(+ipv4.control.vid, 10);
    EXPECT_EQ(+ipv4.control.vtag, 10);
    EXPECT_EQ(+ipv4.control.egress, indexOf("bcm0.20"));

    const Delivered ipv6 = client.next();
    EXPECT_EQ(+ipv6.control.port, indexOf("bcm0.10") - 1);
    EXPECT_EQ(+ipv6.control.proto, 0x86dd);
    EXPECT_EQ(+ipv6.control.vid, 10);
    EXPECT_EQ(+ipv6.control.egress, indexOf("bcm0.20"));
}

TEST_F(Dispatch, LeavesZerosBehindAShorterFrame) {
    Client client;
    Ipv4 longer;
    longer.size = 1500;
    Ipv4 shorter;
    shorter.size = 1281;
    send(packet(longer));
    send(packet(shorter));
    EXPECT_EQ(client.next().frame.size(), 1518U);
    const Delivered delivered = client.next();
    EXPECT_EQ(delivered.frame.size(), 1299U);
    EXPECT_TRUE(delivered.zeroBehind);
}

TEST_F(Dispatch, DeliversAJumboPacketWithZerosInPlaceOfWhatWasNotCopied) {
    run("ip link set bcm0.10 mtu 9000");
    onHost("a", [] { run("ip link set eth0 mtu 9000"); });
    Client client;
    Ipv4 jumbo;
    jumbo.size = 9000;
    send(packet(jumbo));
    const Delivered delivered = client.next();
    ASSERT_EQ(delivered.frame.size(), 9018U);
    EXPECT_THAT(cut(delivered.frame, 38, 1518), testing::Each(0xa5));
    EXPECT_THAT(cut(delivered.frame, 1518, 9018), testing::Each(0));
    EXPECT_TRUE(delivered.zeroBehind);
}

TEST_F(Dispatch, CallsOnAThreadThatTakesNoSignals) {
    Client client;
    send(packet(Ipv4{}));
    EXPECT_TRUE(client.next().signalsBlocked);
}

TEST_F(Dispatch, LetsPacketsOfExactlyTheMtuPass) {
    Client client;
    Capture atB("b");
    Ipv4 ipv4;
    ipv4.size = 1280;
    Ipv6 ipv6;
    ipv6.size = 1280;
    send(packet(ipv4));
    send(packet(ipv6));
    EXPECT_EQ(atB.next(ipv4From("10.0.10.2")).size(), 1280U);
    EXPECT_EQ(
        atB.next([](const Bytes& bytes) { return bytes[0] == 0x60 && bytes[6] == 17; }).size(),
        1280U);
    sendFence();
    EXPECT_TRUE(isFence(client.next()));
}

TEST_F(Dispatch, DeliversPacketsOfOneByteMoreThanTheMtu) {
    Client client;
    Ipv4 ipv4;
    ipv4.size = 1281;
    Ipv6 ipv6;
    ipv6.size = 1281;
    send(packet(ipv4));
    send(packet(ipv6));
    EXPECT_EQ(client.next().frame.size(), 1299U);
    EXPECT_EQ(client.next().frame.size(), 1299U);
}

TEST_F(Dispatch, LeavesIpv4WithoutDfToTheKernelToFragment) {
    Client client;
    Capture atB("b");
    Ipv4 ipv4;
    ipv4.dontFragment = false;
    send(packet(ipv4));
    const Bytes first = atB.next(ipv4From("10.0.10.2"));
    EXPECT_EQ(first.size(), 1276U);  // the payload of 1,260 bytes in units of eight
    EXPECT_EQ(first[6], 0x20);       // more fragments
    const Bytes second = atB.next(ipv4From("10.0.10.2"));
    EXPECT_EQ(second.size(), 144U);
    sendFence();
    EXPECT_TRUE(isFence(client.next()));
}

TEST_F(Dispatch, LeavesAPacketThatExpiresToTheKernel) {
    Client client;
    Capture atA("a");
    Ipv4 ipv4;
    ipv4.ttl = 1;
    send(packet(ipv4));
    const Bytes answer4 = atA.next(ipv4From("10.0.10.1"));
    EXPECT_EQ(answer4[20], 11);  // Time Exceeded
    Ipv6 ipv6;
    ipv6.hopLimit = 1;
    send(packet(ipv6));
    atA.next(icmp6OfType(3));  // Time Exceeded
    sendFence();
    EXPECT_TRUE(isFence(client.next()));
}

TEST_F(Dispatch, LeavesAPacketFromALinkLocalSourceToTheKernel) {
    onHost("a", [] { run("ip addr add fe80::2/64 dev eth0 nodad"); });
    run("ip neigh replace fe80::2 lladdr 02:00:00:00:10:02 dev bcm0.10");
    Client client;
    Capture atA("a");
    Ipv6 ipv6;
    ipv6.source = "fe80::2";
    send(packet(ipv6));
    EXPECT_EQ(atA.next(icmp6OfType(1))[41], 2);  // Destination Unreachable, beyond scope
    sendFence();
    EXPECT_TRUE(isFence(client.next()));
}

TEST_F(Dispatch, LeavesIpv6MulticastToItsReceivers) {
    // The only route for the group that the lookup finds leads out of the VLAN with the smaller
    // MTU.
    run("ip -6 route add ff05::/16 dev bcm0.20 table local metric 1");
    const auto receiver = udpSocket("", AF_INET6, 5000);
    ipv6_mreq group{};
    inet_pton(AF_INET6, "ff05::fb", &group.ipv6mr_multiaddr);
    group.ipv6mr_interface = static_cast<unsigned int>(indexOf("bcm0.10"));
    ASSERT_EQ(setsockopt(receiver.get(), IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &group, sizeof group),
              0);
    Client client;
    Ipv6 ipv6;
    ipv6.destination = "ff05::fb";
    ipv6.start = {0x13, 0x88, 0x13, 0x88, 0x05, 0x50, 0x00, 0x00};
    Bytes bytes = packet(ipv6);
    const uint16_t sum = transportChecksum(bytes);
    bytes[46] = static_cast<uint8_t>(sum >> 8);
    bytes[47] = static_cast<uint8_t>(sum);
    send(bytes, "33:33:00:00:00:fb");
    EXPECT_EQ(receiveDatagram(receiver.get()), 1352);
    sendFence();
    EXPECT_TRUE(isFence(client.next()));
}

TEST_F(Dispatch, LeavesWhatReceiveOffloadMergedToTheKernel) {
    Client client;
    Capture atTheSwitch("", "bcm0.10");
    const auto receiver = udpSocket("b", AF_INET, 5000);
    const auto sender = udpSocket("a", AF_INET, 5000);
    constexpr int kSegment = 1200;
    constexpr int kDontFragment = IP_PMTUDISC_DO;
    ASSERT_EQ(setsockopt(sender.get(), SOL_UDP, UDP_SEGMENT, &kSegment, sizeof kSegment), 0);
    ASSERT_EQ(
        setsockopt(sender.get(), IPPROTO_IP, IP_MTU_DISCOVER, &kDontFragment, sizeof kDontFragment),
        0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(5000);
    inet_pton(AF_INET, "10.0.20.2", &to.sin_addr);
    const Bytes four(4 * kSegment, 0xa5);
    ASSERT_EQ(sendto(sender.get(), four.data(), four.size(), 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof to),
              4 * kSegment);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(receiveDatagram(receiver.get()), 1200);
    sendFence();
    EXPECT_TRUE(isFence(client.next()));
    // It did reach the switch as one packet.
    atTheSwitch.next([](const Bytes& bytes) { return bytes.size() == 4828; });
}

TEST_F(Dispatch, LeavesPacketsFromOtherInterfacesToTheKernel) {
    run("ip link set bcm0.10 down");
    run("ip link set bcm0.10 name plain0");
    run("ip link set plain0 up");
    run("ip neigh add 10.0.10.2 lladdr 02:00:00:00:10:02 dev plain0");
    Client client;
    Capture atA("a");
    send(packet(Ipv4{}));
    const Bytes answer = atA.next(ipv4From("10.0.10.1"));
    EXPECT_EQ(answer[20], 3);  // the kernel's own Fragmentation Needed,
    EXPECT_EQ(answer[21], 4);
    EXPECT_EQ(cut(answer, 26, 28), Bytes({0x05, 0x00}));  // with the MTU of 1,280
    EXPECT_EQ(handedOver("bcm0.20"), 0U);
}

TEST_F(Dispatch, CountsWhatTheKernelRefusedAndNotWhatWasCopied) {
    Client client;
    Ipv4 fragmented;
    fragmented.dontFragment = false;
    send(packet(fragmented));
    sendFence();
    EXPECT_TRUE(isFence(client.next()));
    EXPECT_EQ(handedOver("bcm0.20"), 0U);
    EXPECT_EQ(handedOver("bcm0.30"), 1U);
    send(packet(Ipv4{}));
    client.next();
    EXPECT_EQ(handedOver("bcm0.20"), 1U);
}

// One kind of packet that the kernel drops without a word, though it is too large.
struct Unanswerable {
    const char* name;
    Bytes bytes;
    const char* destination;
};

class DispatchOf : public World, public testing::WithParamInterface<Unanswerable> {};

TEST_P(DispatchOf, WhatTheKernelDoesNotAnswerDeliversNothing) {
    Client client;
    send(GetParam().bytes, GetParam().destination);
    sendFence();
    EXPECT_TRUE(isFence(client.next()));
}

namespace {

constexpr const char* kBcm10 = "02:00:00:00:10:01";

Bytes timeExceeded() {
    Ipv4 ipv4;
    ipv4.protocol = 1;
    ipv4.start = {11, 0};
    return packet(ipv4);
}

Bytes laterFragment() {
    Ipv4 ipv4;
    ipv4.fragmentOffset = 185;
    return packet(ipv4);
}

Bytes icmp6Error() {
    Ipv6 ipv6;
    ipv6.nextHeader = 58;
    ipv6.start = {1, 0};
    return packet(ipv6);
}

Bytes fromNobody() {
    Ipv6 ipv6;
    ipv6.source = "::";
    return packet(ipv6);
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    Never, DispatchOf,
    testing::Values(Unanswerable{"IcmpError", timeExceeded(), kBcm10},
                    Unanswerable{"LaterFragment", laterFragment(), kBcm10},
                    Unanswerable{"LinkBroadcast", packet(Ipv4{}), "ff:ff:ff:ff:ff:ff"},
                    Unanswerable{"Icmp6Error", icmp6Error(), kBcm10},
                    Unanswerable{"Ipv6SourceUnspecified", fromNobody(), kBcm10}),
    [](const auto& parameter) { return std::string(parameter.param.name); });
