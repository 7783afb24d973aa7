// SPDX-License-Identifier: MIT
// What the platform does when the kernel refuses, after the start.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "calls.h"
#include "cfg.h"
#include "dispatcher.h"
#include "kernel_answer.h"
#include "log_daemon.h"
#include "pktd.h"
#include "tx_queue.h"
#include "vlan_name.h"
#include "world.h"

using namespace std::chrono_literals;
using pmtud_linux::Dispatcher;
using testing::HasSubstr;

namespace {

int callback(const st_pktd_shm_queue_entry_data_t*, uint8_t*, int) { return PKTD_VERDICT_DISCARD; }

// What the receive thread would die of.
std::string failureOf(Dispatcher& dispatcher) {
    try {
        dispatcher.run(callback);
    } catch (const std::system_error& error) {
        return error.what();
    }
}

// The dispatcher finds both of its sockets, or one of them, readable.
void makeReadable(bool group, bool links) {
    calls.poll = [=](pollfd* descriptors, nfds_t count, int timeout) {
        if (count != 2) return real::poll(descriptors, count, timeout);
        descriptors[0].revents = group ? POLLIN : 0;
        descriptors[1].revents = links ? POLLIN : 0;
        return 1;
    };
}

// Times at which rules were changed, and what the kernel answers.
class RuleScript {
 public:
    RuleScript() {
        calls.nftRun = [this](nft_ctx* context, const char* commands) {
            const std::lock_guard lock(m_mutex);
            m_tries.push_back(std::chrono::steady_clock::now());
            if (!m_refuses) return real::nftRun(context, commands);
            return -1;
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
        ASSERT_EQ(pktd_shm_queue_init("pmtud", 0, 1, pktd_tx_queue_pool, pktd_rx_queue_pool), 0);
        ASSERT_EQ(pktd_shm_rx_thread_init("pmtud", pktd_rx_queue_pool, pktd_rx_wl_pool, 32, 32,
                                          callback, nullptr),
                  0);
        rules.refuse(true);
        run("ip link set bcm0.20 mtu 1400");
        const std::string refused = log.next();
        EXPECT_EQ(lineOf(refused),
                  "89 PMTUD-Linux: the rules could not be changed, trying again: internal:0:0-0: "
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

TEST_F(Refusal, OfTheLogGroupsSocketEndsTheProcess) {
    inOwnProcess([] {
        auto dispatcher = std::make_unique<Dispatcher>();
        ASSERT_EQ(dispatcher->attach(), 0);
        makeReadable(true, false);
        calls.recvmmsg = [](int, mmsghdr*, unsigned int, int) {
            errno = ENOMEM;
            return -1;
        };
        EXPECT_EQ(failureOf(*dispatcher), "log group: Cannot allocate memory");
    });
}

TEST_F(Refusal, OfTheLinksSocketEndsTheProcess) {
    inOwnProcess([] {
        auto dispatcher = std::make_unique<Dispatcher>();
        ASSERT_EQ(dispatcher->attach(), 0);
        makeReadable(false, true);
        calls.recvfrom = [](int, void*, size_t, int, sockaddr*, socklen_t*) -> ssize_t {
            errno = ENOMEM;
            return -1;
        };
        EXPECT_EQ(failureOf(*dispatcher), "link messages: Cannot allocate memory");
    });
}

TEST_F(Refusal, ToWaitEndsTheProcess) {
    inOwnProcess([] {
        auto dispatcher = std::make_unique<Dispatcher>();
        ASSERT_EQ(dispatcher->attach(), 0);
        calls.poll = [](pollfd*, nfds_t, int) {
            errno = ENOMEM;
            return -1;
        };
        EXPECT_EQ(failureOf(*dispatcher), "poll: Cannot allocate memory");
    });
}

TEST_F(Refusal, OfAReceiveCallThatASignalInterruptsIsNone) {
    inOwnProcess([] {
        auto dispatcher = std::make_unique<Dispatcher>();
        ASSERT_EQ(dispatcher->attach(), 0);
        makeReadable(true, false);
        int call = 0;
        calls.recvmmsg = [&](int, mmsghdr*, unsigned int, int) {
            constexpr int kAnswers[] = {EINTR, EAGAIN, ENOBUFS, EAGAIN, EBADF};
            errno = kAnswers[call++];
            return -1;
        };
        EXPECT_EQ(failureOf(*dispatcher), "log group: Bad file descriptor");
        EXPECT_EQ(call, 5);
    });
}

namespace {

// Packet sockets are forbidden, as by RestrictAddressFamilies= of a unit.
void forbidPacketSockets() {
    calls.socket = [](int domain, int type, int protocol) {
        if (domain != AF_PACKET) return real::socket(domain, type, protocol);
        errno = EAFNOSUPPORT;
        return -1;
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

namespace {

// A message of the switch's to host a, and the packet that it refuses.
struct Withdrawn {
    Withdrawn() {
        Ipv4 ipv4;
        ipv4.source = "10.0.10.1";
        ipv4.destination = "10.0.10.2";
        ipv4.size = 56;
        bytes = packet(ipv4);
        message.egress = if_nametoindex("bcm0.10");
        message.payload = bytes;
        refused.ingress = message.egress;
        refused.addresses = {2, 0, 0, 0, 0x10, 1, 2, 0, 0, 0, 0x77, 7};
    }

    bool matches(const Bytes& captured) const { return captured == bytes; }

    Bytes bytes;
    pmtud_linux::LogMessage message;
    pmtud_linux::Copy refused;
    pmtud_linux::KernelAnswer answer;
};

}  // namespace

TEST_F(Refusal, OfPacketSocketsSendsTheKernelsAnswerByRoute) {
    inOwnProcess([] {
        Withdrawn withdrawn;
        const auto isIt = [&](const Bytes& captured) { return withdrawn.matches(captured); };
        Capture atA("a");
        EXPECT_EQ(withdrawn.answer.send(withdrawn.message, &withdrawn.refused), 0);
        atA.next(isIt);
        EXPECT_FALSE(atA.wasForTheInterface());  // but for the station that the packet came from

        pmtud_linux::KernelAnswer another;
        forbidPacketSockets();
        EXPECT_EQ(another.send(withdrawn.message, &withdrawn.refused), 0);
        atA.next(isIt);
        EXPECT_TRUE(atA.wasForTheInterface());
    });
}

TEST_F(Refusal, OfAllSocketsIsTheResultOfSendingTheKernelsAnswer) {
    inOwnProcess([] {
        Withdrawn withdrawn;
        calls.socket = [](int, int, int) {
            errno = EMFILE;
            return -1;
        };
        EXPECT_EQ(withdrawn.answer.send(withdrawn.message, &withdrawn.refused), -EMFILE);
    });
}

TEST_F(Refusal, SendsNoAnswerOfTheKernelsWithoutAWholeHeader) {
    inOwnProcess([] {
        Withdrawn withdrawn;
        withdrawn.message.payload = withdrawn.message.payload.first(19);
        EXPECT_EQ(withdrawn.answer.send(withdrawn.message, &withdrawn.refused), -EBADMSG);
    });
}

TEST_F(Refusal, SendsTheKernelsAnswerByRouteIfTheStationIsUnknown) {
    inOwnProcess([] {
        Withdrawn withdrawn;
        const auto isIt = [&](const Bytes& captured) { return withdrawn.matches(captured); };
        Capture atA("a");
        withdrawn.refused.addresses = {};
        EXPECT_EQ(withdrawn.answer.send(withdrawn.message, &withdrawn.refused), 0);
        atA.next(isIt);
        EXPECT_TRUE(atA.wasForTheInterface());
        EXPECT_EQ(withdrawn.answer.send(withdrawn.message, nullptr), 0);
        atA.next(isIt);
        EXPECT_TRUE(atA.wasForTheInterface());
        withdrawn.refused.addresses = {2, 0, 0, 0, 0x10, 1, 2, 0, 0, 0, 0x77, 7};
        withdrawn.refused.ingress = if_nametoindex("bcm0.20");
        EXPECT_EQ(withdrawn.answer.send(withdrawn.message, &withdrawn.refused), 0);
        atA.next(isIt);
        EXPECT_TRUE(atA.wasForTheInterface());
    });
}

// The longest name has fifteen bytes and a zero; a kernel that left the zero out would not make
// the daemon read on.
TEST(InterfaceName, IsReadNoFurtherThanTheKernelsAnswer) {
    inOwnProcess([] {
        calls.ioctl = [](int, unsigned long request, void* argument) {
            EXPECT_EQ(request, static_cast<unsigned long>(SIOCGIFNAME));
            auto& answer = *static_cast<ifreq*>(argument);
            std::memset(&answer, '7', sizeof answer);
            std::memcpy(answer.ifr_name, "bcm0.20", 7);
            return 0;
        };
        EXPECT_EQ(pmtud_linux::nameOfInterface(3, 7), "bcm0.20777777777");
        EXPECT_EQ(cfg_vlan_l3_get_dest_vlan(7), -1);
    });
}

TEST(InterfaceName, ThatIsTooLongForTheKernelIsNotCutShort) {
    ifreq request;
    std::memset(&request, 0xee, sizeof request);
    EXPECT_FALSE(pmtud_linux::putName(request, "bcm0.10-and-more"));
    EXPECT_EQ(static_cast<unsigned char>(request.ifr_name[0]), 0xee);
    EXPECT_TRUE(pmtud_linux::putName(request, "bcm0.10-and-mor"));
    EXPECT_STREQ(request.ifr_name, "bcm0.10-and-mor");
}
