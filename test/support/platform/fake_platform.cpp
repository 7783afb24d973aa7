// SPDX-License-Identifier: MIT
// The scripted platform: the seam's functions, for the unit tests and for the daemon as a process.
#include "fake_platform.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "allocations.h"
#include "fake_calls.h"

using allocations::Paused;

namespace fake {

namespace {
Platform current;
}

Platform& platform() { return current; }

void resetPlatform() { current = Platform(); }

std::vector<std::string> Platform::debugTexts() const {
    std::vector<std::string> texts;
    for (const DebugLine& line : debugLines) texts.push_back(line.text);
    return texts;
}

namespace {

std::string poolName(const void* pool) {
    if (pool == pktd_tx_queue_pool) return "pktd_tx_queue_pool";
    if (pool == pktd_tx_queue_pool + 8) return "pktd_tx_queue_pool + 8";
    if (pool == pktd_rx_queue_pool) return "pktd_rx_queue_pool";
    if (pool == pktd_rx_wl_pool) return "pktd_rx_wl_pool";
    if (pool == nullptr) return "0";
    return "?";
}

int zero() { return 0; }

/// The result of a call that failed on request, or else the test's answer.
template <typename Answer>
auto result(const char* call, const std::string& text, const std::string& detail, Answer answer) {
    platform().calls.push_back(text);
    const auto failure = made(call, text + detail);
    return failure ? static_cast<decltype(answer())>(failure->result) : answer();
}

template <typename... Arguments>
int status(const char* call, const Arguments&... arguments) {
    return result(call, callText(call, arguments...), "", zero);
}

}  // namespace
}  // namespace fake

using fake::callText;
using fake::platform;
using fake::poolName;
using fake::quoted;

extern "C" {

uint8_t pktd_tx_queue_pool[25980];
uint8_t pktd_rx_queue_pool[25980];
uint8_t pktd_rx_wl_pool[25980];

int cfg_init(void) {
    const Paused paused;
    return fake::status("cfg_init");
}

int cfg_add_pid(const char* process) {
    const Paused paused;
    return fake::status("cfg_add_pid", quoted(process));
}

int updateTZ(void) {
    const Paused paused;
    return fake::status("updateTZ");
}

int cfg_clear_pid(void) {
    const Paused paused;
    return fake::status("cfg_clear_pid");
}

int cfg_vlan_l3_get_dest_vlan(int egress) {
    const Paused paused;
    const char* const call = "cfg_vlan_l3_get_dest_vlan";
    return fake::result(call, callText(call, egress), "",
                        [egress] { return platform().destVlan(egress); });
}

uint32_t cfg_vlan_l3_get_mtu(int vlan) {
    const Paused paused;
    const char* const call = "cfg_vlan_l3_get_mtu";
    return fake::result(call, callText(call, vlan), "",
                        [vlan] { return platform().vlanMtu(vlan); });
}

int cfg_vlan_l3_get_mtu_vlan(int vlan) {
    const Paused paused;
    const char* const call = "cfg_vlan_l3_get_mtu_vlan";
    return fake::result(call, callText(call, vlan), "",
                        [vlan] { return platform().mtuVlan(vlan); });
}

int pktd_shm_queue_init(const char* client, int first, int second, void* tx_pool, void* rx_pool) {
    const Paused paused;
    return fake::status("pktd_shm_queue_init", quoted(client), first, second, poolName(tx_pool),
                        poolName(rx_pool));
}

int pktd_shm_rx_thread_init(const char* client, void* rx_pool, void* rx_wl_pool, int first,
                            int second, pktd_rx_cb_t callback, void* user) {
    const Paused paused;
    const char* const call = "pktd_shm_rx_thread_init";
    platform().callback = callback;
    return fake::result(
        call,
        callText(call, quoted(client), poolName(rx_pool), poolName(rx_wl_pool), first, second,
                 callback == nullptr ? "0" : "callback", poolName(user)),
        "", platform().rxThreadInit);
}

/// Every byte is 0xEE, so that one written later shows.
int pktd_queue_entry_data_vlan_based_init(st_pktd_shm_queue_entry_data_t* entry, int proto, int vid,
                                          const uint8_t* frame, size_t len) {
    const Paused paused;
    memset(entry, 0xEE, sizeof *entry);
    platform().frameToPost = frame;
    return fake::status("pktd_queue_entry_data_vlan_based_init", proto, vid,
                        frame == nullptr ? "0" : "frame", len);
}

int shm_data_entry_post(void* queue, st_pktd_shm_queue_entry_data_t* entry, size_t len,
                        uint32_t* out) {
    const Paused paused;
    const auto* const bytes = reinterpret_cast<const uint8_t*>(entry);
    platform().posted.push_back({queue, {bytes, bytes + sizeof *entry}, len});
    *out = 0xFFFFFFFF;
    return fake::status("shm_data_entry_post", poolName(queue), len);
}

int arpd_icmp6_socket_create(int32_t* fd, const char* ifname) {
    const Paused paused;
    const char* const call = "arpd_icmp6_socket_create";
    platform().interface = ifname;
    const int created = fake::result(call, callText(call, quoted(ifname)), "",
                                     [fd] { return platform().icmp6SocketCreate(fd); });
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
    const char* const call = "arpd_ipv6_pkt_send";
    return fake::result(call, callText(call, fd, ifindex),
                        " to " + fake::hex(&to->sin6_addr, 16) + ": " +
                            fake::hex(message.bytes.data(), message.bytes.size()),
                        platform().icmp6Send);
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
