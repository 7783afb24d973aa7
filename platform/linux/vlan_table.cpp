// SPDX-License-Identifier: MIT
// Which layer-3 VLAN interfaces there are, according to link messages.
#include "vlan_table.h"

#include "vlan_name.h"

namespace pmtud_linux {

bool VlanTable::apply(const Link& link) {
    const int vlan = link.gone || !link.ethernet ? 0 : vlanOfName(link.name);
    if (vlan == 0) return remove(link.ifindex);

    const Vlan now{link.ifindex, link.mtu, link.inVrf};
    const auto known = m_vlans.find(vlan);
    if (known != m_vlans.end() && known->second == now) return false;
    // The name may have been another interface's, and the interface may have had another name.
    if (known != m_vlans.end()) m_byIndex.erase(known->second.ifindex);
    remove(link.ifindex);
    m_vlans[vlan] = now;
    m_byIndex[link.ifindex] = vlan;
    return true;
}

bool VlanTable::remove(uint32_t ifindex) {
    const auto found = m_byIndex.find(ifindex);
    if (found == m_byIndex.end()) return false;
    m_vlans.erase(found->second);
    m_byIndex.erase(found);
    return true;
}

}  // namespace pmtud_linux
