// SPDX-License-Identifier: MIT
// Plays a case: its lines prepare both routers, and describe the packets that both receive.
#ifndef PMTUD_TWIN_PLAY_H
#define PMTUD_TWIN_PLAY_H

#include <string>

#include "twins.h"

namespace twin {

/// One command per line. These prepare both routers:
///
///     ip ARGUMENT...          runs ip in the router
///     nft COMMANDS            runs nftables commands there
///     sh COMMAND              runs a shell command there
///     sysctl NAME VALUE       sets a kernel parameter there
///     hosts COMMAND           runs a shell command in the hosts' namespace
///     vlan NUMBER HOST MTU    adds bcm0.NUMBER, and a host of that name on it
///     port BRIDGE HOST MAC    adds a port to the bridge, and a host with that name and MAC on it
///     ignore source           does not compare the addresses that answers come from
///     ignore host             does not compare the hosts that receive answers either
///     fence6                  the fences (twins.h) use IPv6: the router has no IPv4 address
///
/// These are carried out afterwards, in the order in which they appear:
///
///     v4 WORD...              sends an IPv4 packet
///     v6 WORD...              sends an IPv6 packet
///     v46 WORD...             sends one of each
///     tcp4, tcp6, tcp46       send merged TCP segments
///     udp4, udp6, udp46       send merged UDP datagrams
///     meanwhile COMMAND       runs a shell command in the routers between the packets
///
/// A word is NAME=VALUE, a field of the packet, or a name alone. play.cpp reads them: `host` is the
/// host that sends, `fragments` the size of the fragments to send the packet in. An address
/// VLAN.HOST is 10.0.VLAN.HOST or 2001:db8:VLAN::HOST. `kernel`, `kernel4` and `kernel6` mark
/// packets that only the kernel answers. A line with ONE|OTHER is played once with each; times=N
/// plays a line of packets N times.
void play(Twins& twins, const std::string& lines);

}  // namespace twin

#endif
