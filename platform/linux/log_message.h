// SPDX-License-Identifier: MIT
// A packet as the kernel logs it to a log group (nfnetlink_log).
#ifndef PMTUD_LINUX_LOG_MESSAGE_H
#define PMTUD_LINUX_LOG_MESSAGE_H

#include <libmnl/libmnl.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace pmtud_linux {

/// The views point into the netlink message.
struct LogMessage {
    std::string_view prefix;              ///< of the rule that logged; empty: none
    uint32_t ingress = 0;                 ///< interface index; 0: none
    uint32_t egress = 0;                  ///< interface index; 0: none
    uint32_t mark = 0;                    ///< of the packet; 0: none
    std::optional<uint32_t> sequence;     ///< counts all messages of the group from 0
    std::span<const uint8_t> linkHeader;  ///< empty: none
    std::span<const uint8_t> payload;     ///< from the IP header on; may be truncated
};

/// Whether the message is a packet of a log group, according to its header.
bool isLogged(const nlmsghdr& message);

/// Decodes a complete netlink message for which isLogged is true. Nothing if the lengths inside
/// contradict each other.
std::optional<LogMessage> decodeLogMessage(const nlmsghdr& message);

/// The egress VLAN (1 to 4094) in the log prefix of a candidate's copy; 0 if the prefix is not a
/// copy's.
int copiedFor(std::string_view prefix);

}  // namespace pmtud_linux

#endif
