// SPDX-License-Identifier: MIT
// What a start that failed is logged as, and how often.
#include "start_problem.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>

#include "calls.h"
#include "log_daemon.h"
#include "pktd.h"
#include "world.h"

using pmtud_linux::startProblem;
using pmtud_linux::threadProblem;

TEST(StartProblem, NamesCauseAndRemedyOfEachResult) {
    EXPECT_EQ(startProblem(-EPERM),
              "nothing is served (-1): CAP_NET_ADMIN or CAP_NET_RAW is missing; give the process "
              "both, in the user namespace that owns the network");
    EXPECT_EQ(startProblem(-ENOMEM), "nothing is served (-12): out of memory");
    EXPECT_EQ(startProblem(-EBUSY),
              "nothing is served (-16): log group 89 belongs to another process, which "
              "/proc/net/netfilter/nfnetlink_log names; end it");
    EXPECT_EQ(startProblem(-EINVAL),
              "nothing is served (-22): the kernel has no log target; modprobe nfnetlink_log");
    EXPECT_EQ(startProblem(-ENFILE),
              "nothing is served (-23): too many open files; raise the limit (LimitNOFILE=, "
              "ulimit -n)");
    EXPECT_EQ(startProblem(-EMFILE),
              "nothing is served (-24): too many open files; raise the limit (LimitNOFILE=, "
              "ulimit -n)");
    EXPECT_EQ(startProblem(-EPROTONOSUPPORT),
              "nothing is served (-93): the kernel has no netfilter netlink; modprobe nfnetlink");
    EXPECT_EQ(startProblem(-EAFNOSUPPORT),
              "nothing is served (-97): a family of sockets is forbidden; check "
              "RestrictAddressFamilies= of the unit");
    EXPECT_EQ(startProblem(-ENOBUFS), "nothing is served (-105): out of memory");
    EXPECT_EQ(startProblem(-EIO), "nothing is served (-5): Input/output error");
}

TEST(StartProblem, OfTheThreadNamesCauseAndRemedy) {
    EXPECT_EQ(threadProblem(-EAGAIN),
              "no receive thread (-11): the limit on tasks is reached; raise it (TasksMax=, "
              "ulimit -u)");
    EXPECT_EQ(threadProblem(-ENOMEM), "no receive thread (-12): out of memory");
}

namespace {

int attach() { return pktd_shm_queue_init("pmtud", 0, 1, pktd_tx_queue_pool, pktd_rx_queue_pool); }

int callback(const st_pktd_shm_queue_entry_data_t*, uint8_t*, int) { return PKTD_VERDICT_DISCARD; }

int start(pktd_rx_cb_t called = callback) {
    return pktd_shm_rx_thread_init("pmtud", pktd_rx_queue_pool, pktd_rx_wl_pool, 32, 32, called,
                                   nullptr);
}

// The one line that there is, an error.
std::string onlyError(LogDaemon& log) {
    const std::string datagram = log.next();
    EXPECT_EQ(priorityOf(datagram), "<27>");
    EXPECT_FALSE(log.poll());
    return lineOf(datagram);
}

}  // namespace

class FailedStart : public World {};

TEST_F(FailedStart, WithoutARawSocketIsLoggedOnce) {
    inOwnProcess([] {
        calls.socket = [](int domain, int type, int protocol) {
            if (domain != AF_INET || protocol != IPPROTO_ICMP)
                return real::socket(domain, type, protocol);
            errno = EPERM;
            return -1;
        };
        LogDaemon log;
        EXPECT_EQ(attach(), -EPERM);
        EXPECT_EQ(
            onlyError(log),
            "89 PMTUD-Linux: nothing is served (-1): CAP_NET_ADMIN or CAP_NET_RAW is missing; "
            "give the process both, in the user namespace that owns the network");
        EXPECT_EQ(start(), -ENOTCONN);
        EXPECT_FALSE(log.poll());
        EXPECT_EQ(output("nft list ruleset"), "");
    });
}

TEST_F(FailedStart, WithoutAThreadIsLoggedOnceAndWithdrawsTheRules) {
    inOwnProcess([] {
        LogDaemon log;
        ASSERT_EQ(attach(), 0);
        EXPECT_NE(output("nft list ruleset"), "");
        // A stack of a size that no address space has room for.
        pthread_attr_t before;
        ASSERT_EQ(pthread_getattr_default_np(&before), 0);
        pthread_attr_t endless = before;
        pthread_attr_setstacksize(&endless, SIZE_MAX / 4 & ~size_t{65535});
        ASSERT_EQ(pthread_setattr_default_np(&endless), 0);
        EXPECT_EQ(start(), -EAGAIN);
        ASSERT_EQ(pthread_setattr_default_np(&before), 0);
        EXPECT_EQ(
            onlyError(log),
            "89 PMTUD-Linux: no receive thread (-11): the limit on tasks is reached; raise it "
            "(TasksMax=, ulimit -u)");
        EXPECT_EQ(output("nft list ruleset"), "");
    });
}

TEST_F(FailedStart, OfASecondThreadIsRefusedWithoutALine) {
    inOwnProcess([] {
        LogDaemon log;
        ASSERT_EQ(attach(), 0);
        ASSERT_EQ(start(), 0);
        EXPECT_EQ(start(), -EALREADY);
        EXPECT_EQ(start(nullptr), -EALREADY);
        EXPECT_EQ(attach(), -EALREADY);
        EXPECT_FALSE(log.poll());
        EXPECT_NE(output("nft list ruleset"), "");
    });
}

TEST_F(FailedStart, WithRulesThatTheKernelRefusesIsLoggedOnceWithItsReason) {
    inOwnProcess([] {
        // Each part by itself is there.
        calls.nftRun = [](nft_ctx*, const char* commands) {
            return std::string(commands).starts_with("table inet pmtud-check ") ? 0 : -1;
        };
        calls.nftError = [](nft_ctx*) {
            return "internal:0:0-0: Error: Could not process rule: Operation not supported\n"
                   "add table inet pmtud\n";
        };
        LogDaemon log;
        EXPECT_EQ(attach(), -EOPNOTSUPP);
        EXPECT_EQ(onlyError(log),
                  "89 PMTUD-Linux: the rules could not be installed: internal:0:0-0: Error: Could "
                  "not process rule: Operation not supported");
        // The log group is free again.
        calls.nftRun = nullptr;
        calls.nftError = nullptr;
        EXPECT_EQ(attach(), 0);
    });
}

TEST_F(FailedStart, WithATableOfTheSameNameTellsHowToDeleteIt) {
    inOwnProcess([] {
        run("nft add table inet pmtud");
        LogDaemon log;
        EXPECT_LT(attach(), 0);
        EXPECT_EQ(onlyError(log),
                  "89 PMTUD-Linux: the rules could not be installed: there is a table inet pmtud "
                  "already; end the process that owns it, or delete it (nft delete table inet "
                  "pmtud)");
        run("nft delete table inet pmtud");
        EXPECT_EQ(attach(), 0);
    });
}
