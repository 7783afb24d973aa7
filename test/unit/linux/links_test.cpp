// SPDX-License-Identifier: MIT
// Lists of the kernel's interfaces that are interrupted, overrun or refused, interfaces that change
// all the time, and changes that another process forges.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <sys/ioctl.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "calls.h"
#include "cfg.h"
#include "link.h"
#include "link_monitor.h"
#include "messages.h"
#include "vlan_name.h"
#include "world.h"

using pmtud_linux::LinkMonitor;
using pmtud_linux::VlanTable;
using testing::HasSubstr;
using testing::Not;

namespace {

bool isOfLinks(int fd) {
    int protocol = 0;
    socklen_t size = sizeof protocol;
    return getsockopt(fd, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) == 0 &&
           protocol == NETLINK_ROUTE;
}

// How many lists the kernel has completed.
int listsEnded = 0;

// Lets `change` alter each message of the lists.
void changeLists(const std::function<void(nlmsghdr&)>& change) {
    calls.recvfrom = [change](int fd, void* buffer, auto... others) {
        const ssize_t received = real.recvfrom(fd, buffer, others...);
        if (!isOfLinks(fd)) return received;
        int left = static_cast<int>(received);
        auto* message = static_cast<nlmsghdr*>(buffer);
        for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) {
            if (message->nlmsg_seq == 0) continue;
            if (message->nlmsg_type == NLMSG_DONE) ++listsEnded;
            change(*message);
        }
        return received;
    };
}

void interrupt(nlmsghdr& message) { message.nlmsg_flags |= NLM_F_DUMP_INTR; }

// Overruns once per list, in the middle of it.
void overrunLists() {
    calls.recvfrom = [](int fd, void* buffer, auto... others) -> ssize_t {
        static bool inTheMiddle = false;
        if (std::exchange(inTheMiddle, false)) return refuse(ENOBUFS);
        const ssize_t received = real.recvfrom(fd, buffer, others...);
        const auto* const message = static_cast<const nlmsghdr*>(buffer);
        const bool isEnd = received > 0 && message->nlmsg_type == NLMSG_DONE;
        inTheMiddle = received > 0 && message->nlmsg_seq != 0 && !isEnd;
        if (isEnd) ++listsEnded;
        return received;
    };
}

class Links : public World {
 protected:
    void SetUp() override {
        World::SetUp();
        ASSERT_EQ(monitor.open(), 0);
        listsEnded = 0;
    }
    void TearDown() override { calls = real; }

    LinkMonitor monitor;
    VlanTable table;
};

}  // namespace

// The kernel doubles the number, for its bookkeeping (socket(7)).
TEST_F(Links, MayChangeByTheThousandBeforeTheyAreRead) {
    int room = 0;
    socklen_t size = sizeof room;
    ASSERT_EQ(getsockopt(monitor.fd(), SOL_SOCKET, SO_RCVBUF, &room, &size), 0);
    EXPECT_EQ(room, 2 * 1048576);
}

TEST_F(Links, AreFollowedAfterAListThatIsInterruptedTenTimes) {
    changeLists(interrupt);
    EXPECT_EQ(monitor.list(table), 0);
    EXPECT_EQ(listsEnded, 10);
    EXPECT_TRUE(monitor.stale());
    EXPECT_EQ(table.vlans().size(), 3U);
    EXPECT_TRUE(monitor.follow(table));
    EXPECT_TRUE(monitor.stale());

    calls.recvfrom = real.recvfrom;
    run("ip link del bcm0.30");
    EXPECT_TRUE(monitor.follow(table));
    EXPECT_FALSE(monitor.stale());
    EXPECT_EQ(table.vlans().size(), 2U);
    EXPECT_FALSE(monitor.follow(table));
}

TEST_F(Links, AreFollowedAfterAListThatOverrunsTenTimes) {
    overrunLists();
    EXPECT_EQ(monitor.list(table), 0);
    EXPECT_EQ(listsEnded, 10);
    EXPECT_TRUE(monitor.stale());
    calls.recvfrom = real.recvfrom;
    EXPECT_TRUE(monitor.follow(table));
    EXPECT_FALSE(monitor.stale());
    EXPECT_EQ(table.vlans().size(), 3U);
}

TEST_F(Links, AreListedAgainAfterALoss) {
    ASSERT_EQ(monitor.list(table), 0);
    run("ip link set bcm0.20 mtu 1400");
    calls.recvfrom = [](auto...) {
        calls.recvfrom = real.recvfrom;
        return refuse(ENOBUFS);
    };
    EXPECT_TRUE(monitor.follow(table));
    EXPECT_FALSE(monitor.stale());
    EXPECT_EQ(table.vlans().at(20).mtu, 1400U);
}

