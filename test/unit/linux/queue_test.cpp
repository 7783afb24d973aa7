// SPDX-License-Identifier: MIT
// The receive queue: losses, foreign messages, verdicts.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libnetfilter_log/linux_nfnetlink_log.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "client.h"
#include "log_daemon.h"
#include "world.h"

namespace {

// Whether the kernel holds no message any more that a netfilter socket has not read.
bool queuesAreEmpty() {
    std::ifstream sockets("/proc/self/net/netlink");
    std::string line;
    std::getline(sockets, line);
    while (std::getline(sockets, line)) {
        std::istringstream fields(line);
        std::string kernelSocket;
        int protocol = 0;
        long long process = 0;
        std::string groups;
        long long held = 0;
        fields >> kernelSocket >> protocol >> process >> groups >> held;
        if (protocol == NETLINK_NETFILTER && held != 0) return false;
    }
    return true;
}

// What follows the text at the start of the line, a number; fails if the line is another.
unsigned long long numberIn(const std::string& line, const std::string& text) {
    if (!line.starts_with(text)) throw std::runtime_error("another line: " + line);
    return std::stoull(line.substr(text.size()));
}

const std::string kIgnored =
    "89 PMTUD-Linux: log group 89: ignored messages that this table did not log: ";
const std::string kLost = "89 PMTUD-Linux: the receive queue overran, messages lost: ";

// More than the socket holds. Other rules' messages are not policed; the kernel does not trim
// the buffers of long ones.
constexpr unsigned long long kFlood = 9000;

}  // namespace

class Queue : public World {
 protected:
    // What a rule of somebody else's logs to the group.
    static void logForeign(const std::string& how) {
        run("nft 'table inet other { chain c { type filter hook prerouting priority -310; "
            "ip daddr 10.0.20.9 " +
            how + " group 89 queue-threshold 1 drop; }; }'");
    }

    void sendForeign() { send(packet(Ipv4{.destination = "10.0.20.9"})); }

    // Fills the queue of the client, which waits in the callback for the first frame.
    void overrun() {
        logForeign("log");
        sendFence();
        for (unsigned long long i = 0; i < kFlood; ++i) sendForeign();
    }
};

TEST_F(Queue, CountsWhatItLostWhenItOverran) {
    LogDaemon log;
    ClientOptions options;
    options.gated = true;
    Client client(options);
    overrun();

    client.openGate();
    // The flood may take more than one line, if it lasts for more than a second.
    unsigned long long seen = 0;
    std::string line = lineOf(log.next());
    while (line.starts_with(kIgnored)) {
        seen += numberIn(line, kIgnored);
        line = lineOf(log.next());
    }
    EXPECT_EQ(line,
              "89 PMTUD-Linux: the receive queue overran; how many messages were lost shows with "
              "the next one");
    while (!queuesAreEmpty()) continue;
    sendFence();
    for (line = lineOf(log.next()); line.starts_with(kIgnored); line = lineOf(log.next()))
        seen += numberIn(line, kIgnored);
    const unsigned long long missing = numberIn(line, kLost);
    EXPECT_GT(missing, 0U);
    EXPECT_EQ(seen + missing, kFlood);

    // It continues as before, without another line.
    client.next();
    client.next();
    sendFence();
    client.next();
    EXPECT_FALSE(log.poll());
}

TEST_F(Queue, LogsALossOnceTheLogAcceptsIt) {
    ClientOptions options;
    options.gated = true;
    options.countsOnly = true;
    Client client(options);
    overrun();
    client.openGate();
    while (!queuesAreEmpty()) continue;
    sendFence();

    LogDaemon log;
    unsigned long long seen = 0;
    unsigned long long missing = 0;
    while (seen == 0 || missing == 0) {
        const std::string line = lineOf(log.next());
        if (line.starts_with(kIgnored)) seen += numberIn(line, kIgnored);
        if (line.starts_with(kLost)) missing += numberIn(line, kLost);
    }
    EXPECT_EQ(seen + missing, kFlood);
}

// The mark names the VLAN; what this table does not log keeps its own, or none. A mark of no VLAN
// does not make a message this table's.
TEST_F(Queue, IgnoresAndCountsWhatRulesOfOthersLogToTheGroup) {
    LogDaemon log;
    Client client;
    for (const char* const how : {"log", "log prefix \"pmtud:refused\"",
                                  "meta mark set 4095 log prefix \"pmtud:refused\""}) {
        logForeign(how);
        sendForeign();
        EXPECT_EQ(lineOf(log.next()), kIgnored + "1") << how;
        run("nft delete table inet other");
    }
    sendFence();
    EXPECT_EQ(client.next().frame.size(), 1019U);
}

TEST_F(Queue, IgnoresAndCountsAForgedCopyWithoutAPacket) {
    // In the output hook a packet has no ingress.
    run("nft 'table inet other { chain c { type filter hook output priority 0; "
        "ip daddr 10.0.30.9 log prefix \"pmtud:20\" group 89 queue-threshold 1 drop; }; }'");
    LogDaemon log;
    Client client;
    inOwnProcess([] {
        const pmtud_linux::Descriptor udp(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(9);
        ASSERT_EQ(inet_pton(AF_INET, "10.0.30.9", &to.sin_addr), 1);
        sendto(udp.get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    });
    EXPECT_EQ(lineOf(log.next()), kIgnored + "1");
}

TEST_F(Queue, IgnoresAndCountsMessagesThatTheKernelDidNotSend) {
    LogDaemon log;
    Client client;
    // Who has the group is in the second field.
    std::ifstream groups("/proc/self/net/netfilter/nfnetlink_log");
    unsigned int group = 0;
    sockaddr_nl to{};
    to.nl_family = AF_NETLINK;
    groups >> group >> to.nl_pid;
    ASSERT_EQ(group, 89U);

    // A message as the kernel's, down to its prefix.
    const Netlink message =
        logMessage().text(NFULA_PREFIX, "pmtud:refused").netNumber(NFULA_SEQ, 1000);
    const pmtud_linux::Descriptor intruder(
        socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
    ASSERT_EQ(sendto(intruder.get(), message.bytes.data(), message.bytes.size(), 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(message.bytes.size()));
    EXPECT_EQ(lineOf(log.next()), kIgnored + "1");
    // Nor does its sequence number count.
    sendFence();
    client.next();
    EXPECT_FALSE(log.poll());
}

TEST_F(Queue, LogsAVerdictThatHasNoEffectOnce) {
    LogDaemon log;
    const std::pair<int, const char*> verdicts[] = {{PKTD_VERDICT_ACCEPT, "accept (8)"},
                                                    {PKTD_VERDICT_REPOST, "repost (9)"},
                                                    {0, "invalid (0)"},
                                                    {10, "invalid (10)"}};
    for (const auto& [verdict, name] : verdicts) {
        ClientOptions options;
        options.verdict = verdict;
        Client client(options);
        for (int i = 0; i < 3; ++i) {
            sendFence();
            client.next();
        }
        EXPECT_EQ(lineOf(log.next()), "89 PMTUD-Linux: the verdict " + std::string(name) +
                                          " has no effect: the frame is a copy, and the kernel "
                                          "has refused the packet");
        // The third frame came after whatever there was to say about the second one.
        EXPECT_FALSE(log.poll());
    }
}
