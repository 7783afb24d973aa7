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

/// The interface that a complete RTM_NEWLINK or RTM_DELLINK message describes. Nothing for any
/// other message, for a bridge's message about a port, and for one that only announces an event.
std::optional<Link> decodeLink(const nlmsghdr& message);

/// Writes a request for the interface's link message to `buffer`, which must be zeroed, aligned
/// like a message and at least 64 bytes long. With `ifindex` 0, and if the caller adds NLM_F_DUMP,
/// the request is for all interfaces.
nlmsghdr* putLinkRequest(char* buffer, int ifindex);

}  // namespace pmtud_linux

#endif
