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

#include "calls.h"
#include "dispatcher.h"
#include "kernel_answer.h"
#include "log_daemon.h"
#include "tx_queue.h"
#include "world.h"

using namespace std::chrono_literals;
using pmtud_linux::Dispatcher;
using testing::HasSubstr;

namespace {

// When rules were changed, and whether the kernel refuses.
struct RuleScript {
    std::mutex mutex;
    bool refuses = false;
    std::vector<std::chrono::steady_clock::time_point> tries;

    RuleScript() {
        calls.nftRun = [this](nft_ctx* context, const char* commands) {
            const std::lock_guard lock(mutex);
            tries.push_back(std::chrono::steady_clock::now());
            return refuses ? -1 : real.nftRun(context, commands);
        };
        calls.nftError = [](nft_ctx*) {
            return "internal:0:0-0: Error: Could not process rule: Device or resource busy\n";
        };
    }

    void refuse(bool from) {
        const std::lock_guard lock(mutex);
        refuses = from;
    }

    size_t count() {
        const std::lock_guard lock(mutex);
        return tries.size();
    }
};

}  // namespace

class Refusal : public World {};

TEST_F(Refusal, OfAChangeOfTheRulesIsLoggedOnceAndRetriedEachSecond) {
    inOwnProcess([this] {
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

        // The changes themselves may cause several tries; later ones follow from the timer, however
        // often packets wake the thread.
        const size_t atOnce = rules.count();
        await("four more tries", [&] {
            sendFence();
            return rules.count() >= atOnce + 4;
        });
        {
            const std::lock_guard lock(rules.mutex);
            const auto last = rules.tries.rbegin();
            EXPECT_GE(last[0] - last[1], 1s);
            EXPECT_GE(last[1] - last[2], 1s);
        }
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

using Wait = std::function<int(pollfd* descriptors)>;

// Runs the receive thread's loop, whose waits `wait` answers; returns the fatal error.
std::string failureAfter(const Wait& wait) {
    const auto dispatcher = std::make_unique<Dispatcher>();
    EXPECT_EQ(dispatcher->attach(), 0);
    calls.poll = [wait](pollfd* descriptors, nfds_t count, int timeout) {
        return count == 2 ? wait(descriptors) : real.poll(descriptors, count, timeout);
    };
    // Not before: attaching reads as well.
    calls.recvfrom = failing(ENOMEM);
    try {
        dispatcher->run(discard);
    } catch (const std::system_error& error) {
        return error.what();
    }
}

// 0: the log group's socket; 1: the links'.
Wait makeReadable(size_t which) {
    return [which](pollfd* descriptors) {
        descriptors[which].revents = POLLIN;
        descriptors[1 - which].revents = 0;
        return 1;
    };
}

}  // namespace

TEST_F(Refusal, OfTheLinksSocketEndsTheProcess) {
    inOwnProcess(
        [] { EXPECT_EQ(failureAfter(makeReadable(1)), "link messages: Cannot allocate memory"); });
}

TEST_F(Refusal, OfTheLogGroupsSocketEndsTheProcessUnlessItIsTemporary) {
    inOwnProcess([] {
        int call = 0;
        calls.recvmmsg = [&](auto...) {
            constexpr int kErrors[] = {EINTR, EAGAIN, ENOBUFS, EAGAIN, EBADF};
            return refuse(kErrors[call++]);
        };
        EXPECT_EQ(failureAfter(makeReadable(0)), "log group: Bad file descriptor");
        EXPECT_EQ(call, 5);
    });
}

TEST_F(Refusal, ToWaitEndsTheProcess) {
    inOwnProcess([] {
        int waits = 0;
        const Wait fail = [&](pollfd*) { return refuse(++waits == 1 ? EINTR : ENOMEM); };
        EXPECT_EQ(failureAfter(fail), "poll: Cannot allocate memory");
        EXPECT_EQ(waits, 2);
    });
}

namespace {

// As RestrictAddressFamilies= in a unit does.
void forbidPacketSockets() {
    calls.socket = [](int domain, int type, int protocol) {
        if (domain == AF_PACKET) return refuse(EAFNOSUPPORT);
        return real.socket(domain, type, protocol);
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
        calls.socket = real.socket;
        EXPECT_EQ(queue.post(*record, 60, &out), 0);
        EXPECT_EQ(out, 60U);
    });
}

// A message from the switch to host a about a packet that another station sent.
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
    void TearDown() override { calls = real; }

    // Whether the frame is addressed to host a's interface, and not to that station.
    bool goesByRoute(const pmtud_linux::Copy* copy) {
        EXPECT_EQ(answer.send(message, copy), 0);
        atA->next([&](const Bytes& captured) { return captured == bytes; });
        return atA->wasForTheInterface();
    }

    std::optional<Capture> atA;
    const Bytes bytes =
        bytesOf(Ipv4{.size = 56, .from = "10.0.10.1", .to = "10.0.10.2", .id = 0x1234});
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

TEST_F(KernelAnswer, GoesByRouteIfPacketSocketsAreForbidden) {
    forbidPacketSockets();
    EXPECT_TRUE(goesByRoute(&refused));
}

TEST_F(KernelAnswer, FailsAsItsLastSocketDoesAndIsNotSentWithoutAWholeHeader) {
    calls.socket = failing(EMFILE);
    EXPECT_EQ(answer.send(message, &refused), -EMFILE);
    const Bytes ipv6 = bytesOf(Ipv6{.size = 56});
    message.payload = ipv6;
    EXPECT_EQ(answer.send(message, &refused), -EMFILE);
    message.payload = packets::Span(bytes).first(19);
    EXPECT_EQ(answer.send(message, &refused), -EBADMSG);
}