// The buffer then holds only a part of it.
TEST_F(Links, AreListedAgainAfterADatagramTooLargeForTheBuffer) {
    ASSERT_EQ(monitor.list(table), 0);
    run("ip link set bcm0.20 mtu 1400");
    calls.recvfrom = [](int fd, void* buffer, size_t size, auto... others) {
        calls.recvfrom = real.recvfrom;
        real.recvfrom(fd, buffer, size, others...);
        return static_cast<ssize_t>(size) + 1;
    };
    EXPECT_TRUE(monitor.follow(table));
    EXPECT_EQ(table.vlans().at(20).mtu, 1400U);
}

TEST_F(Links, StayUnchangedIfTheKernelNeverEndsItsList) {
    ASSERT_EQ(monitor.list(table), 0);
    const auto before = table.vlans();
    int timeout = 0;
    // An error message without an error does not end it.
    changeLists([](nlmsghdr& message) {
        if (message.nlmsg_type == NLMSG_DONE) message.nlmsg_type = NLMSG_ERROR;
    });
    calls.poll = [&](pollfd*, nfds_t, int wanted) {
        timeout = wanted;
        return 0;
    };
    EXPECT_EQ(monitor.list(table), 0);
    EXPECT_GT(timeout, 0);
    EXPECT_TRUE(monitor.stale());
    EXPECT_EQ(table.vlans(), before);
}

TEST_F(Links, ThatCannotBeListedAreAnError) {
    changeLists([](nlmsghdr& message) {
        message.nlmsg_type = NLMSG_ERROR;
        const int error = -EPERM;
        memcpy(mnl_nlmsg_get_payload(&message), &error, sizeof error);
    });
    EXPECT_EQ(monitor.list(table), -EPERM);
    calls.recvfrom = failing(ENOMEM);
    EXPECT_EQ(monitor.list(table), -ENOMEM);
    EXPECT_FALSE(monitor.stale());
    calls.recvfrom = real.recvfrom;
    calls.netlinkSend = failing(ENOBUFS);
    EXPECT_EQ(monitor.list(table), -ENOBUFS);
}

TEST_F(Links, ThatCannotBeListedToTheEndAreAnError) {
    // Only the first message of the list arrives.
    calls.recvfrom = [inTheMiddle = false](int fd, void* buffer,
                                           auto... others) mutable -> ssize_t {
        if (inTheMiddle) return refuse(EIO);
        const ssize_t received = real.recvfrom(fd, buffer, others...);
        const auto* const message = static_cast<const nlmsghdr*>(buffer);
        inTheMiddle = received > 0 && message->nlmsg_seq != 0;
        return inTheMiddle ? static_cast<ssize_t>(message->nlmsg_len) : received;
    };
    EXPECT_EQ(monitor.list(table), -EIO);
    EXPECT_FALSE(monitor.stale());
}

// The rules are those of a list that missed an interface; a second later they are complete.
TEST_F(Links, MissingFromAStaleListAtTheStartAreAddedByTheReceiveThread) {
    inOwnProcess([] {
        changeLists([](nlmsghdr& message) {
            interrupt(message);
            const auto link = pmtud_linux::decodeLink(message);
            if (link && link->name == "bcm0.20") message.nlmsg_type = NLMSG_NOOP;
        });
        ASSERT_EQ(attach(), 0);
        EXPECT_THAT(ruleset(), Not(HasSubstr("to-bcm0.20")));
        EXPECT_THAT(ruleset(), HasSubstr("chain to-bcm0.30"));
        calls.recvfrom = real.recvfrom;
        RuleChanges changes;
        ASSERT_EQ(startThread(), 0);
        changes.await();
        EXPECT_THAT(ruleset(), HasSubstr("chain to-bcm0.20"));
    });
}

