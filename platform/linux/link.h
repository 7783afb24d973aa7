// SPDX-License-Identifier: MIT
// One network interface, as a link message of the kernel (rtnetlink) describes it.
#ifndef PMTUD_LINUX_LINK_H
#define PMTUD_LINUX_LINK_H

#include <linux/netlink.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace pmtud_linux {

struct Link {
    uint32_t ifindex = 0;
    bool gone = false;      ///< the message reports its removal
    bool ethernet = false;  ///< ARPHRD_ETHER
    std::string name;
    std::vector<std::string> alternativeNames;
    uint32_t mtu = 0;
    bool inVrf = false;  ///< enslaved to a VRF, which has its own routing table
};

/// The interface that a complete RTM_NEWLINK or RTM_DELLINK message describes; nothing for any
/// other message, nor for a bridge's messages about its ports, nor for one that announces an event
/// and does not describe the interface.
std::optional<Link> decodeLink(const nlmsghdr& message);

/// Writes a request for the interface's link message to `buffer`, which must be zero, aligned like
/// a message and of at least 64 bytes; 0: for those of all interfaces, if the caller adds
/// NLM_F_DUMP.
nlmsghdr* putLinkRequest(char* buffer, int ifindex);

}  // namespace pmtud_linux

#endif
