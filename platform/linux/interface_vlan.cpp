// SPDX-License-Identifier: MIT
// The VLAN of an interface, according to its current names.
#include "interface_vlan.h"

#include <libmnl/libmnl.h>
#include <linux/netlink.h>

#include <array>
#include <cstdint>
#include <string>

#include "known_vlans.h"
#include "link.h"
#include "mnl_socket.h"
#include "netlink_request.h"
#include "vlan_name.h"

namespace pmtud_linux {

namespace {

int applyLink(const nlmsghdr* message, void* data) {
    const auto link = decodeLink(*message);
    if (!link) return MNL_CB_OK;
    static_cast<VlanTable*>(data)->apply(*link);
    return MNL_CB_STOP;
}

// Only link messages contain alternative names. The kernel builds them under its interface lock
// (RTNL), which others may hold for long.
int askVlan(int ifindex) {
    MnlSocket socket;
    if (openSocket(socket, NETLINK_ROUTE, 0) != 0) return 0;
    alignas(nlmsghdr) std::array<char, 256> request{};
    VlanTable table;
    if (requestFromKernel(socket, putLinkRequest(request.data(), ifindex), applyLink, &table) != 0)
        return 0;
    return table.vlanOf(static_cast<uint32_t>(ifindex));
}

}  // namespace

int vlanOfInterface(int socket, int ifindex) {
    const std::string name = nameOfInterface(socket, ifindex);
    if (name.empty()) return 0;
    const int own = vlanOfName(name);
    const VlanTable* const table = KnownVlans::table();
    const int known =
        table != nullptr ? table->vlanOf(static_cast<uint32_t>(ifindex)) : askVlan(ifindex);
    if (known == own || known == 0) return own;
    // The table may predate a change of names.
    return indexOfInterface(socket, nameOfVlan(known)) == ifindex ? known : own;
}

}  // namespace pmtud_linux
