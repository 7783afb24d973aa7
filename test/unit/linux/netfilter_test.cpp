// SPDX-License-Identifier: MIT
// Requests to the kernel's netfilter; the test supplies the answers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/resource.h>

#include <deque>
#include <memory>

#include "answer_watch.h"
#include "calls.h"
#include "link_monitor.h"
#include "log_group.h"
#include "messages.h"
#include "netlink_request.h"

using pmtud_linux::AnswerWatch;
using pmtud_linux::LinkMonitor;
using pmtud_linux::LogGroup;
using pmtud_linux::MnlSocket;
using testing::Each;
using testing::ElementsAreArray;

namespace {

constexpr uint16_t kNewObject = NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWOBJ;

// The kernel's part.
class Netfilter : public testing::Test {
 protected:
    struct Datagram {
        Bytes bytes;
        uint32_t sender = 0;  // the kernel's port is 0
    };

    void SetUp() override {
        calls.netlinkSend = [this](const mnl_socket*, const void* message, size_t size) {
            const auto* const start = static_cast<const uint8_t*>(message);
            requests.emplace_back(start, start + size);
            memcpy(&sequence, &start[8], sizeof sequence);
            if (answer) answer();
            return static_cast<ssize_t>(size);
        };
        calls.recvfrom = [this](int, void* buffer, size_t, int, sockaddr* from,
                                socklen_t* fromSize) -> ssize_t {
            if (datagrams.empty()) return refuse(EAGAIN);
            const Datagram next = datagrams.front();
            datagrams.pop_front();
            memcpy(buffer, next.bytes.data(), next.bytes.size());
            sockaddr_nl sender{};
            sender.nl_pid = next.sender;
            memcpy(from, &sender, sizeof sender);
            *fromSize = sizeof sender;
            return static_cast<ssize_t>(next.bytes.size());
        };
    }

    void TearDown() override { calls = real; }

    void give(const Netlink& message, uint32_t sender = 0) {
        datagrams.push_back({message.bytes, sender});
    }

    // The object with its counter: 9,999 bytes and the packets.
    Netlink object(uint8_t packets) const {
        Netlink message(kNewObject, sizeof(nfgenmsg), sequence);
        return message.nest(NLA_F_NESTED | NFTA_OBJ_DATA,
                            nested()
                                .add(NFTA_COUNTER_BYTES, Bytes{0, 0, 0, 0, 0, 0, 0x27, 0x0f})
                                .add(NFTA_COUNTER_PACKETS, Bytes{0, 0, 0, 0, 0, 0, 0, packets}));
    }

    std::vector<Bytes> requests;
    uint32_t sequence = 0;
    std::deque<Datagram> datagrams;
    std::function<void()> answer;
};

class Answers : public Netfilter {
 protected:
    void SetUp() override {
        Netfilter::SetUp();
        ASSERT_EQ(watch.open(), 0);
        answer = [this] { give(object(counter)); };
    }

    uint8_t counter = 0;
    AnswerWatch watch;
};

}  // namespace

TEST_F(Answers, AreCountedByTheCounterOfThatNameInTheTable) {
    watch.hasLeft();
    Netlink expected(NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_GETOBJ, sizeof(nfgenmsg), sequence);
    expected.header().nlmsg_flags = NLM_F_REQUEST;
    expected.bytes[Netlink::kHeader] = 1;  // inet
    expected.text(NFTA_OBJ_TABLE, "pmtud")
        .text(NFTA_OBJ_NAME, "answers")
        .netNumber(NFTA_OBJ_TYPE, NFT_OBJECT_COUNTER);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_THAT(requests[0], ElementsAreArray(expected.bytes));
}

TEST_F(Answers, AreMissedEachTimeTheCounterHasNotRisen) {
    EXPECT_FALSE(watch.hasLeft());
    counter = 1;
    EXPECT_TRUE(watch.hasLeft());
    EXPECT_FALSE(watch.hasLeft());
    counter = 3;
    EXPECT_TRUE(watch.hasLeft());
    EXPECT_FALSE(watch.hasLeft());
}

