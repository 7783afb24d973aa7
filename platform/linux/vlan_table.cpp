// SPDX-License-Identifier: MIT
// The layer-3 VLAN interfaces that exist, according to link messages.
#include "vlan_table.h"

#include <iterator>
#include <set>
#include <string>

#include "vlan_name.h"

namespace pmtud_linux {

namespace {

// The VLANs whose names the interface has.
std::set<int> vlansNamedBy(const Link& link) {
    std::set<int> vlans{vlanOfName(link.name)};
    for (const std::string& name : link.alternativeNames) vlans.insert(vlanOfName(name));
    vlans.erase(0);
    return vlans;
}

}  // namespace

bool VlanTable::apply(const Link& link) {
    const std::set<int> named = vlansNamedBy(link);
    if (link.gone || !link.ethernet || named.empty()) return remove(link.ifindex);

    const int vlan = *named.begin();
    const int next = named.size() > 1 ? *std::next(named.begin()) : 0;
    const Vlan now{link.ifindex, link.mtu, link.inVrf, next};
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
