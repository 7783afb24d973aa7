// SPDX-License-Identifier: MIT
// Attaching to the queue, and what is left when the process ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/netlink.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <vector>

#include "client.h"
#include "world.h"

using testing::IsEmpty;

namespace {

// The ports of this process's netfilter sockets, lowest descriptor first.
std::vector<uint32_t> netfilterPorts() {
    std::vector<uint32_t> ports;
    for (int fd = 0; fd < 64; ++fd) {
        int protocol = 0;
        sockaddr_nl name{};
        socklen_t size = sizeof protocol;
        if (getsockopt(fd, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) != 0) continue;
        size = sizeof name;
        getsockname(fd, reinterpret_cast<sockaddr*>(&name), &size);
        if (protocol == NETLINK_NETFILTER && name.nl_family == AF_NETLINK)
            ports.push_back(name.nl_pid);
    }
    return ports;
}

void dropCapability(int capability) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2];
    ASSERT_EQ(syscall(SYS_capget, &header, data), 0);
    data[capability / 32].effective &= ~(1U << (capability % 32));
    data[capability / 32].permitted &= ~(1U << (capability % 32));
    ASSERT_EQ(syscall(SYS_capset, &header, data), 0);
}

}  // namespace

class Attachment : public World {};

TEST_F(Attachment, IsRefusedWithoutThePrivilegeToAdministerTheNetworkOrToSendPackets) {
    for (const int capability : {CAP_NET_ADMIN, CAP_NET_RAW}) {
        inOwnProcess([capability] {
            dropCapability(capability);
            EXPECT_EQ(attach(), -EPERM);
        });
        EXPECT_THAT(ruleset(), IsEmpty());
    }
}

TEST_F(Attachment, OutlivesTheStaticObjectsOfTheProcess) {
    Client client;
    sendFence();
    client.next();
    EXPECT_EQ(client.stop(), 0);
    EXPECT_THAT(ruleset(), IsEmpty());
}

TEST_F(Attachment, EndsWithTheProcessThatTheCallbacksExceptionEnds) {
    const auto die = [this] {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_CORE, &none);
        ASSERT_EQ(attach(), 0);
        ASSERT_EQ(startThread([](const st_pktd_shm_queue_entry_data_t*, uint8_t*, int) -> int {
                      throw std::runtime_error("the callback's own");
                  }),
                  0);
        sendFence();
        sleep(kPatience.count());
    };
    EXPECT_EXIT(die(), testing::KilledBySignal(SIGABRT), "");
    EXPECT_THAT(ruleset(), IsEmpty());
}

// A process that dies closes its lowest descriptor first.
TEST_F(Attachment, ReleasesTheRulesBeforeTheGroupWhosePortIsTheProcessId) {
    inOwnProcess([] {
        ASSERT_EQ(attach(), 0);
        const auto process = static_cast<uint32_t>(getpid());
        EXPECT_EQ(ownerOfLogGroup(), process);
        const std::vector<uint32_t> ports = netfilterPorts();
        ASSERT_EQ(ports.size(), 3U);  // rules, group, counter
        EXPECT_NE(ports[0], process);
        EXPECT_EQ(ports[1], process);
    });
}
