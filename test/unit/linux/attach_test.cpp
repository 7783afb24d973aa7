// SPDX-License-Identifier: MIT
// Attaching to the queue, and what is left when the process ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <map>

#include "client.h"
#include "world.h"

using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// Who has log group 89: the second field.
int ownerOfTheGroup() {
    std::ifstream groups("/proc/self/net/netfilter/nfnetlink_log");
    int group = 0;
    int owner = 0;
    groups >> group >> owner;
    return owner;
}

// This process's netfilter sockets by descriptor: the port of each.
std::map<int, int64_t> netfilterSockets() {
    std::map<int, int64_t> ports;
    for (int fd = 0; fd < 64; ++fd) {
        int protocol = 0;
        sockaddr_nl name{};
        socklen_t size = sizeof protocol;
        if (getsockopt(fd, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) != 0) continue;
        size = sizeof name;
        if (protocol != NETLINK_NETFILTER ||
            getsockname(fd, reinterpret_cast<sockaddr*>(&name), &size) != 0)
            continue;
        if (name.nl_family == AF_NETLINK) ports[fd] = name.nl_pid;
    }
    return ports;
}

}  // namespace

class Attachment : public World {};

TEST_F(Attachment, IsRefusedToASecondInstanceAsBusy) {
    Client first;
    ASSERT_EQ(first.attached(), 0);
    {
        Client second;
        EXPECT_EQ(second.attached(), -EBUSY);
    }
    sendFence();
    EXPECT_EQ(first.next().frame.size(), 1019U);
}

TEST_F(Attachment, IsRefusedWithoutThePrivilegeToAdministerTheNetworkOrToSendPackets) {
    for (const int capability : {CAP_NET_ADMIN, CAP_NET_RAW}) {
        ClientOptions options;
        options.without = capability;
        Client client(options);
        EXPECT_EQ(client.attached(), -EPERM);
        EXPECT_THAT(ruleset(), IsEmpty());
    }
}

TEST_F(Attachment, EndsWithTheProcessHoweverItDies) {
    Client client;
    EXPECT_THAT(ruleset(), HasSubstr("table inet pmtud"));
    client.kill();
    EXPECT_THAT(ruleset(), IsEmpty());
    Client next;
    EXPECT_EQ(next.attached(), 0);
    EXPECT_EQ(next.started(), 0);
}

TEST_F(Attachment, OutlivesTheStaticObjectsOfTheProcess) {
    Client client;
    sendFence();
    client.next();
    EXPECT_EQ(client.stop(), 0);
    EXPECT_THAT(ruleset(), IsEmpty());
}

TEST_F(Attachment, EndsWithTheProcessThatTheCallbacksExceptionEnds) {
    ClientOptions options;
    options.throws = true;
    Client client(options);
    sendFence();
    const int status = client.await();
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
    EXPECT_THAT(ruleset(), IsEmpty());
}

// What a process that dies closes first is the lowest descriptor.
TEST_F(Attachment, GivesUpTheRulesBeforeTheGroupWhichBearsTheProcessNumber) {
    inOwnProcess([] {
        ASSERT_EQ(attach(), 0);
        EXPECT_EQ(ownerOfTheGroup(), getpid());
        const auto sockets = netfilterSockets();
        ASSERT_EQ(sockets.size(), 3U);  // rules, group, counter
        const auto first = sockets.begin();
        EXPECT_NE(first->second, getpid());
        EXPECT_EQ(std::next(first)->second, getpid());
    });
}
