// SPDX-License-Identifier: MIT
// The scripted platform: the seam's functions and objects, for the daemon as a process.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "arpd.h"
#include "cfg.h"
#include "debug_process.h"
#include "pktd.h"
#include "scripted_play.h"

using scripted::play;

namespace {

std::string quoted(const char* text) { return '"' + std::string(text) + '"'; }

std::string pool(const void* address) {
    if (address == pktd_tx_queue_pool) return "pktd_tx_queue_pool";
    if (address == pktd_tx_queue_pool + 8) return "pktd_tx_queue_pool + 8";
    if (address == pktd_rx_queue_pool) return "pktd_rx_queue_pool";
    if (address == pktd_rx_wl_pool) return "pktd_rx_wl_pool";
    if (address == nullptr) return "0";
    return "?";
}

std::string hex(const uint8_t* bytes, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", unsigned{bytes[i]});
        text += digits;
    }
    return text;
}

/// Frames come when the main thread is parked, so that the log's order is always the same.
void deliverFrames(pktd_rx_cb_t callback) noexcept {
    scripted::awaitMainThreadParked();
    for (const scripted::Delivery& delivery : scripted::script().deliveries) {
        st_pktd_shm_queue_entry_data_t record{};
        record.ctrl = delivery.ctrl;
        // What lies behind the frame is readable and zero, as a reader of it may expect.
        std::vector<uint8_t> buffer(scripted::kFrameBuffer);
        std::copy(delivery.frame.begin(), delivery.frame.end(), buffer.begin());
        const int verdict =
            callback(&record, buffer.data(), static_cast<int>(delivery.frame.size()));
        scripted::log("verdict " + std::to_string(verdict));
    }
    scripted::log("frames done");
}

}  // namespace

extern "C" {

uint8_t pktd_tx_queue_pool[25980];
uint8_t pktd_rx_queue_pool[25980];
uint8_t pktd_rx_wl_pool[25980];

int cfg_init(void) { return play("cfg_init"); }

int cfg_add_pid(const char* process) { return play("cfg_add_pid", quoted(process)); }

int updateTZ(void) {
    const int answer = play("updateTZ");
    scripted::countAllocationsFromNow();
    return answer;
}

int cfg_clear_pid(void) { return play("cfg_clear_pid"); }

int cfg_vlan_l3_get_dest_vlan(int egress) {
    const int answer = play("cfg_vlan_l3_get_dest_vlan", egress);
    const auto& vlans = scripted::script().vlans;
    const auto found = vlans.find(egress);
    return found == vlans.end() ? answer : found->second;
}

uint32_t cfg_vlan_l3_get_mtu(int vlan) {
    const int answer = play("cfg_vlan_l3_get_mtu", vlan);
    const auto& mtus = scripted::script().mtus;
    const auto found = mtus.find(vlan);
    return found == mtus.end() ? static_cast<uint32_t>(answer) : found->second;
}

int cfg_vlan_l3_get_mtu_vlan(int vlan) { return play("cfg_vlan_l3_get_mtu_vlan", vlan); }

int pktd_shm_queue_init(const char* client, int first, int second, void* tx_pool, void* rx_pool) {
    return play("pktd_shm_queue_init", quoted(client), first, second, pool(tx_pool), pool(rx_pool));
}

int pktd_shm_rx_thread_init(const char* client, void* rx_pool, void* rx_wl_pool, int first,
                            int second, pktd_rx_cb_t callback, void* user) {
    const int answer =
        play("pktd_shm_rx_thread_init", quoted(client), pool(rx_pool), pool(rx_wl_pool), first,
             second, callback == nullptr ? "0" : "callback", pool(user));
    if (answer != 0 || scripted::script().deliveries.empty()) return answer;
    std::thread(deliverFrames, callback).detach();
    return answer;
}

int pktd_queue_entry_data_vlan_based_init(st_pktd_shm_queue_entry_data_t* entry, int proto, int vid,
                                          const uint8_t* frame, size_t len) {
    memset(entry, 0, sizeof *entry);
    return play("pktd_queue_entry_data_vlan_based_init", proto, vid, hex(frame, len), len);
}

int shm_data_entry_post(void* queue, st_pktd_shm_queue_entry_data_t* entry, size_t len,
                        uint32_t* out) {
    *out = 0;
    return play("shm_data_entry_post", pool(queue), len, entry->ctrl.post_kind);
}

int arpd_icmp6_socket_create(int32_t* fd, const char* ifname) {
    const int answer = play("arpd_icmp6_socket_create", quoted(ifname));
    if (answer != 0) return answer;
    if (!scripted::script().sendsIcmp6) {
        *fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
        return *fd == -1 ? -errno : 0;
    }

    const int created = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
    if (created == -1) return -errno;
    const auto length = static_cast<socklen_t>(strlen(ifname));
    if (setsockopt(created, SOL_SOCKET, SO_BINDTODEVICE, ifname, length) != 0) {
        const int error = errno;
        close(created);
        return -error;
    }
    *fd = created;
    return 0;
}

int arpd_ipv6_pkt_send(int32_t fd, const struct sockaddr_in6* to, const struct iovec* iov,
                       int iovcnt, uint32_t ifindex) {
    std::string message;
    for (int i = 0; i < iovcnt; ++i) {
        message += hex(static_cast<const uint8_t*>(iov[i].iov_base), iov[i].iov_len);
    }
    char address[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, &to->sin6_addr, address, sizeof address);
    const int answer = play("arpd_ipv6_pkt_send", "socket", address, iovcnt, ifindex, message);
    if (answer < 0 || !scripted::script().sendsIcmp6) return answer;

    sockaddr_in6 destination = *to;
    destination.sin6_scope_id = ifindex;
    msghdr header{};
    header.msg_name = &destination;
    header.msg_namelen = sizeof destination;
    header.msg_iov = const_cast<iovec*>(iov);
    header.msg_iovlen = static_cast<std::size_t>(iovcnt);
    if (sendmsg(fd, &header, 0) == -1) {
        const int error = errno;
        scripted::log("arpd_ipv6_pkt_send: " + std::string(strerror(error)));
        return -error;
    }
    return answer;
}

int debug_process(uint32_t channel, const char* format, ...) {
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    // Clang 14 does not see through va_start. NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return play("debug_process", channel, quoted(format), quoted(text));
}

}  // extern "C"
