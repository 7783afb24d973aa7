// SPDX-License-Identifier: MIT
// What the platform does when the kernel refuses, after the start.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/if.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>

#include "calls.h"
#include "dispatcher.h"
#include "kernel_answer.h"
#include "log_daemon.h"
#include "messages.h"
#include "tx_queue.h"
#include "world.h"

using namespace std::chrono_literals;
using pmtud_linux::Dispatcher;
using testing::HasSubstr;

namespace {

// When rules were changed, and whether the kernel refuses.
class RuleScript {
 public:
    RuleScript() {
        calls.nftRun = [this](nft_ctx* context, const char* commands) {
            const std::lock_guard lock(m_mutex);
            m_tries.push_back(std::chrono::steady_clock::now());
            return m_refuses ? -1 : real::nftRun(context, commands);
        };
        calls.nftError = [](nft_ctx*) {
            return "internal:0:0-0: Error: Could not process rule: Device or resource busy\n";
        };
    }

    void refuse(bool refuses) {
        const std::lock_guard lock(m_mutex);
        m_refuses = refuses;
        m_tries.clear();
    }

    std::vector<std::chrono::steady_clock::time_point> tries() {
        const std::lock_guard lock(m_mutex);
        return m_tries;
    }

 private:
    std::mutex m_mutex;
    bool m_refuses = false;
    std::vector<std::chrono::steady_clock::time_point> m_tries;
};

}  // namespace

class Refusal : public World {};

TEST_F(Refusal, OfAChangeOfTheRulesIsLoggedOnceAndTriedAgainEachSecond) {
    inOwnProcess([] {
        // The receive thread is there until the process is gone.
        RuleScript& rules = *new RuleScript;
        LogDaemon log;
        ASSERT_EQ(attach(), 0);
        ASSERT_EQ(startThread(), 0);
        rules.refuse(true);
        run("ip link set bcm0.20 mtu 1400");
        const std::string refused = log.next();
        EXPECT_EQ(lineOf(refused),
                  "89 PMTUD-Linux: cannot change the rules, retrying: internal:0:0-0: "
                  "Error: Could not process rule: Device or resource busy");
        EXPECT_EQ(priorityOf(refused), "<27>");
        run("ip link set bcm0.30 mtu 1100");

        // The changes themselves may cause more than one try; those after them are due to time.
        const size_t atOnce = rules.tries().size();
        const auto limit = std::chrono::steady_clock::now() + kPatience;
        while (rules.tries().size() < atOnce + 4 && std::chrono::steady_clock::now() < limit)
            std::this_thread::yield();
        const auto tries = rules.tries();
        ASSERT_GE(tries.size(), 4U);
        EXPECT_GE(tries.back() - *(tries.end() - 2), 1s);
        EXPECT_GE(*(tries.end() - 2) - *(tries.end() - 3), 1s);
        EXPECT_FALSE(log.poll());
        EXPECT_THAT(output("nft list chain inet pmtud to-bcm0.20"), HasSubstr("length <= 1280 "));

        RuleChanges changes;
        rules.refuse(false);
        changes.await();
        EXPECT_THAT(output("nft list chain inet pmtud to-bcm0.20"), HasSubstr("length <= 1400 "));
        EXPECT_THAT(output("nft list chain inet pmtud to-bcm0.30"), HasSubstr("length <= 1100 "));
        EXPECT_FALSE(log.poll());

        // A later refusal is news again.
        rules.refuse(true);
        run("ip link set bcm0.20 mtu 1300");
        EXPECT_EQ(lineOf(log.next()), lineOf(refused));
    });
}

namespace {

// What the receive thread dies of if it finds the log group's socket or the links' readable.
std::string failureOf(bool isGroup) {
    const auto dispatcher = std::make_unique<Dispatcher>();
    EXPECT_EQ(dispatcher->attach(), 0);
    if (!calls.poll)
        calls.poll = [=](pollfd* descriptors, nfds_t count, int timeout) {
            if (count != 2) return real::poll(descriptors, count, timeout);
            descriptors[0].revents = isGroup ? POLLIN : 0;
            descriptors[1].revents = isGroup ? 0 : POLLIN;
            return 1;
        };
    // Not before: attaching reads as well.
    calls.recvfrom = [](int, void*, size_t, int, sockaddr*, socklen_t*) -> ssize_t {
        return refuse(ENOMEM);
    };
    try {
        dispatcher->run(discard);
    } catch (const std::system_error& error) {
        return error.what();
    }
}

}  // namespace

TEST_F(Refusal, OfTheLinksSocketEndsTheProcess) {
    inOwnProcess([] { EXPECT_EQ(failureOf(false), "link messages: Cannot allocate memory"); });
}

