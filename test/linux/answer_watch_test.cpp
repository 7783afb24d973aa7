// SPDX-License-Identifier: MIT
// When answers count as lost; the counter is the test's own.
#include "answer_watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

using namespace std::chrono_literals;
using pmtud_linux::AnswerWatch;
using testing::ElementsAreArray;

namespace {

using Bytes = std::vector<uint8_t>;

constexpr AnswerWatch::Clock::time_point start{1000s};

// The kernel's part.
struct Kernel {
    uint8_t answers = 0;  // the counter
    int error = 0;        // what a request is refused with
    int requests = 0;
    Bytes request;
    std::vector<Bytes> datagrams;  // to be received

    uint32_t sequence() const {
        uint32_t number = 0;
        std::memcpy(&number, &request[8], sizeof number);
        return number;
    }
};

Kernel kernel;

// Literal messages; the numbers are in this machine's byte order, which netlink is in.
class Datagram {
 public:
    Datagram& number(uint32_t value) { return append(&value, sizeof value); }
    Datagram& half(uint16_t value) { return append(&value, sizeof value); }
    Datagram& bytes(const Bytes& value) { return append(value.data(), value.size()); }
    const Bytes& whole() const { return m_bytes; }

 private:
    Datagram& append(const void* value, size_t size) {
        const auto* const first = static_cast<const uint8_t*>(value);
        m_bytes.insert(m_bytes.end(), first, first + size);
        return *this;
    }

    Bytes m_bytes;
};

// The object with its counter: 9,999 bytes and the packets.
Bytes object() {
    return Datagram()
        .number(48)
        .half(0x0a12)  // NFT_MSG_NEWOBJ
        .half(0)
        .number(kernel.sequence())
        .number(0)
        .bytes({1, 0, 0, 0})  // inet
        .half(28)
        .half(0x8004)  // nested NFTA_OBJ_DATA
        .half(12)
        .half(1)  // NFTA_COUNTER_BYTES
        .bytes({0, 0, 0, 0, 0, 0, 0x27, 0x0f})
        .half(12)
        .half(2)  // NFTA_COUNTER_PACKETS
        .bytes({0, 0, 0, 0, 0, 0, 0, kernel.answers})
        .whole();
}

Bytes acknowledgement(int error) {
    return Datagram()
        .number(36)
        .half(2)  // NLMSG_ERROR
        .half(0)
        .number(kernel.sequence())
        .number(0)
        .number(static_cast<uint32_t>(error))
        .bytes(Bytes(16))
        .whole();
}

}  // namespace

extern "C" ssize_t __wrap_mnl_socket_sendto(const mnl_socket*, const void* bytes, size_t size) {
    ++kernel.requests;
    const auto* const first = static_cast<const uint8_t*>(bytes);
    kernel.request.assign(first, first + size);
    kernel.datagrams.push_back(kernel.error == 0 ? object() : acknowledgement(-kernel.error));
    return static_cast<ssize_t>(size);
}

extern "C" ssize_t __wrap_recvfrom(int, void* buffer, size_t room, int, sockaddr* sender,
                                   socklen_t* size) {
    if (kernel.datagrams.empty() || kernel.datagrams.front().size() > room) {
        errno = EAGAIN;
        return -1;
    }
    const Bytes datagram = kernel.datagrams.front();
    kernel.datagrams.erase(kernel.datagrams.begin());
    std::memcpy(buffer, datagram.data(), datagram.size());
    std::memset(sender, 0, *size);  // the kernel's port is 0
    *size = sizeof(sockaddr_nl);
    return static_cast<ssize_t>(datagram.size());
}

// What a fortified build calls.
extern "C" ssize_t __wrap___recvfrom_chk(int fd, void* buffer, size_t room, size_t, int flags,
                                         sockaddr* sender, socklen_t* size) {
    return __wrap_recvfrom(fd, buffer, room, flags, sender, size);
}

namespace {

enum Finding { none, leaves, lost, lostFirst, lostAgain };

class AnswerWatching : public testing::Test {
 protected:
    void SetUp() override {
        kernel = {};
        ASSERT_EQ(m_watch.open(), 0);
    }

