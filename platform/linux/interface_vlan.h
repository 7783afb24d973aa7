// SPDX-License-Identifier: MIT
// The VLAN of an interface as the kernel names it at the moment.
#ifndef PMTUD_LINUX_INTERFACE_VLAN_H
#define PMTUD_LINUX_INTERFACE_VLAN_H

namespace pmtud_linux {

/// The VLAN (1 to 4094) of the interface, according to its own name and its alternative ones; 0 if
/// it is not a VLAN, or there is no such interface.  `socket` may be any.  On a thread with
/// KnownVlans it never waits for the kernel's lock of the interfaces.
int vlanOfInterface(int socket, int ifindex);

}  // namespace pmtud_linux

#endif
