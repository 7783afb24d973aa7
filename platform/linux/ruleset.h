// SPDX-License-Identifier: MIT
// The nftables rules that pick the packets to dispatch, as text for libnftables.
#ifndef PMTUD_LINUX_RULESET_H
#define PMTUD_LINUX_RULESET_H

#include <cstdint>
#include <string>

#include "vlan_table.h"

namespace pmtud_linux {

/// The log group that the rules copy packets to.
constexpr uint16_t logGroup = 89;

/// How much of a packet is copied, in bytes.
constexpr uint32_t snapLength = 9000;

/// What the daemon takes for the MTU of a VLAN.  An egress with any other stays the kernel's.
constexpr uint32_t minimumMtu = 576;
constexpr uint32_t maximumMtu = 16383;

/// The table with all that does not depend on the VLANs.
std::string tableText();

/// The commands that turn the rules for one set of VLANs into those for another, to be
/// run in one transaction behind a table; empty where there is nothing to do.
std::string changeText(const Vlans& before, const Vlans& after);

}  // namespace pmtud_linux

#endif
