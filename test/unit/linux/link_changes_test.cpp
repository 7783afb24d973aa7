// SPDX-License-Identifier: MIT
// Interfaces that change all the time, and changes that another process forges.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if_link.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <thread>

#include "calls.h"
#include "link_monitor.h"
#include "messages.h"
#include "world.h"

using pmtud_linux::LinkMonitor;
using pmtud_linux::MnlSocket;
using pmtud_linux::VlanTable;
using testing::HasSubstr;
using testing::Not;

class LinkChanges : public World {
 protected:
    void SetUp() override {
        World::SetUp();
        ASSERT_EQ(monitor.open(), 0);
    }
    void TearDown() override { calls = {}; }

    LinkMonitor monitor;
    VlanTable table;
};

TEST_F(LinkChanges, ThatComeAndGoWhileAProcessAttachesAreFollowed) {
    std::ofstream batch("/run/churn");
    for (const char* const name : {"100", "101", "102", "103"})
        batch << "link add bcm0." << name << " type veth peer name peer" << name << "\n";
    for (const char* const name : {"100", "101", "102", "103"})
        batch << "link del bcm0." << name << "\n";
    batch.close();
    for (int round = 0; round < 20; ++round) {
        inOwnProcess([] {
            std::atomic<bool> started{false};
            std::atomic<bool> over{false};
            std::thread churn([&] {
                while (!over) {
                    run("ip -batch /run/churn");
                    started = true;
                    started.notify_all();
                }
                run("ip link add bcm0.200 type veth peer name peer200");
            });
            started.wait(false);
            const int result = attach() != 0 ? -1 : startThread();
            over = true;
            churn.join();
            ASSERT_EQ(result, 0);
            RuleChanges changes;
            const auto limit = std::chrono::steady_clock::now() + kPatience;
            const auto isComplete = [] {
                const std::string rules = output("nft list map inet pmtud egress");
                return rules.find("to-bcm0.200") != std::string::npos &&
                       rules.find("to-bcm0.10") == rules.rfind("to-bcm0.10");
            };
            while (!isComplete() && std::chrono::steady_clock::now() < limit) changes.await();
            const std::string rules = output("nft list ruleset");
            for (const char* const name : {"10", "20", "30", "200"})
                EXPECT_THAT(rules, HasSubstr(std::string("chain to-bcm0.") + name + " "));
            for (const char* const name : {"100", "101", "102", "103"})
                EXPECT_THAT(rules, Not(HasSubstr(std::string("chain to-bcm0.") + name + " ")));
        });
        run("ip link del bcm0.200");
    }
}

namespace {

// Sends the message to the socket as any process with the privilege can.
void forge(int bus, int to, const Netlink& message) {
    sockaddr_nl address{};
    socklen_t size = sizeof address;
    ASSERT_EQ(getsockname(to, reinterpret_cast<sockaddr*>(&address), &size), 0);
    const MnlSocket socket(mnl_socket_open2(bus, SOCK_CLOEXEC));
    ASSERT_TRUE(socket);
    ASSERT_EQ(mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID), 0);
    ASSERT_EQ(sendto(mnl_socket_get_fd(socket.get()), message.bytes.data(), message.bytes.size(), 0,
                     reinterpret_cast<const sockaddr*>(&address), sizeof address),
              static_cast<ssize_t>(message.bytes.size()));
}

Netlink link(uint16_t type, const char* name, uint32_t index, uint32_t mtu) {
    return linkMessage(type, static_cast<int>(index)).text(IFLA_IFNAME, name).number(IFLA_MTU, mtu);
}

}  // namespace

TEST_F(LinkChanges, ThatAnotherProcessForgesAreIgnored) {
    ASSERT_EQ(monitor.list(table), 0);
    const auto before = table.vlans();
    ASSERT_EQ(before.size(), 3U);
    for (const Netlink& message : {link(RTM_NEWLINK, "bcm0.40", 4711, 1280),
                                   link(RTM_NEWLINK, "bcm0.20", before.at(20).ifindex, 576),
                                   link(RTM_DELLINK, "bcm0.30", before.at(30).ifindex, 1000)})
        forge(NETLINK_ROUTE, monitor.fd(), message);
    EXPECT_FALSE(monitor.follow(table));
    EXPECT_EQ(table.vlans(), before);
    // The kernel's own are followed past them.
    forge(NETLINK_ROUTE, monitor.fd(), link(RTM_NEWLINK, "bcm0.40", 4711, 1280));
    run("ip link set bcm0.20 mtu 1400");
    EXPECT_TRUE(monitor.follow(table));
    EXPECT_EQ(table.vlans().size(), 3U);
    EXPECT_EQ(table.vlans().at(20).mtu, 1400U);
}

TEST_F(LinkChanges, DoNotEndWithAForgedEndOfAList) {
    // It arrives after what is older than the list has been thrown away.
    bool forged = false;
    calls.recvfrom = [&](int fd, void* buffer, size_t size, int flags, sockaddr* from,
                         socklen_t* fromSize) {
        const ssize_t received = real::recvfrom(fd, buffer, size, flags, from, fromSize);
        if (received >= 0 || forged) return received;
        forged = true;
        forge(NETLINK_ROUTE, fd, Netlink(NLMSG_DONE, 4, 1));
        errno = EAGAIN;
        return received;
    };
    EXPECT_EQ(monitor.list(table), 0);
    EXPECT_TRUE(forged);
    EXPECT_FALSE(monitor.stale());
    EXPECT_EQ(table.vlans().size(), 3U);
}
