// SPDX-License-Identifier: MIT
// Who answers: the client, the kernel, and never both or nobody.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <map>

#include "client.h"
#include "log_daemon.h"
#include "world.h"

namespace {

constexpr char kLostLine[] =
    "89 PMTUD-Linux: bcm0.10: the answers do not leave this router, so the kernel answers; allow "
    "them in the output hook: icmp type destination-unreachable accept; icmpv6 type "
    "packet-too-big accept";

bool isTooBig6(const Bytes& bytes) {
    return bytes.size() >= 48 && bytes[0] >> 4 == 6 && bytes[6] == 58 && bytes[40] == 2;
}

// The MTU tells who answered: only the client answers with its own.
size_t mtuOf6(const Bytes& tooBig) { return get16(tooBig, 46); }
size_t quotedIdentification(const Bytes& tooBig) { return get16(tooBig, 32); }

// UDP that connection tracking takes for valid, without checksum.
Bytes numbered(uint16_t identification, const std::string& source = "10.0.10.2") {
    return packet(Ipv4{.identification = identification,
                       .source = source,
                       .start = {0x13, 0x88, 0x13, 0x88, 0x05, 0x64, 0x00, 0x00}});
}

// UDP with the checksum that IPv6 requires.
Bytes validIpv6() {
    return withChecksum(packet(Ipv6{.start = {0x13, 0x88, 0x13, 0x88, 0x05, 0x50, 0x00, 0x00}}),
                        46);
}

// Copied, and forwarded in fragments: the kernel has no answer to it.
Bytes unrefused() { return packet(Ipv4{.dontFragment = false}); }

// The ICMP message with which the kernel would refuse the packet.
Bytes tooBig(const Bytes& quoted) {
    Bytes message = Bytes{3, 4, 0, 0, 0, 0, 0x05, 0x00} + cut(quoted, 0, 548);
    put16(message, 2, checksum(message));
    return message;
}

// A stateful firewall: what no packet that came in asks for does not go out.
void blockOutput() {
    run("nft 'table inet firewall { chain output { type filter hook output priority 0; policy "
        "drop; ct state established,related accept; }; }'");
}

}  // namespace

class Answers : public World {
 protected:
    // Sends a packet under the number; the next answer must be to it. Its MTU.
    size_t answerTo(Capture& atA, uint16_t identification) {
        send(numbered(identification));
        const Bytes answer = atA.next(isTooBig4);
        EXPECT_EQ(quotedIdentification(answer), identification);
        return mtuOf4(answer);
    }
};

TEST_F(Answers, AreTheClientsAlone) {
    Client client;
    Capture atA("a");
    // Each answer but the last is followed by the next: there is no second one in between.
    for (uint16_t identification = 1; identification <= 3; ++identification)
        EXPECT_EQ(answerTo(atA, identification), kAnsweredMtu);
    for (int i = 0; i < 2; ++i) {
        send(packet(Ipv6{}));
        EXPECT_EQ(mtuOf6(atA.next(
                      [](const Bytes& bytes) { return isTooBig4(bytes) || isTooBig6(bytes); })),
                  kAnsweredMtu);
    }
}

TEST_F(Answers, OfAnotherRouterPass) {
    Client client;
    Capture atA("a");
    const Bytes fragmented = unrefused();
    send(fragmented);
    sendFromB(packet(Ipv4{.size = 20 + 8 + 548,
                          .protocol = 1,
                          .source = "10.0.20.2",
                          .destination = "10.0.10.2",
                          .start = tooBig(fragmented)}));
    EXPECT_EQ(mtuOf4(atA.next(isTooBig4)), 1280);
    EXPECT_EQ(handedOver("bcm0.20"), 0U);
}

