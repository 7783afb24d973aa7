// SPDX-License-Identifier: MIT
// The names of layer-3 VLAN interfaces: "bcm0." and the VLAN.
#ifndef PMTUD_LINUX_VLAN_NAME_H
#define PMTUD_LINUX_VLAN_NAME_H

#include <net/if.h>

#include <string>
#include <string_view>

namespace pmtud_linux {

constexpr int kFirstVlan = 1;
constexpr int kLastVlan = 4094;

/// The VLAN (1 to 4094) that the text gives in decimal without leading zeros; 0 for any other text.
int vlanOfNumber(std::string_view digits);

/// The VLAN (1 to 4094) of the interface with that name; 0 if the name is not exactly "bcm0." and
/// the VLAN in decimal without leading zeros.
int vlanOfName(std::string_view name);

std::string nameOfVlan(int vlan);

/// The interface's name, not an alternative one, queried through any socket; empty if there is no
/// such interface.
std::string nameOfInterface(int socket, int ifindex);

/// The index of the interface with that name or alternative name, queried through any socket; 0 if
/// there is no such interface.
int indexOfInterface(int socket, std::string_view name);

/// Writes the name into an interface ioctl's request; false if it is too long.
bool putName(ifreq& request, std::string_view name);

}  // namespace pmtud_linux

#endif