    // Hands over a frame whose answer goes out of the interface, and does or does not leave.
    Finding handOver(uint32_t ifindex, bool answerLeaves,
                     AnswerWatch::Clock::time_point now = start) {
        if (answerLeaves) ++kernel.answers;
        const AnswerWatch::Finding finding = m_watch.after(ifindex, now);
        if (!finding.lost) {
            EXPECT_FALSE(finding.resign);
            return finding.isNews ? leaves : none;
        }
        if (finding.isNews) {
            EXPECT_TRUE(finding.resign);
            return lostFirst;
        }
        return finding.resign ? lostAgain : lost;
    }

    AnswerWatch m_watch;
};

}  // namespace

TEST_F(AnswerWatching, AsksForTheCounterOfTheAnswers) {
    handOver(7, true);
    EXPECT_THAT(kernel.request,
                ElementsAreArray(Datagram()
                                     .number(52)
                                     .half(0x0a13)  // NFT_MSG_GETOBJ
                                     .half(1)       // a request
                                     .number(kernel.sequence())
                                     .number(0)
                                     .bytes({1, 0, 0, 0})  // inet
                                     .half(10)
                                     .half(1)  // NFTA_OBJ_TABLE
                                     .bytes({'p', 'm', 't', 'u', 'd', 0, 0, 0})
                                     .half(12)
                                     .half(2)  // NFTA_OBJ_NAME
                                     .bytes({'a', 'n', 's', 'w', 'e', 'r', 's', 0})
                                     .half(8)
                                     .half(3)  // NFTA_OBJ_TYPE: a counter
                                     .bytes({0, 0, 0, 1})
                                     .whole()));
}

TEST_F(AnswerWatching, FindsEachLostAnswer) {
    EXPECT_EQ(handOver(7, true), none);
    EXPECT_EQ(handOver(7, false, start + 1ms), lostFirst);
    EXPECT_EQ(handOver(7, false, start + 2ms), lost);
}

TEST_F(AnswerWatching, ResignsEvery30SecondsWhileAnswersAreLost) {
    EXPECT_EQ(handOver(7, false), lostFirst);
    EXPECT_EQ(handOver(7, false, start + 1ms), lost);
    EXPECT_EQ(handOver(7, false, start + 29999ms), lost);
    EXPECT_EQ(handOver(7, false, start + 30s), lostAgain);
    EXPECT_EQ(handOver(7, false, start + 59999ms), lost);
    EXPECT_EQ(handOver(7, false, start + 60s), lostAgain);
}

TEST_F(AnswerWatching, ReportsOnceThatAnswersLeaveAgain) {
    EXPECT_EQ(handOver(7, false), lostFirst);
    EXPECT_EQ(handOver(7, true, start + 30s), leaves);
    EXPECT_EQ(handOver(7, true, start + 30001ms), none);
    EXPECT_EQ(handOver(7, false, start + 30002ms), lostFirst);
}

TEST_F(AnswerWatching, TellsTheInterfacesApart) {
    EXPECT_EQ(handOver(7, false), lostFirst);
    EXPECT_EQ(handOver(8, true, start + 1ms), none);
    EXPECT_EQ(handOver(9, false, start + 2s), lostFirst);
    EXPECT_EQ(handOver(7, true, start + 2001ms), leaves);
    EXPECT_EQ(handOver(9, false, start + 2002ms), lost);
}

// If receiving it failed, an answer of the kernel's is there when the next one is asked for.
TEST_F(AnswerWatching, PassesOverAnAnswerToAnEarlierRequest) {
    EXPECT_EQ(handOver(7, true), none);
    kernel.datagrams.push_back(object());
    EXPECT_EQ(handOver(7, true), none);
    EXPECT_EQ(handOver(7, true), none);
}

TEST_F(AnswerWatching, HoldsNothingAgainstAnswersWhileTheCounterCannotBeRead) {
    kernel.error = ENOENT;
    EXPECT_EQ(handOver(7, false), none);
    EXPECT_EQ(kernel.requests, 1);
    kernel.error = 0;
    EXPECT_EQ(handOver(7, true, start + 1s), none);
    EXPECT_EQ(handOver(7, false, start + 2s), lostFirst);
}

TEST_F(AnswerWatching, MayFindMoreAnswersThanFrames) {
    kernel.answers = 5;
    EXPECT_EQ(handOver(7, true), none);
    EXPECT_EQ(handOver(7, false, start + 1s), lostFirst);
}
