// SPDX-License-Identifier: MIT
// The scripted fake of the switch platform: the seam's functions.
#include "fake_platform.h"

#include <cstdarg>
#include <cstdio>
#include <sstream>

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
    if (pool == pktd_rx_queue_pool) return "pktd_rx_queue_pool";
    if (pool == pktd_rx_wl_pool) return "pktd_rx_wl_pool";
    if (pool == nullptr) return "0";
    return "?";
}

template <typename... Arguments>
void record(const char* function, const Arguments&... arguments) {
    std::ostringstream os;
    os << function << "(";
    [[maybe_unused]] const char* separator = "";
    ((os << separator << arguments, separator = ", "), ...);
    os << ")";
    platform().calls.push_back(os.str());
}

std::string quoted(const char* text) { return '"' + std::string(text) + '"'; }

}  // namespace
}  // namespace fake

extern "C" {

uint8_t pktd_tx_queue_pool[25980];
uint8_t pktd_rx_queue_pool[25980];
uint8_t pktd_rx_wl_pool[25980];

int cfg_init(void) {
    fake::record("cfg_init");
    return fake::platform().cfgInit();
}

int cfg_add_pid(const char* process) {
    fake::record("cfg_add_pid", fake::quoted(process));
    return fake::platform().cfgAddPid();
}

int updateTZ(void) {
    fake::record("updateTZ");
    return fake::platform().updateTimeZone();
}

int cfg_clear_pid(void) {
    fake::record("cfg_clear_pid");
    return fake::platform().cfgClearPid();
}

int cfg_vlan_l3_get_dest_vlan(int egress) {
    fake::record("cfg_vlan_l3_get_dest_vlan", egress);
    return fake::platform().destVlan(egress);
}

uint32_t cfg_vlan_l3_get_mtu(int vlan) {
    fake::record("cfg_vlan_l3_get_mtu", vlan);
    return fake::platform().vlanMtu(vlan);
}

int cfg_vlan_l3_get_mtu_vlan(int vlan) {
    fake::record("cfg_vlan_l3_get_mtu_vlan", vlan);
    return fake::platform().mtuVlan(vlan);
}

int pktd_shm_queue_init(const char* client, int first, int second, void* tx_pool, void* rx_pool) {
    fake::record("pktd_shm_queue_init", fake::quoted(client), first, second,
                 fake::poolName(tx_pool), fake::poolName(rx_pool));
    return fake::platform().queueInit();
}

int pktd_shm_rx_thread_init(const char* client, void* rx_pool, void* rx_wl_pool, int first,
                            int second, pktd_rx_cb_t callback, void* user) {
    fake::record("pktd_shm_rx_thread_init", fake::quoted(client), fake::poolName(rx_pool),
                 fake::poolName(rx_wl_pool), first, second, "callback", fake::poolName(user));
    fake::platform().callback = callback;
    return fake::platform().rxThreadInit();
}

int pktd_queue_entry_data_vlan_based_init(st_pktd_shm_queue_entry_data_t* entry, int proto, int vid,
                                          const uint8_t* frame, size_t len) {
    fake::record("pktd_queue_entry_data_vlan_based_init", proto, vid,
                 frame == nullptr ? "0" : "frame", len);
    return fake::platform().recordInit(entry);
}

int shm_data_entry_post(void* queue, st_pktd_shm_queue_entry_data_t* entry, size_t len,
                        uint32_t* out) {
    const bool isTxQueue = queue == pktd_tx_queue_pool + 8;
    fake::record("shm_data_entry_post", isTxQueue ? "pktd_tx_queue_pool + 8" : "?", len);
    const auto* const bytes = reinterpret_cast<const uint8_t*>(entry);
    fake::platform().posted.push_back({queue, {bytes, bytes + sizeof *entry}, len});
    *out = 0xFFFFFFFF;
    return fake::platform().post();
}

int arpd_icmp6_socket_create(int32_t* fd, const char* ifname) {
    fake::record("arpd_icmp6_socket_create", fake::quoted(ifname));
    return fake::platform().icmp6SocketCreate(fd);
}

int arpd_ipv6_pkt_send(int32_t fd, const struct sockaddr_in6* to, const struct iovec* iov,
                       int iovcnt, uint32_t ifindex) {
    fake::record("arpd_ipv6_pkt_send", fd, ifindex);
    fake::Icmp6Message message{fd, *to, iovcnt, {}, ifindex};
    for (int i = 0; i < iovcnt; ++i) {
        const auto* const bytes = static_cast<const uint8_t*>(iov[i].iov_base);
        message.bytes.insert(message.bytes.end(), bytes, bytes + iov[i].iov_len);
    }
    fake::platform().icmp6Messages.push_back(message);
    return fake::platform().icmp6Send();
}

int debug_process(uint32_t channel, const char* format, ...) {
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    fake::platform().debugLines.push_back({channel, format, text});
    fake::platform().onDebugLine(fake::platform().debugLines.back());
    return 0;
}

}  // extern "C"
