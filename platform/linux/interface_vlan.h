// SPDX-License-Identifier: MIT
// The VLAN of an interface, according to its current names.
#ifndef PMTUD_LINUX_INTERFACE_VLAN_H
#define PMTUD_LINUX_INTERFACE_VLAN_H

namespace pmtud_linux {

/// The VLAN (1 to 4094) of the interface, according to its name and its alternative names; 0 if it
/// is not a VLAN interface or does not exist. `socket` may be any socket. On a thread that has
/// KnownVlans, this does not wait for the kernel's interface lock.
int vlanOfInterface(int socket, int ifindex);

}  // namespace pmtud_linux

#endif
