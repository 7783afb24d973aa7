// SPDX-License-Identifier: MIT
// Which layer-3 VLAN interfaces there are, according to link messages.
#ifndef PMTUD_LINUX_VLAN_TABLE_H
#define PMTUD_LINUX_VLAN_TABLE_H

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>

namespace pmtud_linux {

/// One network interface as a link message of the kernel describes it.
struct Link {
    uint32_t ifindex = 0;
    bool gone = false;      ///< the message says that it was removed
    bool ethernet = false;  ///< ARPHRD_ETHER
    std::string name;
    uint32_t mtu = 0;
    bool inVrf = false;  ///< enslaved to a VRF, which has its own routing table
};

/// One layer-3 VLAN interface.
struct Vlan {
    uint32_t ifindex = 0;
    uint32_t mtu = 0;
    bool inVrf = false;

    friend bool operator==(const Vlan&, const Vlan&) = default;
};

/// By VLAN, 1 to 4094.
using Vlans = std::map<int, Vlan>;

class VlanTable {
 public:
    /// True if the message changed the table.  Interfaces that are not Ethernet, or whose
    /// name is not exactly "bcm0.N", are left out.
    bool apply(const Link& link);

    const Vlans& vlans() const { return m_vlans; }

    /// The VLAN of the interface, or 0.
    int vlanOf(uint32_t ifindex) const {
        const auto found = m_byIndex.find(ifindex);
        return found != m_byIndex.end() ? found->second : 0;
    }

 private:
    bool remove(uint32_t ifindex);

    Vlans m_vlans;
    std::unordered_map<uint32_t, int> m_byIndex;
};

}  // namespace pmtud_linux

#endif