TEST_F(Refusal, OfTheLogGroupsSocketEndsTheProcessUnlessItPasses) {
    inOwnProcess([] {
        int call = 0;
        calls.recvmmsg = [&](int, mmsghdr*, unsigned int, int) {
            constexpr int kErrors[] = {EINTR, EAGAIN, ENOBUFS, EAGAIN, EBADF};
            return refuse(kErrors[call++]);
        };
        EXPECT_EQ(failureOf(true), "log group: Bad file descriptor");
        EXPECT_EQ(call, 5);
    });
}

TEST_F(Refusal, ToWaitEndsTheProcess) {
    inOwnProcess([] {
        int waits = 0;
        calls.poll = [&](pollfd* descriptors, nfds_t count, int timeout) {
            if (count != 2) return real::poll(descriptors, count, timeout);
            return refuse(++waits == 1 ? EINTR : ENOMEM);
        };
        EXPECT_EQ(failureOf(true), "poll: Cannot allocate memory");
        EXPECT_EQ(waits, 2);
    });
}

namespace {

// As by RestrictAddressFamilies= of a unit.
void forbidPacketSockets() {
    calls.socket = [](int domain, int type, int protocol) {
        if (domain == AF_PACKET) return refuse(EAFNOSUPPORT);
        return real::socket(domain, type, protocol);
    };
}

}  // namespace

TEST_F(Refusal, OfPacketSocketsIsTheResultOfAPost) {
    inOwnProcess([] {
        auto record = std::make_unique<st_pktd_shm_queue_entry_data_t>();
        record->ctrl.vid = 10;
        pmtud_linux::TxQueue queue;
        uint32_t out = 77;
        forbidPacketSockets();
        EXPECT_EQ(queue.post(*record, 60, &out), -EAFNOSUPPORT);
        EXPECT_EQ(out, 77U);
        calls.socket = nullptr;
        EXPECT_EQ(queue.post(*record, 60, &out), 0);
        EXPECT_EQ(out, 60U);
    });
}

// A message of the switch's to host a, which refuses a packet of another station's.
class KernelAnswer : public World {
 protected:
    void SetUp() override {
        World::SetUp();
        atA.emplace("a");
        message.egress = if_nametoindex("bcm0.10");
        message.payload = bytes;
        refused.ingress = message.egress;
        refused.addresses = {2, 0, 0, 0, 0x10, 1, 2, 0, 0, 0, 0x77, 7};
    }
    void TearDown() override { calls = {}; }

    // Whether host a gets it as its own interface's, and not as that station's.
    bool goesByRoute(const pmtud_linux::Copy* copy) {
        EXPECT_EQ(answer.send(message, copy), 0);
        atA->next([&](const Bytes& captured) { return captured == bytes; });
        return atA->wasForTheInterface();
    }

    std::optional<Capture> atA;
    const Bytes bytes = packet(Ipv4{.size = 56, .source = "10.0.10.1", .destination = "10.0.10.2"});
    pmtud_linux::LogMessage message;
    pmtud_linux::Copy refused;
    pmtud_linux::KernelAnswer answer;
};

TEST_F(KernelAnswer, GoesToTheStationThePacketCameFromOrElseByRoute) {
    EXPECT_FALSE(goesByRoute(&refused));
    EXPECT_TRUE(goesByRoute(nullptr));
    refused.ingress = if_nametoindex("bcm0.20");
    EXPECT_TRUE(goesByRoute(&refused));
    refused.ingress = message.egress;
    // One byte of a station's address makes it known; the receiver's does not.
    refused.addresses = {2, 0, 0, 0, 0x10, 1, 0, 0, 0, 0, 0, 0};
    EXPECT_TRUE(goesByRoute(&refused));
    refused.addresses = {2, 0, 0, 0, 0x10, 1, 0, 0, 0, 0, 0, 7};
    EXPECT_FALSE(goesByRoute(&refused));
}

TEST_F(KernelAnswer, GoesByRouteWherePacketSocketsAreForbidden) {
    forbidPacketSockets();
    EXPECT_TRUE(goesByRoute(&refused));
}

TEST_F(KernelAnswer, FailsAsItsLastSocketDoesAndIsNotSentWithoutAWholeHeader) {
    calls.socket = [](int, int, int) { return refuse(EMFILE); };
    EXPECT_EQ(answer.send(message, &refused), -EMFILE);
    const Bytes ipv6 = packet(Ipv6{.size = 56});
    message.payload = ipv6;
    EXPECT_EQ(answer.send(message, &refused), -EMFILE);
    message.payload = Span(bytes).first(19);
    EXPECT_EQ(answer.send(message, &refused), -EBADMSG);
}
