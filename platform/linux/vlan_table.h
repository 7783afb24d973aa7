// SPDX-License-Identifier: MIT
// The layer-3 VLAN interfaces that exist, according to link messages.
#ifndef PMTUD_LINUX_VLAN_TABLE_H
#define PMTUD_LINUX_VLAN_TABLE_H

#include <cstdint>
#include <unordered_map>

#include "link.h"
#include "vlan.h"

namespace pmtud_linux {

class VlanTable {
 public:
    /// True if the message changed the table. The table contains the Ethernet interfaces that have
    /// a name or an alternative name of exactly the form "bcm0.N". An interface with several
    /// such names counts as the lowest of these VLANs.
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
