// SPDX-License-Identifier: MIT
// Lists of links that are interrupted, overrun or refused, and what the list may contain.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "calls.h"
#include "cfg.h"
#include "link_monitor.h"
#include "pktd.h"
#include "ruleset.h"
#include "world.h"

using pmtud_linux::LinkMonitor;
using pmtud_linux::VlanTable;
using testing::HasSubstr;
using testing::Not;

namespace {

// What becomes of the receipt of netlink datagrams.
ssize_t receive(int fd, void* buffer, size_t size, int flags, sockaddr* from, socklen_t* fromSize) {
    return real::recvfrom(fd, buffer, size, flags, from, fromSize);
}

bool isOfLinks(int fd) {
    int protocol = 0;
    socklen_t size = sizeof protocol;
    return getsockopt(fd, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) == 0 &&
           protocol == NETLINK_ROUTE;
}

// How many lists the kernel ended.
int listsEnded = 0;

// Marks all messages of the kernel's answers as those of an interrupted list (RFC 3549 knows no
// such flag; netlink(7) does).
ssize_t receiveInterrupted(int fd, void* buffer, size_t size, int flags, sockaddr* from,
                           socklen_t* fromSize) {
    const ssize_t received = receive(fd, buffer, size, flags, from, fromSize);
    if (!isOfLinks(fd)) return received;
    int left = static_cast<int>(received);
    auto* message = static_cast<nlmsghdr*>(buffer);
    for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) {
        if (message->nlmsg_seq == 0) continue;
        message->nlmsg_flags |= NLM_F_DUMP_INTR;
        if (message->nlmsg_type == NLMSG_DONE) ++listsEnded;
    }
    return received;
}

// Overruns once per list, in the middle of it.
ssize_t receiveOverrun(int fd, void* buffer, size_t size, int flags, sockaddr* from,
                       socklen_t* fromSize) {
    static bool answered = false;
    if (answered) {
        answered = false;
        errno = ENOBUFS;
        return -1;
    }
    const ssize_t received = receive(fd, buffer, size, flags, from, fromSize);
    const auto* const message = static_cast<const nlmsghdr*>(buffer);
    answered = received > 0 && message->nlmsg_seq != 0 && message->nlmsg_type != NLMSG_DONE;
    if (received > 0 && message->nlmsg_type == NLMSG_DONE) ++listsEnded;
    return received;
}

int attach() { return pktd_shm_queue_init("pmtud", 0, 1, pktd_tx_queue_pool, pktd_rx_queue_pool); }

int callback(const st_pktd_shm_queue_entry_data_t*, uint8_t*, int) { return PKTD_VERDICT_DISCARD; }

int start() {
    return pktd_shm_rx_thread_init("pmtud", pktd_rx_queue_pool, pktd_rx_wl_pool, 32, 32, callback,
                                   nullptr);
}

std::string ruleset() { return output("nft list ruleset"); }

}  // namespace

class ListOfLinks : public World {};

TEST_F(ListOfLinks, ThatIsInterruptedTenTimesIsUsedAndStale) {
    inOwnProcess([] {
        LinkMonitor monitor;
        VlanTable table;
        ASSERT_EQ(monitor.open(), 0);
        calls.recvfrom = receiveInterrupted;
        EXPECT_EQ(monitor.list(table), 0);
        EXPECT_EQ(listsEnded, 10);
        EXPECT_TRUE(monitor.stale());
        EXPECT_EQ(table.vlans().size(), 3U);
        EXPECT_TRUE(monitor.follow(table));
        EXPECT_TRUE(monitor.stale());

        calls.recvfrom = nullptr;
        EXPECT_TRUE(monitor.follow(table));
        EXPECT_FALSE(monitor.stale());
        EXPECT_EQ(table.vlans().size(), 3U);
        EXPECT_FALSE(monitor.follow(table));
    });
}

TEST_F(ListOfLinks, ThatOverrunsTenTimesIsUsedAndStale) {
    inOwnProcess([] {
        LinkMonitor monitor;
        VlanTable table;
        ASSERT_EQ(monitor.open(), 0);
        calls.recvfrom = receiveOverrun;
        EXPECT_EQ(monitor.list(table), 0);
        EXPECT_EQ(listsEnded, 10);
        EXPECT_TRUE(monitor.stale());
        calls.recvfrom = nullptr;
        EXPECT_TRUE(monitor.follow(table));
        EXPECT_FALSE(monitor.stale());
        EXPECT_EQ(table.vlans().size(), 3U);
    });
}

