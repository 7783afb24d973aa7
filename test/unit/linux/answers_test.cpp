// SPDX-License-Identifier: MIT
// Who answers: the client, the kernel, and never both or nobody.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
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

constexpr size_t kIcmpHeaderAt = 20;
constexpr size_t kQuoteAt = kIcmpHeaderAt + 8;

bool isTooBig4(const Bytes& bytes) {
    return bytes.size() >= kQuoteAt + 20 && bytes[0] == 0x45 && bytes[9] == 1 && bytes[20] == 3 &&
           bytes[21] == 4;
}

bool isTooBig6(const Bytes& bytes) {
    return bytes.size() >= 48 && bytes[0] >> 4 == 6 && bytes[6] == 58 && bytes[40] == 2;
}

uint16_t bigEndian(const Bytes& bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

// The MTU tells who answered: only the client answers with its own.
uint16_t mtuOf4(const Bytes& tooBig) { return bigEndian(tooBig, kIcmpHeaderAt + 6); }
uint16_t mtuOf6(const Bytes& tooBig) { return bigEndian(tooBig, 46); }
uint16_t quotedIdentification(const Bytes& tooBig) { return bigEndian(tooBig, kQuoteAt + 4); }

// UDP that connection tracking takes for valid, without checksum.
Bytes numbered(uint16_t identification, const std::string& source = "10.0.10.2") {
    Ipv4 ipv4;
    ipv4.source = source;
    ipv4.identification = identification;
    ipv4.start = {0x13, 0x88, 0x13, 0x88, 0x05, 0x64, 0x00, 0x00};
    return packet(ipv4);
}

// UDP with the checksum that IPv6 requires.
Bytes validIpv6() {
    Ipv6 ipv6;
    ipv6.start = {0x13, 0x88, 0x13, 0x88, 0x05, 0x50, 0x00, 0x00};
    Bytes bytes = packet(ipv6);
    const uint16_t sum = transportChecksum(bytes);
    bytes[46] = static_cast<uint8_t>(sum >> 8);
    bytes[47] = static_cast<uint8_t>(sum);
    return bytes;
}

// Copied, and forwarded in fragments: the kernel has no answer to it.
Bytes unrefused() {
    Ipv4 ipv4;
    ipv4.dontFragment = false;
    return packet(ipv4);
}

// The ICMP message with which the kernel would refuse the packet.
Bytes tooBig(const Bytes& quoted) {
    Bytes message(8 + 548);
    message[0] = 3;
    message[1] = 4;
    message[6] = 0x05;
    std::copy_n(quoted.begin(), 548, message.begin() + 8);
    const uint16_t sum = checksum(message);
    message[2] = static_cast<uint8_t>(sum >> 8);
    message[3] = static_cast<uint8_t>(sum);
    return message;
}

// A stateful firewall: what no packet that came in asks for does not go out.
void blockOutput() {
    run("nft 'table inet firewall { chain output { type filter hook output priority 0; policy "
        "drop; ct state established,related accept; }; }'");
}

void unblockOutput() { run("nft delete table inet firewall"); }

}  // namespace

class Answers : public World {
 protected:
    // An ingress that is no VLAN: what comes in by it is not copied.
    static void addPlainIngress() {
        run("ip link add plain address 02:00:00:00:99:01 type veth peer name other");
        run("ip link set plain up");
        run("ip link set other up");
        awaitLink("plain");
        awaitLink("other");
    }

    static void sendIntoPlain(const Bytes& packet) {
        sendInto("other", packet, "02:00:00:00:99:01");
    }

    // Sends a packet under the number; the next answer must be to it.  Its MTU.
    uint16_t answerTo(Capture& atA, uint16_t identification) {
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
    Ipv4 answer;
    answer.protocol = 1;
    answer.source = "10.0.20.2";
    answer.destination = "10.0.10.2";
    answer.start = tooBig(fragmented);
    answer.size = 20 + answer.start.size();
    sendFromB(packet(answer));
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
    Ipv4 ipv4;
    ipv4.destination = "10.0.40.2";
    send(packet(ipv4));
    EXPECT_EQ(mtuOf4(atA.next(isTooBig4)), 1100);
    EXPECT_EQ(handedOver("bcm0.20"), 0U);
}

// The client could not answer as the kernel does: only the ingress' routes are looked up.
TEST_F(Answers, ToASenderThatTheIngressDoesNotLeadToAreTheKernels) {
    run("ip neigh add fd00:20::9 lladdr 02:00:00:00:20:02 dev bcm0.20");
    Client client;
    Capture atB("b");
    Ipv6 ipv6;
    ipv6.source = "fd00:20::9";
    send(packet(ipv6));
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

    std::map<uint16_t, int> answers;
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
    Ipv4 other;
    other.size = 1200;
    other.source = "10.0.20.2";
    other.destination = "10.0.30.2";
    sendFromB(packet(other));
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

TEST_F(Answers, ThatLeaveAgainAreTheClientsAgain) {
    LogDaemon log;
    blockOutput();
    Client client;
    Capture atA("a");
    EXPECT_EQ(answerTo(atA, 1), 1280);
    unblockOutput();
    EXPECT_EQ(answerTo(atA, 2), kAnsweredMtu);
}

// The message is withdrawn, as its header is that of a packet that was copied.
TEST_F(Answers, ToAPacketThatWasNotCopiedAreTheKernels) {
    addPlainIngress();
    ClientOptions options;
    options.countsOnly = true;
    Client client(options);
    Capture atA("a");
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    uint16_t identification = 0;
    // Until the second one comes in while the header of the first is remembered.
    while (handedOver("bcm0.20") == identification / 2) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
        EXPECT_EQ(answerTo(atA, ++identification), kAnsweredMtu);
        sendIntoPlain(numbered(++identification));
        const Bytes answer = atA.next(isTooBig4);
        EXPECT_EQ(quotedIdentification(answer), identification);
        EXPECT_EQ(mtuOf4(answer), 1280);
    }
    EXPECT_EQ(client.count(), identification / 2);
}

TEST_F(Answers, OfIpv6ToAPacketThatWasNotCopiedAreTheKernels) {
    addPlainIngress();
    ClientOptions options;
    options.countsOnly = true;
    Client client(options);
    Capture atA("a");
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    uint64_t pairs = 0;
    while (handedOver("bcm0.20") == pairs) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
        ++pairs;
        send(validIpv6());
        EXPECT_EQ(mtuOf6(atA.next(isTooBig6)), kAnsweredMtu);
        sendIntoPlain(validIpv6());
        const Bytes answer = atA.next(isTooBig6);
        EXPECT_EQ(mtuOf6(answer), 1280);
        EXPECT_EQ(transportChecksum(answer), 0);
    }
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
