// SPDX-License-Identifier: MIT
// The scripted platform: the seam's functions, for the unit tests and for the target's daemon.
#ifndef PMTUD_TEST_FAKE_PLATFORM_H
#define PMTUD_TEST_FAKE_PLATFORM_H

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "arpd.h"
#include "cfg.h"
#include "debug_process.h"
#include "pktd.h"

namespace fake {

/// A line that debug_process was given. The journal shows "89 PMTUD-Prot: text".
struct DebugLine {
    uint32_t channel;
    std::string format;
    std::string text;
    bool operator==(const DebugLine&) const = default;
};

/// A message that arpd_ipv6_pkt_send was given.
struct Icmp6Message {
    int32_t fd;
    sockaddr_in6 to;
    int iovcnt;
    std::vector<uint8_t> bytes;
    uint32_t ifindex;
    const void* handedOver;  ///< where the first piece was
};

/// What the platform answers, unless a call has to fail, and what it saw. Every answer may throw.
/// Calls without a field here return 0.
struct Platform {
    std::function<int(int egress)> destVlan = [](int) { return 100; };
    std::function<uint32_t(int vlan)> vlanMtu = [](int) { return 1500U; };
    std::function<int(int32_t* fd)> icmp6SocketCreate = [](int32_t* fd) {
        *fd = 606;
        return 0;
    };
    std::function<int()> icmp6Send = [] { return 0; };

    /// Every call but debug_process, in order, as C source would spell it:
    /// "cfg_add_pid(\"pmtud\")", "cfg_vlan_l3_get_mtu(100)",
    /// "pktd_shm_queue_init(\"pmtud\", 0, 1, pktd_tx_queue_pool, pktd_rx_queue_pool)",
    /// "arpd_icmp6_socket_create(\"bcm0.20\")", "arpd_ipv6_pkt_send(606, 3)" (fd, ifindex), ...
    /// The journal shows address and bytes of a message as well.
    std::vector<std::string> calls;
    std::vector<DebugLine> debugLines;
    std::vector<Icmp6Message> icmp6Messages;
    /// The records that shm_data_entry_post was given.
    std::vector<std::vector<uint8_t>> posted;
    /// What arpd_icmp6_socket_create was given.
    std::string interface;
    /// What pktd_queue_entry_data_vlan_based_init was given.
    const uint8_t* frameToPost = nullptr;
    /// What pktd_shm_rx_thread_init was given.
    pktd_rx_cb_t callback = nullptr;

    /// The texts of debugLines alone.
    std::vector<std::string> debugTexts() const {
        std::vector<std::string> texts;
        for (const DebugLine& line : debugLines) texts.push_back(line.text);
        return texts;
    }
};

namespace detail {
inline Platform currentPlatform;
}

/// The platform from which the seam's functions answer.
inline Platform& platform() { return detail::currentPlatform; }

/// Restores the answers above, with nothing seen.
inline void resetPlatform() { detail::currentPlatform = {}; }

}  // namespace fake

#endif
