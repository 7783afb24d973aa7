// SPDX-License-Identifier: MIT
// The receive queue: losses, foreign messages, verdicts.
#include <gtest/gtest.h>
#include <libnetfilter_log/linux_nfnetlink_log.h>

#include <stdexcept>
#include <string>

#include "client.h"
#include "log_daemon.h"
#include "messages.h"
#include "world.h"

namespace {

// The number that follows the text in the line; throws if the line does not begin with the text.
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
    // Adds a rule of another table that logs to the group.
    static void logForeign(const std::string& how) {
        run("nft 'table inet other { chain c { type filter hook prerouting priority -310; "
            "ip daddr 10.0.20.9 " +
            how + " group 89 queue-threshold 1 drop; }; }'");
    }

    void sendForeign() { send(bytesOf(Ipv4{.to = "10.0.20.9"})); }

    // Fills the queue of the client, which waits in the callback for the first frame.
    void overrun() {
        logForeign("log");
        sendFence();
        for (unsigned long long i = 0; i < kFlood; ++i) sendForeign();
    }
};

TEST_F(Queue, CountsWhatItLostWhenItOverran) {
    LogDaemon log;
    Client client({.gated = true});
    overrun();

    client.openGate();
    // The flood may take more than one line, if it lasts for more than a second.
    unsigned long long seen = 0;
    const auto nextOther = [&] {
        std::string line = lineOf(log.next());
        for (; line.starts_with(kIgnored); line = lineOf(log.next()))
            seen += numberIn(line, kIgnored);
        return line;
    };
    EXPECT_EQ(nextOther(),
              "89 PMTUD-Linux: the receive queue overran; the next message will show how many "
              "were lost");
    awaitEmptyQueues();
    sendFence();
    const unsigned long long missing = numberIn(nextOther(), kLost);
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
    Client client({.gated = true});
    overrun();
    client.openGate();
    awaitEmptyQueues();
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

// The mark of this table's messages is a VLAN. Those of others have another mark or none.
TEST_F(Queue, IgnoresAndCountsWhatOtherTablesLogToTheGroup) {
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
        "ip daddr 10.0.30.9 log prefix \"pmtud:20\" group 89 queue-threshold 1; }; }'");
    LogDaemon log;
    Client client;
    run("bash -c 'echo >/dev/udp/10.0.30.9/9'");
    EXPECT_EQ(lineOf(log.next()), kIgnored + "1");
}

TEST_F(Queue, IgnoresAndCountsMessagesThatTheKernelDidNotSend) {
    LogDaemon log;
    Client client;
    // It looks like the kernel's, down to the prefix.
    const Netlink message =
        logMessage().text(NFULA_PREFIX, "pmtud:refused").netNumber(NFULA_SEQ, 1000);
    forge(NETLINK_NETFILTER, ownerOfLogGroup(), message.bytes);
    EXPECT_EQ(lineOf(log.next()), kIgnored + "1");
    // Its sequence number does not count either.
    sendFence();
    client.next();
    EXPECT_FALSE(log.poll());
}

TEST_F(Queue, LogsEachKindOfVerdictThatHasNoEffectOnce) {
    LogDaemon log;
    Client client(
        {.verdicts = {PKTD_VERDICT_DISCARD, PKTD_VERDICT_ACCEPT, PKTD_VERDICT_REPOST, 0, 10}});
    for (int i = 0; i < 10; ++i) {
        sendFence();
        client.next();
    }
    for (const std::string name : {"accept (8)", "repost (9)", "invalid (0)"})
        EXPECT_EQ(lineOf(log.next()), "89 PMTUD-Linux: the verdict " + name +
                                          " has no effect: the frame is a copy, and the kernel "
                                          "has refused the packet");
    EXPECT_FALSE(log.poll());
}
