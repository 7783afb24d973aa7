// SPDX-License-Identifier: MIT
// Which packets the kernel copies to the client, and what the client is given.
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
#include "log_daemon.h"
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
const Bytes udpToPort5000 = {0x13, 0x88, 0x13, 0x88, 0x05, 0x64, 0x00, 0x00};

}  // namespace

class Dispatch : public World {};

TEST_F(Dispatch, CopiesAnOversizedIpv4PacketTaggedWithItsIngress) {
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

TEST_F(Dispatch, CopiesAnOversizedIpv6PacketTaggedWithItsIngress) {
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

TEST_F(Dispatch, CopiesPacketsOfOneByteMoreThanTheMtu) {
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

TEST_F(Dispatch, LeavesIpv4MulticastToItsReceivers) {
    run("ip route add default via 10.0.20.2");
    const auto receiver = udpSocket("", AF_INET, 5000);
    ip_mreqn group{};
    inet_pton(AF_INET, "224.0.0.251", &group.imr_multiaddr);
    group.imr_ifindex = indexOf("bcm0.10");
    ASSERT_EQ(setsockopt(receiver.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group), 0);
    Client client;
    Ipv4 ipv4;
    ipv4.destination = "224.0.0.251";
    ipv4.start = udpToPort5000;
    send(packet(ipv4), "01:00:5e:00:00:fb");
    EXPECT_EQ(receiveDatagram(receiver.get()), 1372);
    sendFence();
    EXPECT_TRUE(isFence(client.next()));
    EXPECT_EQ(counted("oversized-ipv4", "multicast: the kernel"), 1U);
}

TEST_F(Dispatch, LeavesIpv4BroadcastToItsReceivers) {
    run("ip route add default via 10.0.20.2");
    const auto receiver = udpSocket("", AF_INET, 5000);
    Client client;
    Ipv4 limited;
    limited.destination = "255.255.255.255";
    limited.start = udpToPort5000;
    send(packet(limited), "ff:ff:ff:ff:ff:ff");
    EXPECT_EQ(receiveDatagram(receiver.get()), 1372);
    Ipv4 directed = limited;
    directed.destination = "10.0.20.255";
    send(packet(directed));
    EXPECT_EQ(receiveDatagram(receiver.get()), 1372);
    sendFence();
    EXPECT_TRUE(isFence(client.next()));
    EXPECT_EQ(counted("oversized-ipv4", "broadcast: the kernel"), 2U);
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
    EXPECT_EQ(counted("oversized-ipv6", "multicast: the kernel"), 1U);
}

TEST_F(Dispatch, LeavesWhatReceiveOffloadMergedToTheKernel) {
    Client client;
    const auto receiver = udpSocket("b", AF_INET, 5000);
    const auto sender = udpSocket("a", AF_INET, 5000);
    constexpr int segment = 1200;
    constexpr int dontFragment = IP_PMTUDISC_DO;
    ASSERT_EQ(setsockopt(sender.get(), SOL_UDP, UDP_SEGMENT, &segment, sizeof segment), 0);
    ASSERT_EQ(
        setsockopt(sender.get(), IPPROTO_IP, IP_MTU_DISCOVER, &dontFragment, sizeof dontFragment),
        0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(5000);
    inet_pton(AF_INET, "10.0.20.2", &to.sin_addr);
    const Bytes four(4 * segment, 0xa5);
    ASSERT_EQ(sendto(sender.get(), four.data(), four.size(), 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof to),
              4 * segment);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(receiveDatagram(receiver.get()), 1200);
    sendFence();
    EXPECT_TRUE(isFence(client.next()));
    // It did reach the switch as one packet.
    EXPECT_EQ(counted("from-bcm0.10", "accept"), 1U);
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
    EXPECT_EQ(copied("bcm0.20"), 0U);
}

// One kind of packet that must not be answered with an error, and the rule that knows it.
struct Unanswerable {
    const char* name;
    Bytes bytes;
    const char* destination;
    const char* chain;
    const char* rule;
};

class DispatchOf : public World, public testing::WithParamInterface<Unanswerable> {};

TEST_P(DispatchOf, WhatMustNotBeAnsweredCopiesNothingAndCounts) {
    const Unanswerable& one = GetParam();
    Client client;
    send(one.bytes, one.destination);
    sendFence();
    EXPECT_TRUE(isFence(client.next()));
    EXPECT_EQ(counted(one.chain, one.rule), 1U);
}

namespace {

constexpr const char* bcm10 = "02:00:00:00:10:01";
constexpr const char* icmpError = "RFC 1122 3.2.2: ICMP error";
constexpr const char* noHost = "RFC 1122 3.2.2: source is no single host";
constexpr const char* icmp6Error = "RFC 4443 2.4(e.1): ICMPv6 error";

Bytes icmp(uint8_t type) {
    Ipv4 ipv4;
    ipv4.protocol = 1;
    ipv4.start = {type, 0};
    return packet(ipv4);
}

Bytes icmp6(uint8_t type) {
    Ipv6 ipv6;
    ipv6.nextHeader = 58;
    ipv6.start = {type, 0};
    return packet(ipv6);
}

Bytes from4(const char* source) {
    Ipv4 ipv4;
    ipv4.source = source;
    return packet(ipv4);
}

Bytes from6(const char* source) {
    Ipv6 ipv6;
    ipv6.source = source;
    return packet(ipv6);
}

Bytes laterFragment() {
    Ipv4 ipv4;
    ipv4.fragmentOffset = 185;
    return packet(ipv4);
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    Never, DispatchOf,
    testing::Values(
        Unanswerable{"DestinationUnreachable", icmp(3), bcm10, "oversized-ipv4", icmpError},
        Unanswerable{"SourceQuench", icmp(4), bcm10, "oversized-ipv4", icmpError},
        Unanswerable{"Redirect", icmp(5), bcm10, "oversized-ipv4", icmpError},
        Unanswerable{"TimeExceeded", icmp(11), bcm10, "oversized-ipv4", icmpError},
        Unanswerable{"ParameterProblem", icmp(12), bcm10, "oversized-ipv4", icmpError},
        Unanswerable{"LaterFragment", laterFragment(), bcm10, "oversized-ipv4",
                     "RFC 1122 3.2.2: not the first fragment"},
        Unanswerable{"LinkBroadcast", packet(Ipv4{}), "ff:ff:ff:ff:ff:ff", "oversized-ipv4",
                     "RFC 1122 3.2.2: link-layer broadcast"},
        Unanswerable{"LinkMulticast", packet(Ipv4{}), "01:00:5e:01:02:03", "oversized-ipv4",
                     "RFC 1122 3.2.2: link-layer broadcast"},
        Unanswerable{"SourceThisNetwork", from4("0.1.2.3"), bcm10, "oversized-ipv4", noHost},
        Unanswerable{"SourceLoopback", from4("127.0.0.1"), bcm10, "oversized-ipv4", noHost},
        Unanswerable{"SourceMulticast", from4("239.255.255.255"), bcm10, "oversized-ipv4", noHost},
        Unanswerable{"SourceClassE", from4("240.0.0.1"), bcm10, "oversized-ipv4", noHost},
        Unanswerable{"SourceLimitedBroadcast", from4("255.255.255.255"), bcm10, "oversized-ipv4",
                     noHost},
        Unanswerable{"SourceDirectedBroadcast", from4("10.0.10.255"), bcm10, "oversized-ipv4",
                     "RFC 1122 3.2.2: source is a broadcast address"},
        Unanswerable{"Icmp6Error1", icmp6(1), bcm10, "oversized-ipv6", icmp6Error},
        Unanswerable{"Icmp6Error2", icmp6(2), bcm10, "oversized-ipv6", icmp6Error},
        Unanswerable{"Icmp6Error127", icmp6(127), bcm10, "oversized-ipv6", icmp6Error},
        Unanswerable{"Icmp6Redirect", icmp6(137), bcm10, "oversized-ipv6",
                     "RFC 4443 2.4(e.2): redirect"},
        Unanswerable{"Ipv6LinkMulticast", packet(Ipv6{}), "33:33:00:00:00:01", "oversized-ipv6",
                     "link-layer multicast of a unicast packet"},
        Unanswerable{"Ipv6SourceUnspecified", from6("::"), bcm10, "oversized-ipv6",
                     "RFC 4443 2.4(e.6): source is no single node"},
        Unanswerable{"Ipv6SourceAnycast", from6("fd00:10::"), bcm10, "oversized-ipv6",
                     "RFC 4443 2.4(e.6): source is an anycast address"}),
    [](const auto& parameter) { return std::string(parameter.param.name); });

// These look like the ones above and are answered.
class DispatchLike : public World, public testing::WithParamInterface<Unanswerable> {};

TEST_P(DispatchLike, WhatMayBeAnsweredIsCopied) {
    Client client;
    send(GetParam().bytes);
    EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.20"));
}

namespace {

Bytes firstFragment() {
    Bytes bytes = packet(Ipv4{});
    bytes[6] |= 0x20;  // more fragments, behind DF
    bytes[10] = bytes[11] = 0;
    const uint16_t sum = checksum(cut(bytes, 0, 20));
    bytes[10] = static_cast<uint8_t>(sum >> 8);
    bytes[11] = static_cast<uint8_t>(sum);
    return bytes;
}

Bytes ipv6Fragment() {
    Ipv6 ipv6;
    ipv6.nextHeader = 44;
    ipv6.start = {17, 0, 0x05, 0xa8, 0, 0, 0, 1};
    return packet(ipv6);
}

// TCP whose first byte, where an ICMP message has its type, reads 3.
Bytes tcpFromPort3xx() {
    Ipv4 ipv4;
    ipv4.protocol = 6;
    ipv4.start = {3, 11};
    return packet(ipv4);
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    Yet, DispatchLike,
    testing::Values(Unanswerable{"EchoRequest", icmp(8), "", "", ""},
                    Unanswerable{"EchoReply", icmp(0), "", "", ""},
                    Unanswerable{"Timestamp", icmp(13), "", "", ""},
                    Unanswerable{"FirstFragment", firstFragment(), "", "", ""},
                    Unanswerable{"TcpFromPort779", tcpFromPort3xx(), "", "", ""},
                    Unanswerable{"Icmp6EchoRequest", icmp6(128), "", "", ""},
                    Unanswerable{"Icmp6LaterFragment", ipv6Fragment(), "", "", ""},
                    Unanswerable{"SourcePrivate", from4("192.168.1.1"), "", "", ""},
                    Unanswerable{"SourceGlobal", from6("2001:db8::1"), "", "", ""}),
    [](const auto& parameter) { return std::string(parameter.param.name); });