TEST_F(Answers, OfAnotherProcessPass) {
    Client client;
    Capture atA("a");
    const Bytes fragmented = unrefused();
    send(fragmented);
    const Bytes message = tooBig(fragmented);
    const pmtud_linux::Descriptor raw(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    ASSERT_EQ(inet_pton(AF_INET, "10.0.10.2", &to.sin_addr), 1);
    ASSERT_EQ(sendto(raw.get(), message.data(), message.size(), 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(message.size()));
    EXPECT_EQ(mtuOf4(atA.next(isTooBig4)), 1280);
    EXPECT_EQ(handedOver("bcm0.20"), 0U);
}

TEST_F(Answers, OfTheKernelWithTheMtuOfARoutePass) {
    run("ip route add 10.0.40.0/24 via 10.0.20.2 dev bcm0.20 mtu lock 1100");
    Client client;
    Capture atA("a");
    send(packet(Ipv4{.destination = "10.0.40.2"}));
    EXPECT_EQ(mtuOf4(atA.next(isTooBig4)), 1100);
    EXPECT_EQ(handedOver("bcm0.20"), 0U);
}

// The client could not answer as the kernel does: only the ingress' routes are looked up.
TEST_F(Answers, ToASenderThatTheIngressDoesNotLeadToAreTheKernels) {
    run("ip neigh add fd00:20::9 lladdr 02:00:00:00:20:02 dev bcm0.20");
    Client client;
    Capture atB("b");
    send(packet(Ipv6{.source = "fd00:20::9"}));
    EXPECT_EQ(mtuOf6(atB.next(isTooBig6)), 1280);
    EXPECT_EQ(handedOver("bcm0.20"), 0U);
}

TEST_F(Answers, BeyondTheRateAreTheKernelsAndEveryPacketHasOne) {
    ClientOptions options;
    options.countsOnly = true;
    Client client(options);
    Capture atA("a");
    constexpr uint16_t kPackets = 1000;
    const auto start = std::chrono::steady_clock::now();
    for (uint16_t number = 0; number < kPackets; ++number) send(numbered(number));

    std::map<size_t, int> answers;
    uint64_t clients = 0;
    for (uint16_t i = 0; i < kPackets; ++i) {
        const Bytes answer = atA.next(isTooBig4);
        ++answers[quotedIdentification(answer)];
        clients += mtuOf4(answer) == kAnsweredMtu ? 1 : 0;
    }
    EXPECT_EQ(answers.size(), kPackets);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(client.count(), clients);
    EXPECT_GE(clients, 250U);
    // Some may be withdrawn for packets that were not copied.
    const uint64_t withdrawn = handedOver("bcm0.20");
    EXPECT_GE(withdrawn, clients);
    EXPECT_LE(static_cast<double>(withdrawn), 251 + 125 * took.count());
}

TEST_F(Answers, OfOneVlanDoNotUseUpThoseOfAnother) {
    Client client;
    for (uint16_t number = 0; number < 600; ++number) send(numbered(number));
    sendFromB(packet(Ipv4{.size = 1200, .source = "10.0.20.2", .destination = "10.0.30.2"}));
    Delivered delivered = client.next();
    while (delivered.control.vid != 20) delivered = client.next();
    EXPECT_EQ(delivered.frame.size(), 1218U);
}

TEST_F(Answers, ThatDoNotLeaveAreMadeGoodByTheKernelsOwn) {
    LogDaemon log;
    blockOutput();
    Client client;
    Capture atA("a");
    for (uint16_t identification = 1; identification <= 3; ++identification) {
        EXPECT_EQ(answerTo(atA, identification), 1280);
        EXPECT_TRUE(atA.wasForTheInterface());
        EXPECT_EQ(atA.etherType(), 0x0800);
        client.next();
    }
    EXPECT_EQ(lineOf(log.next()), kLostLine);
    EXPECT_FALSE(log.poll());
    run("nft delete table inet firewall");
    EXPECT_EQ(answerTo(atA, 4), kAnsweredMtu);
}

TEST_F(Answers, OfIpv6ThatDoNotLeaveAreMadeGoodToo) {
    blockOutput();
    Client client;
    Capture atA("a");
    send(validIpv6());
    const Bytes answer = atA.next(isTooBig6);
    EXPECT_EQ(mtuOf6(answer), 1280);
    EXPECT_EQ(transportChecksum(answer), 0);
    EXPECT_TRUE(atA.wasForTheInterface());
    EXPECT_EQ(atA.etherType(), 0x86dd);
}

// The message is withdrawn, as its header is that of a packet that was copied.
TEST_F(Answers, ToAPacketThatWasNotCopiedAreTheKernels) {
    // An ingress that is not a VLAN.
    run("ip link add plain address 02:00:00:00:99:01 type veth peer name other");
    run("ip link set plain up; ip link set other up");
    for (const char* const interface : {"plain", "other"}) awaitLink(interface);
    ClientOptions options;
    options.countsOnly = true;
    Client client(options);
    Capture atA("a");
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    uint16_t pairs = 0;
    const auto sendTwice = [&](const Bytes& packet, auto isTooBig, auto mtuOf) {
        // Until the second one comes in while the header of the first is remembered.
        for (const uint64_t before = handedOver("bcm0.20"), start = pairs;
             handedOver("bcm0.20") == before + pairs - start;) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline);
            ++pairs;
            send(packet);
            EXPECT_EQ(mtuOf(atA.next(isTooBig)), kAnsweredMtu);
            sendInto("other", packet, "02:00:00:00:99:01");
            EXPECT_EQ(mtuOf(atA.next(isTooBig)), 1280);
        }
    };
    sendTwice(numbered(1), isTooBig4, mtuOf4);
    sendTwice(validIpv6(), isTooBig6, mtuOf6);
    EXPECT_EQ(client.count(), pairs);
}

// Neither the client's nor, by a route, the kernel's: the next ones are not withdrawn.
TEST_F(Answers, WhereNothingLeavesAreLeftToTheKernel) {
    LogDaemon log;
    run("ip neigh add 10.0.20.9 lladdr 02:00:00:00:20:02 dev bcm0.20");
    blockOutput();
    Client client;
    Capture atB("b");
    RuleChanges changes;
    send(numbered(1, "10.0.20.9"));
    client.next();
    while (output("nft list set inet pmtud left-to-kernel").find("\"bcm0.20\" timeout 30s") ==
           std::string::npos)
        changes.await();
    EXPECT_EQ(lineOf(log.next()),
              "89 PMTUD-Linux: bcm0.20: the answers do not leave this router, so the kernel "
              "answers; allow them in the output hook: icmp type destination-unreachable accept; "
              "icmpv6 type packet-too-big accept");
    EXPECT_EQ(lineOf(log.next()), "89 PMTUD-Linux: refused packets that nobody answered: 1");
    send(numbered(2, "10.0.20.9"));
    const Bytes answer = atB.next(isTooBig4);
    EXPECT_EQ(mtuOf4(answer), 1280);
    EXPECT_EQ(quotedIdentification(answer), 2);
    EXPECT_EQ(handedOver("bcm0.20"), 1U);
}
