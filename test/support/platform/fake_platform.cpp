// SPDX-License-Identifier: MIT
// The scripted platform: the seam's functions, for the unit tests and for the target's daemon.
#include "fake_platform.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "allocations.h"
#include "fake_calls.h"

using allocations::Paused;

namespace {

using fake::platform;
using fake::play;
using fake::Quoted;

const char* poolName(const void* pool) {
    if (pool == pktd_tx_queue_pool) return "pktd_tx_queue_pool";
    if (pool == pktd_tx_queue_pool + 8) return "pktd_tx_queue_pool + 8";
    if (pool == pktd_rx_queue_pool) return "pktd_rx_queue_pool";
    if (pool == pktd_rx_wl_pool) return "pktd_rx_wl_pool";
    return pool == nullptr ? "0" : "?";
}

/// The result of a call that succeeds with 0.
template <typename... Arguments>
int status(const char* call, const Arguments&... arguments) {
    return play(
        platform().calls, call, [] { return 0; }, {}, arguments...);
}

}  // namespace

extern "C" {

uint8_t pktd_tx_queue_pool[25980];
uint8_t pktd_rx_queue_pool[25980];
uint8_t pktd_rx_wl_pool[25980];

int cfg_init(void) { return status("cfg_init"); }
int cfg_add_pid(const char* process) { return status("cfg_add_pid", Quoted{process}); }
int updateTZ(void) { return status("updateTZ"); }
int cfg_clear_pid(void) { return status("cfg_clear_pid"); }

int cfg_vlan_l3_get_dest_vlan(int egress) {
    const auto answer = [egress] { return platform().destVlan(egress); };
    return play(platform().calls, "cfg_vlan_l3_get_dest_vlan", answer, {}, egress);
}

uint32_t cfg_vlan_l3_get_mtu(int vlan) {
    const auto answer = [vlan] { return platform().vlanMtu(vlan); };
    return play(platform().calls, "cfg_vlan_l3_get_mtu", answer, {}, vlan);
}

int cfg_vlan_l3_get_mtu_vlan(int vlan) { return status("cfg_vlan_l3_get_mtu_vlan", vlan); }

int pktd_shm_queue_init(const char* client, int first, int second, void* tx_pool, void* rx_pool) {
    return status("pktd_shm_queue_init", Quoted{client}, first, second, poolName(tx_pool),
                  poolName(rx_pool));
}

int pktd_shm_rx_thread_init(const char* client, void* rx_pool, void* rx_wl_pool, int first,
                            int second, pktd_rx_cb_t callback, void* user) {
    platform().callback = callback;
    return status("pktd_shm_rx_thread_init", Quoted{client}, poolName(rx_pool),
                  poolName(rx_wl_pool), first, second, callback == nullptr ? "0" : "callback",
                  poolName(user));
}

/// Every byte is 0xEE, so that one written later shows.
int pktd_queue_entry_data_vlan_based_init(st_pktd_shm_queue_entry_data_t* entry, int proto, int vid,
                                          const uint8_t* frame, size_t len) {
    memset(entry, 0xEE, sizeof *entry);
    platform().frameToPost = frame;
    return status("pktd_queue_entry_data_vlan_based_init", proto, vid,
                  frame == nullptr ? "0" : "frame", len);
}

int shm_data_entry_post(void* queue, st_pktd_shm_queue_entry_data_t* entry, size_t len,
                        uint32_t* out) {
    const Paused paused;
    const auto* const bytes = reinterpret_cast<const uint8_t*>(entry);
    platform().posted.emplace_back(bytes, bytes + sizeof *entry);
    *out = 0xFFFFFFFF;
    return status("shm_data_entry_post", poolName(queue), len);
}

int arpd_icmp6_socket_create(int32_t* fd, const char* ifname) {
    const Paused paused;
    platform().interface = ifname;
    const auto answer = [fd] { return platform().icmp6SocketCreate(fd); };
    const int created =
        play(platform().calls, "arpd_icmp6_socket_create", answer, {}, Quoted{ifname});
    if (created == 0) fake::openSockets.insert(*fd);
    return created;
}

int arpd_ipv6_pkt_send(int32_t fd, const struct sockaddr_in6* to, const struct iovec* iov,
                       int iovcnt, uint32_t ifindex) {
    const Paused paused;
    fake::Icmp6Message message{fd, *to, iovcnt, {}, ifindex, iov->iov_base};
    for (int i = 0; i < iovcnt; ++i) {
        const auto* const bytes = static_cast<const uint8_t*>(iov[i].iov_base);
        message.bytes.insert(message.bytes.end(), bytes, bytes + iov[i].iov_len);
    }
    platform().icmp6Messages.push_back(message);
    const std::string detail = " to " + fake::hex(&to->sin6_addr, 16) + ": " +
                               fake::hex(message.bytes.data(), message.bytes.size());
    const auto answer = [] { return platform().icmp6Send(); };
    return play(platform().calls, "arpd_ipv6_pkt_send", answer, detail, fd, ifindex);
}

int debug_process(uint32_t channel, const char* format, ...) {
    const Paused paused;
    char text[16384];
    va_list arguments;
    va_start(arguments, format);
    // Clang 14 does not see through va_start. NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    platform().debugLines.push_back({channel, format, text});
    const bool isUsual = strcmp(format, "%s") == 0;
    const auto failure =
        fake::made("debug_process", std::to_string(channel) + (isUsual ? "" : format) + text);
    return failure ? static_cast<int>(failure->result) : 0;
}

}  // extern "C"