TEST_F(Links, ThatComeAndGoWhileAProcessAttachesAreFollowed) {
    const std::string addAndDelete = R"(link add bcm0.100 type veth peer name peer100
link add bcm0.101 type veth peer name peer101
link add bcm0.102 type veth peer name peer102
link add bcm0.103 type veth peer name peer103
link del bcm0.100
link del bcm0.101
link del bcm0.102
link del bcm0.103
)";
    for (int round = 0; round < 20; ++round) {
        inOwnProcess([&] {
            std::atomic<bool> started{false};
            std::atomic<bool> over{false};
            std::thread churn([&] {
                while (!over) {
                    batch(addAndDelete);
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
            await("the rules to be complete", [] {
                const std::string rules = output("nft list map inet pmtud egress");
                return rules.find("to-bcm0.200") != std::string::npos &&
                       rules.find("to-bcm0.10") == rules.rfind("to-bcm0.10");
            });
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

Netlink link(uint16_t type, const char* name, uint32_t index, uint32_t mtu) {
    return linkMessage(type, static_cast<int>(index)).text(IFLA_IFNAME, name).number(IFLA_MTU, mtu);
}

uint32_t portOf(int fd) {
    sockaddr_nl address{};
    socklen_t size = sizeof address;
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
    return address.nl_pid;
}

}  // namespace

TEST_F(Links, ThatAnotherProcessForgesAreIgnored) {
    ASSERT_EQ(monitor.list(table), 0);
    const auto before = table.vlans();
    ASSERT_EQ(before.size(), 3U);
    for (const Netlink& message : {link(RTM_NEWLINK, "bcm0.40", 4711, 1280),
                                   link(RTM_NEWLINK, "bcm0.20", before.at(20).ifindex, 576),
                                   link(RTM_DELLINK, "bcm0.30", before.at(30).ifindex, 1000)})
        forge(NETLINK_ROUTE, portOf(monitor.fd()), message.bytes);
    EXPECT_FALSE(monitor.follow(table));
    EXPECT_EQ(table.vlans(), before);
    // The kernel's messages after a forged one still count.
    forge(NETLINK_ROUTE, portOf(monitor.fd()), link(RTM_NEWLINK, "bcm0.40", 4711, 1280).bytes);
    run("ip link set bcm0.20 mtu 1400");
    EXPECT_TRUE(monitor.follow(table));
    EXPECT_EQ(table.vlans().size(), 3U);
    EXPECT_EQ(table.vlans().at(20).mtu, 1400U);
}

TEST_F(Links, DoNotEndWithAForgedEndOfAList) {
    // It arrives after the monitor has discarded everything older than the list.
    bool forged = false;
    calls.recvfrom = [&](int fd, auto... others) {
        const ssize_t received = real.recvfrom(fd, others...);
        if (received >= 0 || forged) return received;
        forged = true;
        forge(NETLINK_ROUTE, portOf(fd), Netlink(NLMSG_DONE, 4, 1).bytes);
        errno = EAGAIN;
        return received;
    };
    EXPECT_EQ(monitor.list(table), 0);
    EXPECT_TRUE(forged);
    EXPECT_FALSE(monitor.stale());
    EXPECT_EQ(table.vlans().size(), 3U);
}

// libnftables reads numbers in several bases.
TEST_F(Links, AreServedWhateverTheDigitsOfTheirIndexes) {
    inOwnProcess([] {
        const std::pair<int, int> vlans[] = {
            {100, 100}, {107, 107},   {108, 108},   {110, 110},  {111, 111},      {119, 119},
            {777, 777}, {1000, 1000}, {1009, 1009}, {40, 40000}, {41, 2147483647}};
        ASSERT_EQ(cfg_init(), 0);
        for (const auto& [vlan, index] : vlans) {
            const std::string number = std::to_string(vlan);
            run("ip link add bcm0." + number + " index " + std::to_string(index) +
                " type veth peer name peer" + number);
            EXPECT_EQ(cfg_vlan_l3_get_dest_vlan(index), vlan);
        }
        ASSERT_EQ(attach(), 0);
        const std::string ingress = output("nft list set inet pmtud vlans");
        const std::string egress = output("nft list map inet pmtud egress");
        for (const auto& [vlan, index] : vlans) {
            const std::string name = "bcm0." + std::to_string(vlan);
            EXPECT_THAT(ingress, HasSubstr('"' + name + '"'));
            EXPECT_THAT(egress, HasSubstr('"' + name + "\" : goto to-" + name));
        }
    });
}

// The longest name has fifteen bytes and a zero; even without the zero, the daemon must not read
// beyond the name.
TEST(InterfaceName, IsReadNoFurtherThanTheKernelsAnswer) {
    inOwnProcess([] {
        calls.ioctl = [](int, unsigned long request, void* argument) {
            EXPECT_EQ(request, static_cast<unsigned long>(SIOCGIFNAME));
            auto& answer = *static_cast<ifreq*>(argument);
            memset(&answer, '7', sizeof answer);
            memcpy(answer.ifr_name, "bcm0.20", 7);
            return 0;
        };
        EXPECT_EQ(pmtud_linux::nameOfInterface(3, 7), "bcm0.20777777777");
        EXPECT_EQ(cfg_vlan_l3_get_dest_vlan(7), -1);
        // No Ethernet interface of this kernel has such an MTU; the type of the number allows it.
        calls.ioctl = [](int, unsigned long, void* argument) {
            static_cast<ifreq*>(argument)->ifr_mtu = 66816;
            return 0;
        };
        EXPECT_EQ(cfg_vlan_l3_get_mtu(40), 66816U);
    });
}
