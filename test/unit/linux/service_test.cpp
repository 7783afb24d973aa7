// SPDX-License-Identifier: MIT
// What the service manager is sent.
#include "service.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

#include "calls.h"
#include "log_daemon.h"
#include "world.h"

using namespace std::chrono_literals;
using pmtud_linux::Service;
using pmtud_linux::Vlans;

namespace {

constexpr Service::Clock::time_point kStart{1000s};

const char* const kNothing = "STATUS=no interface is named bcm0.N with an MTU from 576 to 16383";

// Listens where sd_notify(3) sends to.
struct Manager : DatagramSocket {
    Manager() : DatagramSocket("/run/notify") { setenv("NOTIFY_SOCKET", "/run/notify", 1); }
};

void watchdog(const std::string& microseconds, pid_t process = getpid()) {
    setenv("WATCHDOG_USEC", microseconds.c_str(), 1);
    setenv("WATCHDOG_PID", std::to_string(process).c_str(), 1);
}

Vlans vlans(const std::vector<uint32_t>& mtus) {
    Vlans all;
    for (const uint32_t mtu : mtus) {
        const auto number = static_cast<uint32_t>(10 + all.size());
        all[static_cast<int>(number)] = {number, mtu, false};
    }
    return all;
}

}  // namespace

TEST(Service, IsReadyOnceAndReportsEachChangeOfWhatItServes) {
    inOwnProcess([] {
        Manager manager;
        Service service;
        EXPECT_FALSE(manager.poll());
        service.ready(vlans({575, 576, 16383, 16384}));
        EXPECT_EQ(manager.next(), "STATUS=serving 2 VLANs");
        EXPECT_EQ(manager.next(), "READY=1");
        service.serves(vlans({1400, 1400}));
        EXPECT_FALSE(manager.poll());
        service.serves(vlans({1400, 1400, 1400}));
        EXPECT_EQ(manager.next(), "STATUS=serving 3 VLANs");
        service.serves(vlans({}));
        EXPECT_EQ(manager.next(), kNothing);
        service.serves(vlans({1280}));
        EXPECT_EQ(manager.next(), "STATUS=serving 1 VLAN");
        EXPECT_FALSE(manager.poll());
    });
}

TEST(Service, ThatServesNothingIsReadyAndWarnsEachTimeThatHappens) {
    inOwnProcess([] {
        LogDaemon log;
        Manager manager;
        Service service;
        service.ready(vlans({575}));
        EXPECT_EQ(manager.next(), kNothing);
        EXPECT_EQ(manager.next(), "READY=1");
        const std::string datagram = log.next();
        EXPECT_EQ(lineOf(datagram),
                  "89 PMTUD-Linux: nothing to serve: no interface is named bcm0.N with an MTU from "
                  "576 to 16383");
        EXPECT_EQ(priorityOf(datagram), "<28>");
        service.serves(vlans({575, 575}));
        service.serves(vlans({1500}));
        EXPECT_FALSE(log.poll());
        service.serves(vlans({}));
        EXPECT_EQ(lineOf(log.next()), lineOf(datagram));
    });
}

TEST(Service, SendsThreeKeepAlivesPerWatchdogInterval) {
    inOwnProcess([] {
        Manager manager;
        watchdog("10000000");
        Service service;
        service.ready(vlans({1500}));
        manager.next();
        EXPECT_EQ(manager.next(), "READY=1");
        for (const auto since : {0ms, 3333ms, 6666ms}) {
            if (since != 0ms) service.keepAlive(kStart + since - 1ms);
            EXPECT_FALSE(manager.poll());
            service.keepAlive(kStart + since);
            EXPECT_EQ(manager.next(), "WATCHDOG=1");
        }
    });
}

// A millisecond is the least that poll(2) waits for; 0 would not wait at all.
TEST(Service, SendsKeepAlivesFromOncePerMillisecondToOncePerMinute) {
    const std::pair<const char*, int> intervals[] = {
        {"10000000", 3333}, {"86400000000", 60000}, {"2000", 1}, {"3000", 1}, {"6000", 2}};
    for (const auto& [watched, interval] : intervals)
        inOwnProcess([watched = watched, interval = interval] {
            watchdog(watched);
            Service service;
            service.ready(vlans({1500}));
            EXPECT_EQ(service.interval(), interval);
        });
}

TEST(Service, SendsNoKeepAlivesWithoutItsOwnWatchdog) {
    for (const bool isAnothers : {false, true})
        inOwnProcess([isAnothers] {
            Manager manager;
            unsetenv("WATCHDOG_USEC");
            if (isAnothers) watchdog("10000000", getppid());
            Service service;
            service.ready(vlans({1500}));
            EXPECT_EQ(service.interval(), -1);
            manager.next();
            EXPECT_EQ(manager.next(), "READY=1");
            service.keepAlive(kStart);
            service.keepAlive(kStart + 1h);
            EXPECT_FALSE(manager.poll());
        });
}

class ServiceOfTheReceiveThread : public World {
 protected:
    static void serve() {
        ASSERT_EQ(attach(), 0);
        ASSERT_EQ(startThread(), 0);
    }
};

TEST_F(ServiceOfTheReceiveThread, IsReadyAndFollowsTheInterfaces) {
    inOwnProcess([] {
        Manager manager;
        serve();
        EXPECT_EQ(manager.next(), "STATUS=serving 3 VLANs");
        EXPECT_EQ(manager.next(), "READY=1");
        run("ip link del bcm0.30");
        EXPECT_EQ(manager.next(), "STATUS=serving 2 VLANs");
        run("ip link set bcm0.20 mtu 500");
        EXPECT_EQ(manager.next(), "STATUS=serving 1 VLAN");
        run("ip link set bcm0.10 down");
        run("ip link set bcm0.10 name uplink");
        EXPECT_EQ(manager.next(), kNothing);
        run("ip link set uplink name bcm0.4094");
        EXPECT_EQ(manager.next(), "STATUS=serving 1 VLAN");
        EXPECT_FALSE(manager.poll());
    });
}

TEST_F(ServiceOfTheReceiveThread, SendsKeepAlivesWhileIdle) {
    inOwnProcess([] {
        Manager manager;
        watchdog("600000");
        serve();
        manager.next();
        EXPECT_EQ(manager.next(), "READY=1");
        EXPECT_EQ(manager.next(), "WATCHDOG=1");
        const auto first = std::chrono::steady_clock::now();
        for (int i = 0; i < 3; ++i) EXPECT_EQ(manager.next(), "WATCHDOG=1");
        // Two intervals at least: the first keep-alive may have been read late.
        EXPECT_GE(std::chrono::steady_clock::now() - first, 400ms);
    });
}

TEST_F(ServiceOfTheReceiveThread, WakesOnlyForTheWatchdog) {
    for (const auto& [watched, expected] :
         {std::pair("9000000", 3000), std::pair(static_cast<const char*>(nullptr), -1)})
        inOwnProcess([watched = watched, expected = expected] {
            unsetenv("WATCHDOG_USEC");
            if (watched != nullptr) watchdog(watched);
            static std::atomic<int> timeout{-2};
            calls.poll = [](pollfd* descriptors, nfds_t count, int wanted) {
                int none = -2;
                if (count == 2 && timeout.compare_exchange_strong(none, wanted))
                    timeout.notify_all();
                return real.poll(descriptors, count, wanted);
            };
            serve();
            timeout.wait(-2);
            EXPECT_EQ(timeout, expected);
        });
}
