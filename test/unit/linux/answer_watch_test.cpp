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

#include "answer_news.h"

using namespace std::chrono_literals;
using pmtud_linux::AnswerNews;
using pmtud_linux::AnswerWatch;
using testing::ElementsAreArray;

namespace {

using Bytes = std::vector<uint8_t>;

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

class AnswerWatching : public testing::Test {
 protected:
    void SetUp() override {
        kernel = {};
        ASSERT_EQ(m_watch.open(), 0);
    }

    AnswerWatch m_watch;
};

constexpr AnswerNews::Clock::time_point kStart{1000s};

}  // namespace

TEST_F(AnswerWatching, AsksForTheCounterOfTheAnswers) {
    m_watch.hasLeft();
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
    EXPECT_FALSE(m_watch.hasLeft());
    kernel.answers = 1;
    EXPECT_TRUE(m_watch.hasLeft());
    EXPECT_FALSE(m_watch.hasLeft());
    kernel.answers = 3;
    EXPECT_TRUE(m_watch.hasLeft());
    EXPECT_FALSE(m_watch.hasLeft());
}

// If receiving it failed, an answer of the kernel's is there when the next one is asked for.
TEST_F(AnswerWatching, PassesOverAnAnswerToAnEarlierRequest) {
    kernel.answers = 1;
    EXPECT_TRUE(m_watch.hasLeft());
    kernel.datagrams.push_back(object());
    kernel.answers = 2;
    EXPECT_TRUE(m_watch.hasLeft());
    EXPECT_FALSE(m_watch.hasLeft());
}

TEST_F(AnswerWatching, HoldsNothingAgainstAnswersWhileTheCounterCannotBeRead) {
    kernel.error = ENOENT;
    EXPECT_TRUE(m_watch.hasLeft());
    EXPECT_EQ(kernel.requests, 1);
    kernel.error = 0;
    EXPECT_FALSE(m_watch.hasLeft());
}

TEST(AnswersThatDoNotLeave, AreNewsOnce) {
    AnswerNews news;
    EXPECT_TRUE(news.lost(7, kStart));
    EXPECT_FALSE(news.lost(7, kStart + 1h));
}

// A stateful policy lets the answers about known flows pass and drops the others.
TEST(AnswersThatDoNotLeave, LeaveAgainIfNoneIsLostFor30Seconds) {
    AnswerNews news;
    EXPECT_TRUE(news.lost(7, kStart));
    EXPECT_FALSE(news.left(7, kStart + 29999ms));
    EXPECT_FALSE(news.lost(7, kStart + 30s));
    EXPECT_FALSE(news.left(7, kStart + 59999ms));
    EXPECT_TRUE(news.left(7, kStart + 60s));
    EXPECT_FALSE(news.left(7, kStart + 61s));
    EXPECT_TRUE(news.lost(7, kStart + 62s));
}

TEST(AnswersThatDoNotLeave, AreOneInterfacesNews) {
    AnswerNews news;
    EXPECT_TRUE(news.lost(7, kStart));
    EXPECT_FALSE(news.left(8, kStart + 30s));
    EXPECT_TRUE(news.lost(8, kStart + 30s));
    EXPECT_TRUE(news.left(7, kStart + 30s));
}
