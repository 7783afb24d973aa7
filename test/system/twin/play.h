// SPDX-License-Identifier: MIT
// Plays a case: lines that prepare both routers, and the packets that both are fed.
#ifndef PMTUD_TWIN_PLAY_H
#define PMTUD_TWIN_PLAY_H

#include <string>

#include "twins.h"

namespace twin {

/// One command per line.  The routers are prepared by
///
///     ip ...                  nft ...                  sh COMMAND
///     sysctl NAME VALUE       hosts COMMAND            vlan NUMBER HOST MTU
///     port BRIDGE HOST MAC    ignore source|host       fence6
///
/// and fed, in this order, by
///
///     v4 WORD...     an IPv4 packet          tcp4, udp4    merged segments or datagrams
///     v6 WORD...     an IPv6 packet          tcp6, udp6
///     v46 WORD...    one of each             tcp46, udp46
///     meanwhile COMMAND
///
/// The words, NAME=VALUE, are the fields of the packet; an address VLAN.HOST is 10.0.VLAN.HOST or
/// 2001:db8:VLAN::HOST.  `kernel`, `kernel4` and `kernel6` mark what only the kernel answers.
/// ONE|OTHER anywhere repeats the line with each; so does times=N.
///
/// Of the routers' construction, `mtus a=9000 b=1500` in the first line is read by mtusOf().
void play(Twins& twins, const std::string& lines);

Mtus mtusOf(const std::string& lines);

}  // namespace twin

#endif
