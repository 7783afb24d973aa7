// SPDX-License-Identifier: MIT
// Netlink datagrams: how far they can be believed.
#ifndef PMTUD_LINUX_NETLINK_H
#define PMTUD_LINUX_NETLINK_H

#include <cstddef>

namespace pmtud_linux {

/// How many of the datagram's bytes are whole messages, one behind the other; the rest is not
/// to be shown to libmnl, whose own check takes a length of 2 GiB and more for a negative
/// number, which fits anywhere.  `bytes` is aligned as a message is.
size_t wholeMessages(const char* bytes, size_t length);

}  // namespace pmtud_linux

#endif
