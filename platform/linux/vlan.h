// SPDX-License-Identifier: MIT
// One layer-3 VLAN interface.
#ifndef PMTUD_LINUX_VLAN_H
#define PMTUD_LINUX_VLAN_H

#include <cstdint>
#include <map>

namespace pmtud_linux {

struct Vlan {
    uint32_t ifindex = 0;
    uint32_t mtu = 0;
    bool inVrf = false;
    int alsoNamed = 0;  ///< the next VLAN whose name the interface also has; 0: none

    friend bool operator==(const Vlan&, const Vlan&) = default;
};

/// By VLAN, 1 to 4094.
using Vlans = std::map<int, Vlan>;

}  // namespace pmtud_linux

#endif
