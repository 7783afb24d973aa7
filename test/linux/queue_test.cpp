// SPDX-License-Identifier: MIT
// The receive queue: losses, foreign messages, verdicts.
#include <gtest/gtest.h>
#include <linux/netlink.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "client.h"
#include "log_daemon.h"
#include "world.h"

class Queue : public World {};

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

}  // namespace

TEST_F(Queue, CountsWhatItLostWhenItOverran) {
    LogDaemon log;
    ClientOptions options;
    options.gated = true;
    options.countsOnly = true;
    Client client(options);
    // More than the socket holds, whatever the kernel adds to each packet.
    const Bytes bytes = packet(Ipv4{});
    for (int i = 0; i < 9000; ++i) send(bytes);

    client.openGate();
    EXPECT_EQ(lineOf(log.next()),
              "89 PMTUD-Linux: the receive queue overran; how many frames were lost shows with the "
              "next frame");
    sendFence();
    const std::string line = lineOf(log.next());
    unsigned long long lost = 0;
    ASSERT_EQ(std::sscanf(line.c_str(),
                          "89 PMTUD-Linux: the receive queue overran, frames lost: %llu", &lost),
              1)
        << line;
    EXPECT_GT(lost, 0U);
    const uint64_t logged = copied("bcm0.20") + copied("bcm0.30");
    EXPECT_EQ(client.count() + lost, logged);

    // It goes on as before, without another word.
    sendFence();
    while (client.count() + lost <= logged) continue;
    EXPECT_FALSE(log.poll());
}

TEST_F(Queue, SaysALossOnceTheLogTakesIt) {
    ClientOptions options;
    options.gated = true;
    options.countsOnly = true;
    Client client(options);
    const Bytes bytes = packet(Ipv4{});
    for (int i = 0; i < 9000; ++i) send(bytes);
    client.openGate();
    while (!queuesAreEmpty()) continue;
    sendFence();

    LogDaemon log;
    const std::string wanted = "89 PMTUD-Linux: the receive queue overran, frames lost: ";
    std::string line;
    while (!line.starts_with(wanted)) line = lineOf(log.next());
    EXPECT_EQ(client.count() + std::stoull(line.substr(wanted.size())),
              copied("bcm0.20") + copied("bcm0.30"));
}

TEST_F(Queue, SaysHowManyMessagesCouldNotBecomeAFrame) {
    run("nft 'table inet other { chain c { type filter hook prerouting priority -310; "
        "ip daddr 10.0.20.9 log group 89; }; }'");
    LogDaemon log;
    Client client;
    Ipv4 foreign;
    foreign.size = 100;
    foreign.destination = "10.0.20.9";
    send(packet(foreign));
    EXPECT_EQ(lineOf(log.next()),
              "89 PMTUD-Linux: log group messages that could not become a frame: 1");
    sendFence();
    EXPECT_EQ(client.next().frame.size(), 1019U);
}

TEST_F(Queue, SaysAVerdictThatHasNoEffectOnce) {
    LogDaemon log;
    ClientOptions options;
    options.verdict = PKTD_VERDICT_ACCEPT;
    Client client(options);
    for (int i = 0; i < 3; ++i) {
        sendFence();
        client.next();
    }
    EXPECT_EQ(lineOf(log.next()),
              "89 PMTUD-Linux: the verdict accept (8) has no effect: the frame is a copy, and the "
              "packet is dropped");
    // The third frame came behind whatever there was to say about the second one.
    EXPECT_FALSE(log.poll());
}
