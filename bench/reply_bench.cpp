// What one reply costs, from the receive callback to its return, beside the bare system calls.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "PMTUDApp.h"
#include "SHM_Wrapper.h"
#include "VlanConfig.h"
#include "arpd.h"
#include "frames.h"

namespace {

/// The daemon's objects, as its main makes them.
class Daemon {
 public:
    Daemon() : m_app(&m_config, getShmWrapperApp()) { m_record.ctrl.egress = 7; }

    int receive(bench::Frame& frame) {
        return SHM_Wrapper_App::pkt_rx_cb(&m_record, frame.data(), static_cast<int>(frame.size()));
    }

 private:
    st_pktd_shm_queue_entry_data_t m_record{};
    VlanConfig m_config;
    PMTUDApp m_app;
};

void replyV4(benchmark::State& state) {
    Daemon daemon;
    bench::Frame frame = bench::kIpv4Frame;
    for (auto _ : state) benchmark::DoNotOptimize(daemon.receive(frame));
}
BENCHMARK(replyV4);

/// Counts as failed where a call fails: a figure of failing calls would say nothing.
void bareCallsV4(benchmark::State& state) {
    std::array<uint8_t, 68> message{3, 4, 0, 0, 0, 0, 0x05, 0x78};
    std::copy_n(bench::kIpv4Frame.begin() + 18, 60, message.begin() + 8);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    inet_pton(AF_INET, "10.0.10.2", &to.sin_addr);
    const uint8_t ttl = 64;
    for (auto _ : state) {
        const int fd = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
        setsockopt(fd, IPPROTO_IP, IP_TTL, &ttl, sizeof ttl);
        const ssize_t sent = sendto(fd, message.data(), message.size(), 0,
                                    reinterpret_cast<const sockaddr*>(&to), sizeof to);
        if (sent < 0) state.SkipWithError("sendto failed");
        close(fd);
    }
}
BENCHMARK(bareCallsV4);

void replyV6(benchmark::State& state) {
    Daemon daemon;
    bench::Frame frame = bench::kIpv6Frame;
    for (auto _ : state) benchmark::DoNotOptimize(daemon.receive(frame));
}
BENCHMARK(replyV6);

void bareCallsV6(benchmark::State& state) {
    std::array<uint8_t, 1400> message{2, 0, 0, 0, 0, 0, 0x05, 0x78};
    std::copy_n(bench::kIpv6Frame.begin() + 18, 1392, message.begin() + 8);
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    inet_pton(AF_INET6, "fd00:10::2", &to.sin6_addr);
    const iovec piece{message.data(), message.size()};
    for (auto _ : state) {
        const unsigned ifindex = if_nametoindex("bcm0.10");
        int32_t fd = -1;
        arpd_icmp6_socket_create(&fd, "bcm0.10");
        if (arpd_ipv6_pkt_send(fd, &to, &piece, 1, ifindex) < 0) state.SkipWithError("send failed");
        close(fd);
    }
}
BENCHMARK(bareCallsV6);

}  // namespace
