// SPDX-License-Identifier: MIT
// Interfaces that are VLANs by an alternative name, on the kernel.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "arpd.h"
#include "cfg.h"
#include "client.h"
#include "log_daemon.h"
#include "pktd.h"
#include "world.h"

using pmtud_linux::Descriptor;
using testing::HasSubstr;
using testing::Not;

namespace {

int indexOf(const char* name) { return static_cast<int>(if_nametoindex(name)); }

// Gives the interface another name; what it loses by going down it is given again.
void rename(const char* from, const char* to, const char* vlan) {
    const std::string network = std::string("fd00:") + vlan;
    run(std::string("ip link set ") + from + " down");
    run(std::string("ip link set ") + from + " name " + to + " up");
    run("ip addr add " + network + "::1/64 dev " + to + " nodad");
    for (const std::string& host : {std::string("10.0.") + vlan + ".2", network + "::2"})
        run("ip neigh add " + host + " lladdr 02:00:00:00:" + vlan + ":02 dev " + to);
    awaitLink(to);
}

void giveName(const char* interface, const char* name) {
    run(std::string("ip link property add dev ") + interface + " altname " + name);
}

void takeName(const char* interface, const char* name) {
    run(std::string("ip link property del dev ") + interface + " altname " + name);
}

// Waits until a socket of the group's kind has nothing left for its process to receive.
void awaitEmptyQueues() {
    const auto limit = std::chrono::steady_clock::now() + kPatience;
    constexpr int kNetfilter = 12;
    for (bool isEmpty = false; !isEmpty;) {
        if (std::chrono::steady_clock::now() > limit) throw std::runtime_error("queues stay full");
        std::ifstream sockets("/proc/net/netlink");
        isEmpty = true;
        for (std::string line; std::getline(sockets, line);) {
            std::istringstream fields(line);
            std::string address;
            std::string groups;
            int protocol = 0;
            unsigned long port = 0;
            unsigned long waiting = 0;
            if (fields >> address >> protocol >> port >> groups >> waiting)
                isEmpty = isEmpty && (protocol != kNetfilter || waiting == 0);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace

// The interfaces are eth0.10 and eth0.20, up and in use; bcm0.30 has its own name.
class AlternativeNameOnTheKernel : public World {
 protected:
    void SetUp() override {
        World::SetUp();
        rename("bcm0.10", "eth0.10", "10");
        rename("bcm0.20", "eth0.20", "20");
        for (const char* const host : {"a", "b"}) onHost(host, [] { awaitLink("eth0"); });
    }

    // One change of the rules.
    static void change(const std::function<void()>& action) {
        RuleChanges changes;
        action();
        changes.await();
    }

    // While the gated client's thread is in the callback with the packet for bcm0.30, the rules
    // withdraw the answer to one for bcm0.20.
    void sendTwoOfWhichOneWaits() {
        const auto limit = std::chrono::steady_clock::now() + kPatience;
        sendFence();
        while (handedOver("bcm0.30") != 1) ASSERT_LT(std::chrono::steady_clock::now(), limit);
        awaitEmptyQueues();
        send(packet(Ipv4{}));
        while (handedOver("bcm0.20") != 1) ASSERT_LT(std::chrono::steady_clock::now(), limit);
    }
};

TEST_F(AlternativeNameOnTheKernel, MakesTheEgressAndTheIngressVlans) {
    Client client;
    EXPECT_THAT(ruleset(), Not(HasSubstr("bcm0.20")));
    change([] { giveName("eth0.20", "bcm0.20"); });
    change([] { giveName("eth0.10", "bcm0.10"); });
    EXPECT_THAT(output("nft list map inet pmtud egress"),
                HasSubstr("\"eth0.20\" : goto to-bcm0.20"));
    for (const Bytes& sent : {packet(Ipv4{}), packet(Ipv6{})}) {
        send(sent);
        const Delivered delivered = client.next();
        EXPECT_EQ(+delivered.control.vid, 10);
        EXPECT_EQ(+delivered.control.egress, indexOf("eth0.20"));
    }
    EXPECT_EQ(handedOver("bcm0.20"), 2U);
}

TEST_F(AlternativeNameOnTheKernel, ThatIsThereAtTheStartIsServed) {
    giveName("eth0.10", "bcm0.10");
    giveName("eth0.20", "bcm0.20");
    Client client;
    send(packet(Ipv4{}));
    EXPECT_EQ(+client.next().control.egress, indexOf("eth0.20"));
}

// The kernel does not announce it then.
TEST_F(AlternativeNameOnTheKernel, GivenToAnInterfaceThatIsDownCountsOnceItIsUp) {
    giveName("eth0.10", "bcm0.10");
    run("ip link set eth0.20 down");
    Client client;
    giveName("eth0.20", "bcm0.20");
    change([] { run("ip link set eth0.20 up"); });
    EXPECT_THAT(ruleset(), HasSubstr("chain to-bcm0.20"));
    change([] {
        takeName("eth0.20", "bcm0.20");
        run("ip link set eth0.20 down");
    });
    EXPECT_THAT(ruleset(), Not(HasSubstr("bcm0.20")));
}

TEST_F(AlternativeNameOnTheKernel, ThatIsTakenAwayLeavesTheInterfaceToTheKernel) {
    giveName("eth0.10", "bcm0.10");
    giveName("eth0.20", "bcm0.20");
    Client client;
    Capture atA("a");
    change([] { takeName("eth0.20", "bcm0.20"); });
    EXPECT_THAT(ruleset(), Not(HasSubstr("bcm0.20")));
    send(packet(Ipv4{}));
    EXPECT_EQ(mtuOf4(atA.next(isTooBig4)), 1280U);
    sendFence();
    EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.30"));
}

TEST_F(AlternativeNameOnTheKernel, TakenAwayWhileAnAnswerIsDueLetsTheKernelAnswer) {
    giveName("eth0.10", "bcm0.10");
    giveName("eth0.20", "bcm0.20");
    ClientOptions gated;
    gated.gated = true;
    Client client(gated);
    Capture atA("a");
    ASSERT_NO_FATAL_FAILURE(sendTwoOfWhichOneWaits());
    takeName("eth0.20", "bcm0.20");
    client.openGate();
    EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.30"));
    EXPECT_EQ(mtuOf4(atA.next(isTooBig4)), size_t{kAnsweredMtu});
    EXPECT_EQ(mtuOf4(atA.next(isTooBig4)), 1280U);
    sendFence();
    EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.30"));
}

TEST_F(AlternativeNameOnTheKernel, SwappedWhileAnAnswerIsDueLetsTheKernelAnswer) {
    giveName("eth0.10", "bcm0.10");
    giveName("eth0.20", "bcm0.20");
    ClientOptions gated;
    gated.gated = true;
    Client client(gated);
    Capture atA("a");
    ASSERT_NO_FATAL_FAILURE(sendTwoOfWhichOneWaits());
    takeName("eth0.10", "bcm0.10");
    takeName("eth0.20", "bcm0.20");
    giveName("eth0.10", "bcm0.20");
    giveName("eth0.20", "bcm0.10");
    client.openGate();
    EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.30"));
    EXPECT_EQ(mtuOf4(atA.next(isTooBig4)), size_t{kAnsweredMtu});
    EXPECT_EQ(mtuOf4(atA.next(isTooBig4)), 1280U);
    sendFence();
    EXPECT_EQ(+client.next().control.egress, indexOf("bcm0.30"));
}

TEST_F(AlternativeNameOnTheKernel, OutlivesARename) {
    giveName("eth0.10", "bcm0.10");
    giveName("eth0.20", "bcm0.20");
    Client client;
    send(packet(Ipv4{}));
    client.next();
    rename("eth0.20", "wire20", "20");
    change([] { run("ip link set bcm0.30 mtu 1001"); });
    send(packet(Ipv4{}));
    EXPECT_EQ(+client.next().control.egress, indexOf("wire20"));
    EXPECT_EQ(handedOver("bcm0.20"), 2U);
}

TEST_F(AlternativeNameOnTheKernel, LeavesWithItsInterfaceForAnotherNamespace) {
    giveName("eth0.20", "bcm0.20");
    Client client;
    change([] { run("ip link set eth0.20 netns a"); });
    EXPECT_THAT(ruleset(), Not(HasSubstr("bcm0.20")));
    EXPECT_THAT(ruleset(), HasSubstr("chain to-bcm0.30"));
}

TEST_F(AlternativeNameOnTheKernel, MovesFromOneInterfaceToAnother) {
    giveName("eth0.20", "bcm0.20");
    Client client;
    change([] { takeName("eth0.20", "bcm0.20"); });
    change([] { giveName("eth0.10", "bcm0.20"); });
    EXPECT_THAT(output("nft list map inet pmtud egress"),
                HasSubstr("\"eth0.10\" : goto to-bcm0.20"));
}

TEST_F(AlternativeNameOnTheKernel, OfASecondVlanIsLoggedOnceAndTheLowerVlanCounts) {
    LogDaemon log;
    giveName("eth0.10", "bcm0.10");
    giveName("eth0.20", "bcm0.20");
    Client client;
    change([] { giveName("eth0.20", "bcm0.15"); });
    const std::string warning = log.next();
    EXPECT_EQ(
        lineOf(warning),
        "89 PMTUD-Linux: bcm0.15: the interface is also named bcm0.20; only the lower VLAN is "
        "served, so remove one of the names");
    EXPECT_EQ(priorityOf(warning), "<28>");
    send(packet(Ipv4{}));
    client.next();
    EXPECT_EQ(handedOver("bcm0.15"), 1U);
    EXPECT_THAT(ruleset(), Not(HasSubstr("bcm0.20")));

    change([] { run("ip link set eth0.20 mtu 1300"); });
    giveName("bcm0.30", "bcm0.31");
    EXPECT_EQ(
        lineOf(log.next()),
        "89 PMTUD-Linux: bcm0.30: the interface is also named bcm0.31; only the lower VLAN is "
        "served, so remove one of the names");
}

TEST_F(AlternativeNameOnTheKernel, OfASecondVlanIsLoggedAtTheStart) {
    LogDaemon log;
    giveName("bcm0.30", "bcm0.31");
    Client client;
    EXPECT_EQ(
        lineOf(log.next()),
        "89 PMTUD-Linux: bcm0.30: the interface is also named bcm0.31; only the lower VLAN is "
        "served, so remove one of the names");
}

// The kernel describes such an interface in one message, and lists it in one datagram with others.
TEST_F(AlternativeNameOnTheKernel, AmongHundredsOfTheLongestCounts) {
    giveName("eth0.10", "bcm0.10");
    giveName("eth0.20", "bcm0.20");
    std::ofstream batch("/run/names");
    for (int number = 100; number < 500; ++number)
        batch << "link property add dev eth0.20 altname " << number << std::string(124, 'x')
              << "\n";
    batch.close();
    run("ip -batch /run/names");
    Client client;
    EXPECT_THAT(ruleset(), HasSubstr("chain to-bcm0.10"));
    EXPECT_THAT(ruleset(), HasSubstr("chain to-bcm0.20"));
    change([] { run("ip link set eth0.20 mtu 1300"); });
    EXPECT_THAT(ruleset(), HasSubstr("meta length <= 1300"));
}

// The rules name interfaces by such numbers.
TEST_F(AlternativeNameOnTheKernel, LikeTheNumberOfAnotherInterfaceConfusesNoRule) {
    giveName("eth0.10", "bcm0.10");
    giveName("eth0.20", "bcm0.20");
    const std::string digits = std::to_string(indexOf("eth0.20"));
    giveName("bcm0.30", (std::string(16 - digits.size(), '0') + digits).c_str());
    Client client;
    ASSERT_EQ(client.attached(), 0);
    send(packet(Ipv4{}));
    EXPECT_EQ(+client.next().control.egress, indexOf("eth0.20"));
}

TEST_F(AlternativeNameOnTheKernel, IsKnownToTheConfigurationService) {
    giveName("eth0.20", "bcm0.20");
    inOwnProcess([] {
        ASSERT_EQ(cfg_init(), 0);
        EXPECT_EQ(cfg_vlan_l3_get_dest_vlan(indexOf("eth0.20")), 20);
        EXPECT_EQ(cfg_vlan_l3_get_dest_vlan(indexOf("eth0.10")), -1);
        EXPECT_EQ(cfg_vlan_l3_get_mtu(20), 1280U);
        EXPECT_EQ(cfg_vlan_l3_get_mtu_vlan(20), 20);
        giveName("bcm0.30", "bcm0.9");
        EXPECT_EQ(cfg_vlan_l3_get_dest_vlan(indexOf("bcm0.30")), 9);
        takeName("eth0.20", "bcm0.20");
        EXPECT_EQ(cfg_vlan_l3_get_dest_vlan(indexOf("eth0.20")), -1);
        EXPECT_EQ(cfg_vlan_l3_get_mtu(20), 0U);
    });
}

TEST_F(AlternativeNameOnTheKernel, BindsTheIcmpv6Socket) {
    giveName("eth0.10", "bcm0.10");
    int32_t fd = -1;
    ASSERT_EQ(arpd_icmp6_socket_create(&fd, "bcm0.10"), 0);
    const Descriptor socket(fd);
    std::array<char, IFNAMSIZ> bound{};
    socklen_t size = bound.size();
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, bound.data(), &size), 0);
    EXPECT_STREQ(bound.data(), "eth0.10");
}

TEST_F(AlternativeNameOnTheKernel, LeadsATransmittedFrameOutWithoutItsTag) {
    giveName("eth0.10", "bcm0.10");
    inOwnProcess([] {
        ASSERT_EQ(pktd_shm_queue_init("pmtud", 0, 1, pktd_tx_queue_pool, pktd_rx_queue_pool), 0);
        Bytes frame(64, 0);
        const Bytes header = {0x02, 0,    0,    0,    0x10, 0x02, 0x02, 0,    0,
                              0,    0x10, 0x01, 0x81, 0x00, 0x00, 0x0a, 0x08, 0x00};
        std::copy(header.begin(), header.end(), frame.begin());
        auto record = std::make_unique<st_pktd_shm_queue_entry_data_t>();
        ASSERT_EQ(pktd_queue_entry_data_vlan_based_init(record.get(), 0x0800, 10, frame.data(),
                                                        frame.size()),
                  0);
        void* const queue = pktd_tx_queue_pool + 8;
        uint32_t out = 0;
        EXPECT_EQ(shm_data_entry_post(queue, record.get(), frame.size(), &out), 0);
        EXPECT_EQ(out, 60U);
        record->ctrl.dst_port = indexOf("eth0.10") - 1;
        record->ctrl.dst_valid = 1;
        EXPECT_EQ(shm_data_entry_post(queue, record.get(), frame.size(), &out), 0);
        EXPECT_EQ(out, 60U);
        takeName("eth0.10", "bcm0.10");
        EXPECT_EQ(shm_data_entry_post(queue, record.get(), frame.size(), &out), 0);
        EXPECT_EQ(out, 64U);
        record->ctrl.dst_valid = 0;
        EXPECT_EQ(shm_data_entry_post(queue, record.get(), frame.size(), &out), -ENODEV);
    });
}
