// SPDX-License-Identifier: MIT
// Starts that fail: their results, what is logged about them and how often, and what is left.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/prctl.h>

#include <cerrno>

#include "calls.h"
#include "log_daemon.h"
#include "pktd.h"
#include "start_problem.h"
#include "world.h"

using pmtud_linux::startProblem;
using pmtud_linux::threadProblem;

TEST(StartProblem, NamesCauseAndRemedyOfEachResult) {
    const std::pair<int, const char*> causes[] = {
        {-EPERM,
         "(-1): CAP_NET_ADMIN or CAP_NET_RAW is missing; give the process both, in the user "
         "namespace that owns the network"},
        {-ENOMEM, "(-12): out of memory"},
        {-EBUSY,
         "(-16): log group 89 belongs to another process (see "
         "/proc/net/netfilter/nfnetlink_log); end it"},
        {-EINVAL, "(-22): the kernel has no log target; modprobe nfnetlink_log"},
        {-ENFILE, "(-23): too many open files; raise the limit (LimitNOFILE=, ulimit -n)"},
        {-EMFILE, "(-24): too many open files; raise the limit (LimitNOFILE=, ulimit -n)"},
        {-EPROTONOSUPPORT, "(-93): the kernel has no netfilter netlink; modprobe nfnetlink"},
        {-EAFNOSUPPORT,
         "(-97): a socket family is forbidden; check RestrictAddressFamilies= in the unit"},
        {-ENOBUFS, "(-105): out of memory"},
        {-EIO, "(-5): Input/output error"}};
    for (const auto& [result, cause] : causes)
        EXPECT_EQ(startProblem(result), std::string("nothing is served ") + cause);
    EXPECT_EQ(threadProblem(-EAGAIN),
              "cannot start the receive thread (-11): the limit on tasks is reached; raise it "
              "(TasksMax=, ulimit -u)");
    EXPECT_EQ(threadProblem(-ENOMEM), "cannot start the receive thread (-12): out of memory");
}

namespace {

// Expects exactly one line, an error.
void expectOnlyLine(LogDaemon& log, const std::string& line) {
    const std::string datagram = log.next();
    EXPECT_EQ(priorityOf(datagram), "<27>");
    EXPECT_EQ(lineOf(datagram), "89 PMTUD-Linux: " + line);
    EXPECT_FALSE(log.poll());
}

}  // namespace

class FailedStart : public World {};

TEST_F(FailedStart, WithoutAnIcmpSocketIsLoggedOnceAndLeavesNoRules) {
    inOwnProcess([] {
        calls.socket = [](int domain, int type, int protocol) {
            if (domain == AF_INET && protocol == IPPROTO_ICMP) return refuse(EPERM);
            return real.socket(domain, type, protocol);
        };
        LogDaemon log;
        EXPECT_EQ(attach(), -EPERM);
        expectOnlyLine(log,
                       "nothing is served (-1): CAP_NET_ADMIN or CAP_NET_RAW is missing; give the "
                       "process both, in the user namespace that owns the network");
        EXPECT_EQ(startThread(), -ENOTCONN);
        EXPECT_FALSE(log.poll());
        EXPECT_EQ(ruleset(), "");
    });
}

// The sockets of the group, the counter and the links, one after the other.
TEST_F(FailedStart, WithoutOneOfItsNetlinkSocketsIsLoggedOnceAndLeavesNothing) {
    inOwnProcess([] {
        LogDaemon log;
        for (int refused = 1; refused <= 3; ++refused) {
            int sockets = 0;
            calls.netlinkBind = [&](mnl_socket* socket, unsigned int groups, pid_t port) {
                if (++sockets == refused) return refuse(EADDRINUSE);
                return real.netlinkBind(socket, groups, port);
            };
            EXPECT_EQ(attach(), -EADDRINUSE);
            EXPECT_EQ(sockets, refused);
            expectOnlyLine(log, "nothing is served (-98): Address already in use");
            EXPECT_EQ(ruleset(), "");
        }
        calls.netlinkBind = real.netlinkBind;
        EXPECT_EQ(attach(), 0);
    });
}

