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

/// The VLAN (1 to 4094) that the text is in decimal without leading zeros, or 0.
int vlanOfNumber(std::string_view digits);

/// The VLAN (1 to 4094) of the interface so named, or 0 if the name is not exactly
/// "bcm0." and that number in decimal without leading zeros.
int vlanOfName(std::string_view name);

/// The name of the VLAN's interface.
std::string nameOfVlan(int vlan);

/// The own name of the interface numbered ifindex, asked of the kernel through any socket;
/// empty where there is none.
std::string nameOfInterface(int socket, int ifindex);

/// The number of the interface so named, by its own name or an alternative one, asked of the
/// kernel through any socket; 0 if there is none.
int indexOfInterface(int socket, std::string_view name);

/// Writes the name into a request of the interface ioctls; false where it is too long.
bool putName(ifreq& request, std::string_view name);

}  // namespace pmtud_linux

#endif
