// SPDX-License-Identifier: MIT
// The engine's queries to the switch configuration.
#ifndef PMTUD_VLAN_CONFIG_H
#define PMTUD_VLAN_CONFIG_H

#include <cstdint>

/// Passes each query to the configuration service and returns its answer unchanged. Nothing is
/// cached, so a configuration change takes effect with the next frame. Answers outside the valid
/// range mean "none".
class VlanConfig {
 public:
    /// The VLAN via which packets with this egress leave the switch; valid: 1 to 4094.
    int getDestVlan(int egress);

    /// The VLAN's MTU in bytes; valid: 576 to 16383.
    uint32_t getVlanMtu(int vlan);

    int getMtuVlan(int vlan);

    /// The module number under which the engine writes to the debug process.
    uint32_t logModuleId();
};

#endif
