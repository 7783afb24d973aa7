// SPDX-License-Identifier: MIT
// The engine's queries to the switch configuration.
#include "VlanConfig.h"

#include "cfg.h"

int VlanConfig::getDestVlan(int egress) { return cfg_vlan_l3_get_dest_vlan(egress); }

uint32_t VlanConfig::getVlanMtu(int vlan) { return cfg_vlan_l3_get_mtu(vlan); }

int VlanConfig::getMtuVlan(int vlan) { return cfg_vlan_l3_get_mtu_vlan(vlan); }

uint32_t VlanConfig::logModuleId() { return 89; }