TEST_F(ListOfLinks, ThatTheSocketFailsInIsAFailure) {
    inOwnProcess([] {
        LinkMonitor monitor;
        VlanTable table;
        ASSERT_EQ(monitor.open(), 0);
        calls.recvfrom = [](int, void*, size_t, int, sockaddr*, socklen_t*) -> ssize_t {
            errno = ENOMEM;
            return -1;
        };
        EXPECT_EQ(monitor.list(table), -ENOMEM);
        EXPECT_FALSE(monitor.stale());
    });
}

// The rules are those of a list that missed an interface; a second later they are complete.
TEST_F(ListOfLinks, ThatIsStaleAtTheStartIsMadeGoodByTheReceiveThread) {
    inOwnProcess([] {
        calls.recvfrom = [](int fd, void* buffer, size_t size, int flags, sockaddr* from,
                            socklen_t* fromSize) {
            const ssize_t received = receiveInterrupted(fd, buffer, size, flags, from, fromSize);
            if (!isOfLinks(fd)) return received;
            int left = static_cast<int>(received);
            auto* message = static_cast<nlmsghdr*>(buffer);
            for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) {
                const auto link = pmtud_linux::decodeLink(*message);
                if (link && link->name == "bcm0.20") message->nlmsg_type = NLMSG_NOOP;
            }
            return received;
        };
        ASSERT_EQ(attach(), 0);
        EXPECT_THAT(ruleset(), Not(HasSubstr("to-bcm0.20")));
        EXPECT_THAT(ruleset(), HasSubstr("chain to-bcm0.30"));
        calls.recvfrom = nullptr;
        RuleChanges changes;
        ASSERT_EQ(start(), 0);
        changes.await();
        EXPECT_THAT(ruleset(), HasSubstr("chain to-bcm0.20"));
    });
}

// Interfaces that come and go until it ends; then there is bcm0.200.
class Churn {
 public:
    Churn() {
        m_thread = std::thread([this] {
            std::ofstream batch("/run/churn");
            for (const char* const name : {"100", "101", "102", "103"})
                batch << "link add bcm0." << name << " type veth peer name peer" << name << "\n";
            for (const char* const name : {"100", "101", "102", "103"})
                batch << "link del bcm0." << name << "\n";
            batch.close();
            while (!m_over) {
                run("ip -batch /run/churn");
                m_started = true;
                m_started.notify_all();
            }
            run("ip link add bcm0.200 type veth peer name peer200");
        });
        m_started.wait(false);
    }
    Churn(const Churn&) = delete;
    Churn& operator=(const Churn&) = delete;
    ~Churn() { end(); }

    void end() {
        m_over = true;
        if (m_thread.joinable()) m_thread.join();
    }

 private:
    std::thread m_thread;
    std::atomic<bool> m_started{false};
    std::atomic<bool> m_over{false};
};

TEST_F(ListOfLinks, ThatChangesWhileAProcessAttachesIsFollowed) {
    for (int round = 0; round < 20; ++round) {
        inOwnProcess([] {
            Churn churn;
            ASSERT_EQ(attach(), 0);
            ASSERT_EQ(start(), 0);
            churn.end();
            const auto limit = std::chrono::steady_clock::now() + kPatience;
            const auto isComplete = [] {
                const std::string rules = output("nft list map inet pmtud egress");
                return rules.find("to-bcm0.200") != std::string::npos &&
                       rules.find("to-bcm0.10") == rules.rfind("to-bcm0.10");
            };
            RuleChanges changes;
            while (!isComplete() && std::chrono::steady_clock::now() < limit) changes.await();
            const std::string rules = ruleset();
            for (const char* const name : {"10", "20", "30", "200"})
                EXPECT_THAT(rules, HasSubstr(std::string("chain to-bcm0.") + name + " "));
            for (const char* const name : {"100", "101", "102", "103"})
                EXPECT_THAT(rules, Not(HasSubstr(std::string("chain to-bcm0.") + name + " ")));
        });
        run("ip link del bcm0.200");
    }
}

