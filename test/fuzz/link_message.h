// SPDX-License-Identifier: MIT
// Link messages for the fuzz targets.
#ifndef PMTUD_TEST_FUZZ_LINK_MESSAGE_H
#define PMTUD_TEST_FUZZ_LINK_MESSAGE_H

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "input.h"
#include "netlink_message.h"

namespace fuzz {

constexpr std::size_t linkHeaders = messageHeader + sizeof(ifinfomsg);

/// Few numbers and names, so that they come again.
inline Bytes drawLinkMessage(Input& input) {
    constexpr std::array<uint16_t, 3> types = {RTM_NEWLINK, RTM_NEWLINK, RTM_DELLINK};
    constexpr std::array<uint16_t, 3> hardware = {ARPHRD_ETHER, ARPHRD_ETHER, ARPHRD_LOOPBACK};
    Bytes message(linkHeaders);
    const uint8_t kind = input.byte();
    store(message, 4, kind == 0xFF ? input.number<uint16_t>() : types[kind % 3]);
    ifinfomsg link{};
    link.ifi_family = kind / 3 % 16 == 15 ? AF_BRIDGE : AF_UNSPEC;
    link.ifi_type = hardware[kind / 48 % 3];
    const uint8_t index = input.byte();
    link.ifi_index = index == 0xFF ? input.number<int32_t>() : index % 8;
    memcpy(message.data() + messageHeader, &link, sizeof link);
    addAttributes(input, {IFLA_IFNAME, IFLA_MTU, IFLA_LINK, IFLA_LINK_NETNSID, IFLA_LINKINFO},
                  message);
    closeMessage(input, message);
    return message;
}

}  // namespace fuzz

#endif
