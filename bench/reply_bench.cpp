// SPDX-License-Identifier: MIT
// Measures what one reply costs, from calling the receive callback to its return, compared with the
// bare system calls.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "EthVlanHeader.h"
#include "PMTUDApp.h"
#include "SHM_Wrapper.h"
#include "VlanConfig.h"
#include "arpd.h"
#include "debug_process.h"
#include "frames.h"
#include "reply.h"

namespace {

/// The daemon's objects, as its main creates them.
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

/// A line of the debug process, as a C program would write it.
__attribute__((format(printf, 1, 2))) void line(const char* format, ...) {
    std::array<char, 256> text;
    const int name = snprintf(text.data(), text.size(), " %s: ", "PMTUD-Prot");
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(&text[static_cast<size_t>(name)], text.size() - static_cast<size_t>(name), format,
              arguments);
    va_end(arguments);
    debug_process(89, "%s", text.data());
}

/// The lines that every reply writes before its message.
void writeLines(const bench::Frame& frame, const char* family, const char* from, const char* to) {
    const EthVlanHeader eth(frame.data());
    const uint8_t* const src = eth.source()->ether_addr_octet;
    const uint8_t* const dst = eth.dest()->ether_addr_octet;
    line("Received frame of size: %zu", frame.size());
    line(
        "Frame Src MAC: %02x:%02x:%02x:%02x:%02x:%02x, Dest MAC: %02x:%02x:%02x:%02x:%02x:%02x, "
        "Rx VLAN: %u, Tx egress: %d",
        src[0], src[1], src[2], src[3], src[4], src[5], dst[0], dst[1], dst[2], dst[3], dst[4],
        dst[5], unsigned{eth.vlan_id()}, 7);
    line("Received %s packet len %zu:", family, frame.size());
    line("   From: %s", from);
    line("   To: %s", to);
    line("   Dest VLAN ID: %d", 20);
    line("   Dest VLAN MTU: %u", 1400U);
}

using Lines = bool;
constexpr Lines kWithLines = true;

/// The benchmark fails if a call fails: figures for failing calls would be meaningless.
void callsV4(benchmark::State& state, Lines lines) {
    std::array<uint8_t, 68> message{3, 4, 0, 0, 0, 0, 0x05, 0x78};
    std::copy_n(bench::kIpv4Frame.begin() + 18, 60, message.begin() + 8);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    inet_pton(AF_INET, "10.0.10.2", &to.sin_addr);
    const uint8_t ttl = 64;
    std::array<char, INET_ADDRSTRLEN> source;
    std::array<char, INET_ADDRSTRLEN> destination;
    for (auto _ : state) {
        if (lines) {
            inet_ntop(AF_INET, &bench::kIpv4Frame[30], source.data(), source.size());
            inet_ntop(AF_INET, &bench::kIpv4Frame[34], destination.data(), destination.size());
            writeLines(bench::kIpv4Frame, "IPv4", source.data(), destination.data());
        }
        const int fd = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
        setsockopt(fd, IPPROTO_IP, IP_TTL, &ttl, sizeof ttl);
        if (lines) line("Creating ICMP Dest. Unreach. Need Frag. message. MTU size: %u", 1400U);
        const ssize_t sent = sendto(fd, message.data(), message.size(), 0,
                                    reinterpret_cast<const sockaddr*>(&to), sizeof to);
        if (sent < 0) state.SkipWithError("sendto failed");
        if (lines) line("ICMP message sent to source %s", source.data());
        close(fd);
    }
}
void bareCallsV4(benchmark::State& state) { callsV4(state, !kWithLines); }
void textCallsV4(benchmark::State& state) { callsV4(state, kWithLines); }
BENCHMARK(bareCallsV4);
BENCHMARK(textCallsV4);

void replyV6(benchmark::State& state) {
    Daemon daemon;
    bench::Frame frame = bench::kIpv6Frame;
    for (auto _ : state) benchmark::DoNotOptimize(daemon.receive(frame));
}
BENCHMARK(replyV6);

void callsV6(benchmark::State& state, Lines lines) {
    std::array<uint8_t, 1400> message{2, 0, 0, 0, 0, 0, 0x05, 0x78};
    std::copy_n(bench::kIpv6Frame.begin() + 18, 1392, message.begin() + 8);
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    inet_pton(AF_INET6, "fd00:10::2", &to.sin6_addr);
    const iovec piece{message.data(), message.size()};
    std::array<char, INET6_ADDRSTRLEN> source;
    std::array<char, INET6_ADDRSTRLEN> destination;
    for (auto _ : state) {
        if (lines) {
            inet_ntop(AF_INET6, &bench::kIpv6Frame[26], source.data(), source.size());
            inet_ntop(AF_INET6, &bench::kIpv6Frame[42], destination.data(), destination.size());
            writeLines(bench::kIpv6Frame, "IPv6", source.data(), destination.data());
        }
        const unsigned ifindex = if_nametoindex("bcm0.10");
        if (lines) line("Creating ICMPv6 Packet Too Big message. MTU size: %u", 1400U);
        int32_t fd = -1;
        arpd_icmp6_socket_create(&fd, "bcm0.10");
        if (arpd_ipv6_pkt_send(fd, &to, &piece, 1, ifindex) < 0) state.SkipWithError("send failed");
        if (lines) line("ICMPv6 message sent to source %s", source.data());
        close(fd);
    }
}
void bareCallsV6(benchmark::State& state) { callsV6(state, !kWithLines); }
void textCallsV6(benchmark::State& state) { callsV6(state, kWithLines); }
BENCHMARK(bareCallsV6);
BENCHMARK(textCallsV6);

}  // namespace

namespace bench {

void reply(int family, int count) {
    static Daemon daemon;
    Frame frame = family == 4 ? kIpv4Frame : kIpv6Frame;
    for (int i = 0; i < count; ++i) daemon.receive(frame);
}

}  // namespace bench
