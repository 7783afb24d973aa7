// SPDX-License-Identifier: MIT
// What the service manager is sent.
#include "service.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "calls.h"
#include "descriptor.h"
#include "log_daemon.h"
#include "pktd.h"
#include "world.h"

using namespace std::chrono_literals;
using pmtud_linux::Service;
using pmtud_linux::Vlan;
using pmtud_linux::Vlans;

namespace {

/// The service manager's socket, as sd_notify(3) finds it.
class Manager {
 public:
    Manager() : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const char* const path = "/run/notify";
        unlink(path);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path);
        if (bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("no notify socket");
        setenv("NOTIFY_SOCKET", path, 1);
    }

    std::string next() {
        awaitReadable(m_socket.get(), "a message to the service manager");
        return *poll();
    }

    std::optional<std::string> poll() {
        std::string text(4096, '\0');
        const ssize_t length = recv(m_socket.get(), text.data(), text.size(), MSG_DONTWAIT);
        if (length < 0) return std::nullopt;
        text.resize(static_cast<size_t>(length));
        return text;
    }

 private:
    pmtud_linux::Descriptor m_socket;
};

void watchdog(const std::string& microseconds, pid_t process) {
    setenv("WATCHDOG_USEC", microseconds.c_str(), 1);
    setenv("WATCHDOG_PID", std::to_string(process).c_str(), 1);
}

Vlans vlans(const std::vector<uint32_t>& mtus) {
    Vlans all;
    int number = 10;
    for (const uint32_t mtu : mtus) {
        all[number] = Vlan{static_cast<uint32_t>(number), mtu, false};
        ++number;
    }
    return all;
}

constexpr Service::Clock::time_point kStart{1000s};

const char* const kNothing = "STATUS=no interface is named bcm0.N with an MTU from 576 to 16383";

}  // namespace

TEST(Service, IsReadyWithItsStatus) {
    inOwnProcess([] {
        Manager manager;
        Service service;
        EXPECT_FALSE(manager.poll());
        service.ready(vlans({1500, 1280}));
        EXPECT_EQ(manager.next(), "STATUS=serving 2 VLANs");
        EXPECT_EQ(manager.next(), "READY=1");
        EXPECT_FALSE(manager.poll());
    });
}

TEST(Service, ReportsEachChangeOfWhatItServesOnce) {
    inOwnProcess([] {
        Manager manager;
        Service service;
        service.ready(vlans({1500}));
        EXPECT_EQ(manager.next(), "STATUS=serving 1 VLAN");
        EXPECT_EQ(manager.next(), "READY=1");
        service.serves(vlans({1400}));
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

TEST(Service, CountsOnlyVlansWithAnMtuThatIsServed) {
    inOwnProcess([] {
        Manager manager;
        Service service;
        service.ready(vlans({575, 576, 16383, 16384}));
        EXPECT_EQ(manager.next(), "STATUS=serving 2 VLANs");
    });
}

TEST(Service, ThatServesNothingIsReadyAndSaysSoInTheLog) {
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
        EXPECT_FALSE(log.poll());
        service.serves(vlans({1500}));
        EXPECT_FALSE(log.poll());
        service.serves(vlans({}));
        EXPECT_EQ(lineOf(log.next()),
                  "89 PMTUD-Linux: nothing to serve: no interface is named bcm0.N with an MTU from "
                  "576 to 16383");
    });
}

TEST(Service, GivesThreeSignsOfLifePerIntervalOfTheWatchdog) {
    inOwnProcess([] {
        Manager manager;
        watchdog("10000000", getpid());
        Service service;
        service.ready(vlans({1500}));
        EXPECT_EQ(service.interval(), 3333);
        manager.next();
        EXPECT_EQ(manager.next(), "READY=1");
        service.keepAlive(kStart);
        EXPECT_EQ(manager.next(), "WATCHDOG=1");
        service.keepAlive(kStart + 3332ms);
        EXPECT_FALSE(manager.poll());
        service.keepAlive(kStart + 3333ms);
        EXPECT_EQ(manager.next(), "WATCHDOG=1");
        service.keepAlive(kStart + 6665ms);
        EXPECT_FALSE(manager.poll());
        service.keepAlive(kStart + 6666ms);
        EXPECT_EQ(manager.next(), "WATCHDOG=1");
    });
}

TEST(Service, GivesASignOfLifePerMinuteAtLeast) {
    inOwnProcess([] {
        watchdog("86400000000", getpid());
        Service service;
        service.ready(vlans({1500}));
        EXPECT_EQ(service.interval(), 60000);
    });
}

// A millisecond is the least that poll(2) waits for; 0 would not wait at all.
TEST(Service, WaitsBetweenSignsOfLifeHoweverShortTheInterval) {
    inOwnProcess([] {
        watchdog("2000", getpid());
        Service service;
        service.ready(vlans({1500}));
        EXPECT_EQ(service.interval(), 1);
    });
}

TEST(Service, GivesNoSignOfLifeWithoutAWatchdog) {
    inOwnProcess([] {
        Manager manager;
        unsetenv("WATCHDOG_USEC");
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

TEST(Service, GivesNoSignOfLifeToAnotherProcessesWatchdog) {
    inOwnProcess([] {
        watchdog("10000000", getppid());
        Service service;
        service.ready(vlans({1500}));
        EXPECT_EQ(service.interval(), -1);
    });
}

namespace {

int callback(const st_pktd_shm_queue_entry_data_t*, uint8_t*, int) { return PKTD_VERDICT_DISCARD; }

void serve() {
    ASSERT_EQ(pktd_shm_queue_init("pmtud", 0, 1, pktd_tx_queue_pool, pktd_rx_queue_pool), 0);
    ASSERT_EQ(pktd_shm_rx_thread_init("pmtud", pktd_rx_queue_pool, pktd_rx_wl_pool, 32, 32,
                                      callback, nullptr),
              0);
}

// How long the receive thread's first wait may last.
int firstTimeout() {
    static std::atomic<int> timeout{-2};
    calls.poll = [](pollfd* descriptors, nfds_t count, int wanted) {
        if (count == 2) {
            int none = -2;
            if (timeout.compare_exchange_strong(none, wanted)) timeout.notify_all();
        }
        return real::poll(descriptors, count, wanted);
    };
    serve();
    timeout.wait(-2);
    return timeout;
}

}  // namespace

class ServiceOfTheReceiveThread : public World {};

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

TEST_F(ServiceOfTheReceiveThread, GivesSignsOfLifeWhileNothingHappens) {
    inOwnProcess([] {
        Manager manager;
        watchdog("600000", getpid());
        serve();
        manager.next();
        EXPECT_EQ(manager.next(), "READY=1");
        EXPECT_EQ(manager.next(), "WATCHDOG=1");
        const auto first = std::chrono::steady_clock::now();
        for (int i = 0; i < 3; ++i) EXPECT_EQ(manager.next(), "WATCHDOG=1");
        // Two intervals at least: the first sign may have been read late.
        EXPECT_GE(std::chrono::steady_clock::now() - first, 400ms);
    });
}

TEST_F(ServiceOfTheReceiveThread, WakesForTheWatchdog) {
    inOwnProcess([] {
        watchdog("9000000", getpid());
        EXPECT_EQ(firstTimeout(), 3000);
    });
}

TEST_F(ServiceOfTheReceiveThread, IsNotWokenWithoutAWatchdog) {
    inOwnProcess([] {
        unsetenv("WATCHDOG_USEC");
        EXPECT_EQ(firstTimeout(), -1);
    });
}