// An answer that could not be received is still there when the next one is requested.
TEST_F(Answers, ToAnEarlierRequestAreSkipped) {
    counter = 1;
    EXPECT_TRUE(watch.hasLeft());
    give(object(1));
    counter = 2;
    EXPECT_TRUE(watch.hasLeft());
    EXPECT_FALSE(watch.hasLeft());
}

TEST_F(Answers, AreNotMissedWhileTheCounterCannotBeRead) {
    const auto refusal = [this] { give(errorMessage(sequence, -ENOENT)); };
    const auto halfANumber = [this] {
        give(Netlink(kNewObject, sizeof(nfgenmsg), sequence)
                 .nest(NFTA_OBJ_DATA, nested().add(NFTA_COUNTER_PACKETS, Bytes(4))));
    };
    const auto noNumber = [this] { give(Netlink(kNewObject, sizeof(nfgenmsg), sequence)); };
    const std::function<void()> answers[] = {refusal, halfANumber, noNumber, [] {}};
    for (const auto& one : answers) {
        answer = one;
        EXPECT_TRUE(watch.hasLeft());
    }
    EXPECT_EQ(requests.size(), 4U);
    answer = [this] { give(object(0)); };
    EXPECT_FALSE(watch.hasLeft());
}

TEST_F(Answers, ThatAreCaughtUpWithAreNotCountedAgain) {
    counter = 1;
    watch.catchUp();
    EXPECT_FALSE(watch.hasLeft());
}

TEST_F(Netfilter, RequestGetsANewNumberAndOnlyTheKernelAcknowledgesIt) {
    const MnlSocket socket(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC));
    ASSERT_TRUE(socket);
    const auto request = [&] {
        Netlink message(NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_GETGEN, sizeof(nfgenmsg));
        return pmtud_linux::requestFromKernel(socket, &message.header(), nullptr, nullptr);
    };
    answer = [this] {
        give(errorMessage(sequence, -EBUSY), 4711);
        give(errorMessage(sequence, 0));
    };
    EXPECT_EQ(request(), 0);
    const uint32_t firstSequence = sequence;
    EXPECT_TRUE(datagrams.empty());
    answer = [this] { give(errorMessage(sequence, -EBUSY)); };
    EXPECT_EQ(request(), -EBUSY);
    EXPECT_EQ(sequence, firstSequence + 1);
    const auto flags = reinterpret_cast<const nlmsghdr*>(requests.back().data())->nlmsg_flags;
    EXPECT_EQ(flags, NLM_F_REQUEST | NLM_F_ACK);
    calls.netlinkSend = failing(ENOBUFS);
    EXPECT_EQ(request(), -ENOBUFS);
}

TEST_F(Netfilter, LogGroupThatCannotBeTakenIsBusyOrNotPermitted) {
    struct {
        int first;   // answer to the request for the group
        int second;  // to one that only needs the privilege
        int result;
        size_t requests;
    } const cases[] = {{0, 0, 0, 1},
                       {-EPERM, 0, -EBUSY, 2},
                       {-EPERM, -EINVAL, -EBUSY, 2},
                       {-EPERM, -EPERM, -EPERM, 2},
                       {-EINVAL, 0, -EINVAL, 1}};
    for (const auto& one : cases) {
        requests.clear();
        answer = [&] {
            give(errorMessage(sequence, requests.size() == 1 ? one.first : one.second));
        };
        EXPECT_EQ(std::make_unique<LogGroup>()->open(89, 1500), one.result);
        EXPECT_EQ(requests.size(), one.requests);
    }
}

TEST_F(Netfilter, SocketErrorsAreReturned) {
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    const auto results = [&] {
        return std::vector<int>{std::make_unique<LogGroup>()->open(89, 1500), AnswerWatch().open(),
                                LinkMonitor().open()};
    };
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto unopened = results();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_THAT(unopened, Each(-EMFILE));
    calls.netlinkBind = failing(EADDRINUSE);
    EXPECT_THAT(results(), Each(-EADDRINUSE));
    EXPECT_TRUE(requests.empty());
}
