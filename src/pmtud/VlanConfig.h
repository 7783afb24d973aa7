// SPDX-License-Identifier: MIT
// The engine's questions to the switch configuration.
#ifndef PMTUD_VLAN_CONFIG_H
#define PMTUD_VLAN_CONFIG_H

#include <cstdint>

/// Hands each question to the configuration service and its answer back unchanged.  It
/// keeps nothing, so a change of configuration holds from the next frame on; answers
/// outside the valid range mean "none".
class VlanConfig {
 public:
    /// The VLAN by which this egress leaves the switch; valid: 1 to 4094.
    int getDestVlan(int egress);

    /// The VLAN's MTU in bytes; valid: 576 to 16383.
    uint32_t getVlanMtu(int vlan);

    int getMtuVlan(int vlan);

    /// The module number under which the engine writes to the debug process.
    uint32_t logModuleId();
};

#endif