// libnftables reads numbers in several bases.
TEST_F(ListOfLinks, TakesInIndexesOfAnyDigits) {
    inOwnProcess([] {
        constexpr int kIndexes[] = {100, 107, 108, 110, 111, 119, 777, 1000, 1009};
        for (const int index : kIndexes) {
            const std::string number = std::to_string(index);
            run("ip link add bcm0." + number + " index " + number + " type veth peer name peer" +
                number);
        }
        ASSERT_EQ(attach(), 0);
        const std::string ingress = output("nft list set inet pmtud vlans");
        const std::string egress = output("nft list map inet pmtud egress");
        for (const int index : kIndexes) {
            const std::string name = "bcm0." + std::to_string(index);
            EXPECT_THAT(ingress, HasSubstr('"' + name + '"'));
            EXPECT_THAT(egress, HasSubstr('"' + name + "\" : goto to-" + name));
        }
    });
}

TEST_F(ListOfLinks, TakesInIndexesAbove32767) {
    inOwnProcess([] {
        run("ip link add bcm0.40 index 40000 mtu 900 type veth peer name peer40");
        run("ip link add bcm0.41 index 2147483647 mtu 901 type veth peer name peer41");
        ASSERT_EQ(cfg_init(), 0);
        EXPECT_EQ(cfg_vlan_l3_get_dest_vlan(40000), 40);
        EXPECT_EQ(cfg_vlan_l3_get_dest_vlan(2147483647), 41);
        LinkMonitor monitor;
        VlanTable table;
        ASSERT_EQ(monitor.open(), 0);
        ASSERT_EQ(monitor.list(table), 0);
        EXPECT_EQ(table.vlanOf(40000), 40);
        EXPECT_EQ(table.vlanOf(2147483647), 41);
        ASSERT_EQ(attach(), 0);
        const std::string egress = output("nft list map inet pmtud egress");
        EXPECT_THAT(egress, HasSubstr("\"bcm0.40\" : goto to-bcm0.40"));
        EXPECT_THAT(egress, HasSubstr("\"bcm0.41\" : goto to-bcm0.41"));
    });
}

// No Ethernet interface of this kernel has one; the type of the number allows it.
TEST_F(ListOfLinks, TakesInAnMtuAbove65535AsAnIngressOnly) {
    inOwnProcess([] {
        alignas(nlmsghdr) std::array<char, 256> bytes{};
        nlmsghdr* const message = mnl_nlmsg_put_header(bytes.data());
        message->nlmsg_type = RTM_NEWLINK;
        auto* const header =
            static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg)));
        header->ifi_type = ARPHRD_ETHER;
        header->ifi_index = 7;
        mnl_attr_put_strz(message, IFLA_IFNAME, "bcm0.40");
        // As far as its lower sixteen bits go, 1,280.
        mnl_attr_put_u32(message, IFLA_MTU, 66816);
        const auto link = pmtud_linux::decodeLink(*message);
        ASSERT_TRUE(link);
        EXPECT_EQ(link->mtu, 66816U);
        VlanTable table;
        EXPECT_TRUE(table.apply(*link));
        EXPECT_EQ(pmtud_linux::changeText({}, table.vlans()),
                  "add element inet pmtud vlans { \"0000000000000007\" }\n");

        calls.ioctl = [](int, unsigned long request, void* argument) {
            EXPECT_EQ(request, static_cast<unsigned long>(SIOCGIFMTU));
            EXPECT_STREQ(static_cast<ifreq*>(argument)->ifr_name, "bcm0.40");
            static_cast<ifreq*>(argument)->ifr_mtu = 66816;
            return 0;
        };
        EXPECT_EQ(cfg_vlan_l3_get_mtu(40), 66816U);
    });
}

TEST(LinkMessageText, EndsWithItsAttribute) {
    alignas(nlmsghdr) std::array<char, 256> bytes{};
    nlmsghdr* const message = mnl_nlmsg_put_header(bytes.data());
    message->nlmsg_type = RTM_NEWLINK;
    mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg));
    // Without its zero, and padded with what would continue it.
    mnl_attr_put(message, IFLA_IFNAME, 6, "bcm0.2");
    bytes[message->nlmsg_len - 2] = '0';
    bytes[message->nlmsg_len - 1] = '0';
    const auto link = pmtud_linux::decodeLink(*message);
    ASSERT_TRUE(link);
    EXPECT_EQ(link->name, "bcm0.2");
}
