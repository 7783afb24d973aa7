// SPDX-License-Identifier: MIT
// Every refused packet is answered once, by the client or by the kernel.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "client.h"
#include "log_daemon.h"
#include "world.h"

namespace {

constexpr char kLostLine[] =
    "89 PMTUD-Linux: bcm0.10: the answers do not leave this router, so the kernel answers; allow "
    "them in the output hook: icmp type destination-unreachable accept; icmpv6 type "
    "packet-too-big accept";

Bytes numbered(uint16_t id, const std::string& from = "10.0.10.2") {
    return bytesOf(Ipv4{.from = from, .id = id});
}

// Copied, but not refused for its size: the kernel reports that its time has expired.
const Bytes kUnrefused = bytesOf(Ipv4{.ttl = 1});

// The ICMP message with which the kernel would refuse it for its size.
Bytes tooBig() {
    Bytes message = Bytes{3, 4, 0, 0, 0, 0, 0x05, 0x00} + cut(kUnrefused, 0, 548);
    packets::put16(message, 2, ~packets::onesSum(message) & 0xffff);
    return message;
}

// A stateful firewall: only packets of known connections go out.
void blockOutput() {
    run("nft 'table inet firewall { chain output { type filter hook output priority 0; policy "
        "drop; ct state established,related accept; }; }'");
}

}  // namespace

class Answers : public World {
 protected:
    // Sends a packet with this identification; the next answer must be about it. Returns the
    // answer's MTU: only the client's is kAnsweredMtu.
    size_t answerTo(Capture& atA, uint16_t id) {
        send(numbered(id));
        const packets::Answer answer = atA.nextAnswer();
        EXPECT_EQ(answer.serial, id);
        EXPECT_EQ(answer.problem, "");
        return answer.mtu;
    }
};

TEST_F(Answers, ComeFromTheClientAlone) {
    Client client;
    Capture atA("a");
    // A second answer about a packet would arrive before the answer about the next one.
    for (uint16_t id = 1; id <= 3; ++id) EXPECT_EQ(answerTo(atA, id), kAnsweredMtu);
    for (int i = 0; i < 2; ++i) {
        send(bytesOf(Ipv6{}));
        EXPECT_EQ(atA.nextAnswer().mtu, kAnsweredMtu);
    }
}

TEST_F(Answers, OfAnotherRouterPass) {
    Client client;
    Capture atA("a");
    send(kUnrefused);
    sendFromB(bytesOf(Ipv4{.size = 20 + 8 + 548,
                           .from = "10.0.20.2",
                           .to = "10.0.10.2",
                           .protocol = 1,
                           .payload = tooBig()}));
    EXPECT_EQ(atA.nextAnswer().mtu, 1280U);
    EXPECT_EQ(handedOver("bcm0.20"), 0U);
}

TEST_F(Answers, OfAnotherProcessPass) {
    Client client;
    Capture atA("a");
    send(kUnrefused);
    const Bytes message = tooBig();
    const pmtud_linux::Descriptor raw(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    ASSERT_EQ(inet_pton(AF_INET, "10.0.10.2", &to.sin_addr), 1);
    ASSERT_EQ(sendto(raw.get(), message.data(), message.size(), 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(message.size()));
    EXPECT_EQ(atA.nextAnswer().mtu, 1280U);
    EXPECT_EQ(handedOver("bcm0.20"), 0U);
}

TEST_F(Answers, OfOneVlanDoNotUseUpThoseOfAnother) {
    Client client;
    for (uint16_t id = 1; id <= 600; ++id) send(numbered(id));
    sendFromB(bytesOf(Ipv4{.size = 1200, .from = "10.0.20.2", .to = "10.0.30.2"}));
    Delivered delivered = client.next();
    while (delivered.control.vid != 20) delivered = client.next();
    EXPECT_EQ(delivered.frame.size(), 1218U);
}

TEST_F(Answers, ThatDoNotLeaveAreReplacedByTheKernelsOwn) {
    LogDaemon log;
    blockOutput();
    Client client;
    Capture atA("a");
    for (uint16_t id = 1; id <= 3; ++id) {
        EXPECT_EQ(answerTo(atA, id), 1280U);
        EXPECT_TRUE(atA.wasForTheInterface());
        EXPECT_EQ(atA.etherType(), 0x0800);
        client.next();
    }
    EXPECT_EQ(lineOf(log.next()), kLostLine);
    send(bytesOf(Ipv6{}));
    const packets::Answer answer = atA.nextAnswer();
    EXPECT_EQ(answer.mtu, 1280U);
    EXPECT_EQ(answer.problem, "");
    EXPECT_TRUE(atA.wasForTheInterface());
    EXPECT_EQ(atA.etherType(), 0x86dd);
    EXPECT_FALSE(log.poll());
    run("nft delete table inet firewall");
    EXPECT_EQ(answerTo(atA, 4), kAnsweredMtu);
}

// The rules withdraw the kernel's message, because a packet with the same header was copied.
TEST_F(Answers, ToAPacketThatWasNotCopiedComeFromTheKernel) {
    // An ingress that is not a VLAN.
    run("ip link add plain address 02:00:00:00:99:01 type veth peer name other");
    run("ip link set plain up && ip link set other up");
    for (const char* const interface : {"plain", "other"}) awaitLink(interface);
    Client client;
    Capture atA("a");
    for (const Bytes& packet : {numbered(1), bytesOf(Ipv6{})}) {
        // Repeated until the second packet of a pair arrives before the first one's header is
        // forgotten.
        const uint64_t before = handedOver("bcm0.20");
        uint64_t pairs = 0;
        await("a message without a copy", [&] {
            ++pairs;
            send(packet);
            EXPECT_EQ(atA.nextAnswer().mtu, kAnsweredMtu);
            EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.20"));
            sendInto("other", packet, "02:00:00:00:99:01");
            EXPECT_EQ(atA.nextAnswer().mtu, 1280U);
            return handedOver("bcm0.20") != before + pairs;
        });
    }
    sendFence();
    EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.30"));
}

// After such a loss, the rules do not withdraw the kernel's messages.
TEST_F(Answers, AreLeftToTheKernelIfNeitherTheClientsNorTheKernelsLeave) {
    LogDaemon log;
    run("ip neigh add 10.0.20.9 lladdr 02:00:00:00:20:02 dev bcm0.20");
    blockOutput();
    Client client;
    Capture atB("b");
    send(numbered(1, "10.0.20.9"));
    client.next();
    await("the interface to be left to the kernel", [] {
        const std::string left = output("nft list set inet pmtud left-to-kernel");
        return left.find("\"bcm0.20\" timeout 30s") != std::string::npos;
    });
    EXPECT_EQ(lineOf(log.next()),
              "89 PMTUD-Linux: bcm0.20: the answers do not leave this router, so the kernel "
              "answers; allow them in the output hook: icmp type destination-unreachable accept; "
              "icmpv6 type packet-too-big accept");
    EXPECT_EQ(lineOf(log.next()), "89 PMTUD-Linux: refused packets that nobody answered: 1");
    send(numbered(2, "10.0.20.9"));
    const packets::Answer answer = atB.nextAnswer();
    EXPECT_EQ(answer.mtu, 1280U);
    EXPECT_EQ(answer.serial, 2U);
    EXPECT_EQ(handedOver("bcm0.20"), 1U);
}