TEST_F(FailedStart, WithoutAThreadIsLoggedOnceAndWithdrawsTheRules) {
    inOwnProcess([] {
        LogDaemon log;
        ASSERT_EQ(attach(), 0);
        EXPECT_NE(ruleset(), "");
        // A stack of a size that no address space has room for.
        pthread_attr_t before;
        ASSERT_EQ(pthread_getattr_default_np(&before), 0);
        pthread_attr_t endless = before;
        pthread_attr_setstacksize(&endless, SIZE_MAX / 4 & ~size_t{65535});
        ASSERT_EQ(pthread_setattr_default_np(&endless), 0);
        EXPECT_EQ(startThread(), -EAGAIN);
        ASSERT_EQ(pthread_setattr_default_np(&before), 0);
        expectOnlyLine(
            log,
            "cannot start the receive thread (-11): the limit on tasks is reached; raise it "
            "(TasksMax=, ulimit -u)");
        EXPECT_EQ(ruleset(), "");
        sigset_t blocked;
        ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &blocked), 0);
        EXPECT_EQ(sigismember(&blocked, SIGTERM), 0);
        EXPECT_EQ(startThread(), -ENOTCONN);
    });
}

TEST_F(FailedStart, WithoutACallbackOrANameWithdrawsTheRules) {
    inOwnProcess([] {
        for (const char* const name : {"pmtud", static_cast<const char*>(nullptr)}) {
            ASSERT_EQ(attach(), 0);
            EXPECT_EQ(startThread(name == nullptr ? discard : nullptr, name), -EINVAL);
            EXPECT_EQ(ruleset(), "");
        }
        EXPECT_EQ(pktd_shm_queue_init(nullptr, 0, 1, pktd_tx_queue_pool, pktd_rx_queue_pool),
                  -EINVAL);
    });
}

TEST_F(FailedStart, OfASecondThreadOrAttachmentIsRefusedWithoutALine) {
    inOwnProcess([] {
        LogDaemon log;
        ASSERT_EQ(attach(), 0);
        EXPECT_EQ(attach(), -EALREADY);
        ASSERT_EQ(startThread(), 0);
        // The main thread only sleeps from now on, in long steps.
        EXPECT_EQ(prctl(PR_GET_TIMERSLACK), 100'000'000);
        EXPECT_EQ(startThread(), -EALREADY);
        EXPECT_EQ(startThread(nullptr), -EALREADY);
        EXPECT_EQ(attach(), -EALREADY);
        EXPECT_FALSE(log.poll());
        EXPECT_NE(ruleset(), "");
    });
}

TEST_F(FailedStart, WithoutMemoryForLibnftablesErrorsIsLoggedOnce) {
    inOwnProcess([] {
        calls.nftKeepErrors = failing(ENOMEM);
        LogDaemon log;
        EXPECT_EQ(attach(), -ENOMEM);
        expectOnlyLine(log, "nothing is served (-12): out of memory");
    });
}

TEST_F(FailedStart, WithRulesThatTheKernelRefusesIsLoggedOnceWithItsReason) {
    inOwnProcess([] {
        // The kernel accepts each feature when it is checked separately.
        calls.nftRun = [](nft_ctx*, const char* commands) {
            return std::string(commands).starts_with("table inet pmtud-check ") ? 0 : -1;
        };
        calls.nftError = [](nft_ctx*) {
            return "internal:0:0-0: Error: Could not process rule: Operation not supported\n"
                   "add table inet pmtud\n";
        };
        LogDaemon log;
        EXPECT_EQ(attach(), -EOPNOTSUPP);
        expectOnlyLine(log,
                       "cannot install the rules: internal:0:0-0: Error: Could not process rule: "
                       "Operation not supported");
        // The log group is free again.
        calls.nftRun = real.nftRun;
        calls.nftError = real.nftError;
        EXPECT_EQ(attach(), 0);
    });
}

TEST_F(FailedStart, OnAKernelWithoutOwnedTablesNamesThem) {
    inOwnProcess([] {
        LogDaemon log;
        calls.nftRun = [](nft_ctx*, const char* commands) {
            const std::string text = commands;
            if (!text.starts_with("table inet pmtud-check {\n")) return -1;
            return text.find("flags owner;") == text.npos ? 0 : -1;
        };
        EXPECT_LT(attach(), 0);
        expectOnlyLine(log,
                       "cannot install the rules: this kernel lacks tables that a process "
                       "owns (Linux 5.12)");
        EXPECT_EQ(ruleset(), "");
    });
}

TEST_F(FailedStart, WithATableOfTheSameNameLeavesItAndExplainsHowToDeleteIt) {
    inOwnProcess([] {
        run("nft 'add table inet pmtud; add chain inet pmtud prerouting'");
        LogDaemon log;
        EXPECT_LT(attach(), 0);
        expectOnlyLine(log,
                       "cannot install the rules: table inet pmtud already exists; end the process "
                       "that owns it, or delete it (nft delete table inet pmtud)");
        EXPECT_EQ(ruleset(), "table inet pmtud {\n\tchain prerouting {\n\t}\n}\n");
        run("nft delete table inet pmtud");
        EXPECT_EQ(attach(), 0);
    });
}
