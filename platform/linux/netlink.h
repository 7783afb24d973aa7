// SPDX-License-Identifier: MIT
// Netlink datagrams: validating their sender and their lengths, and the text of an attribute.
#ifndef PMTUD_LINUX_NETLINK_H
#define PMTUD_LINUX_NETLINK_H

#include <linux/netlink.h>
#include <sys/socket.h>

#include <cstddef>
#include <string_view>

namespace pmtud_linux {

/// Any process may send to a netlink socket; the kernel's port is 0 (netlink(7)).
inline bool isFromKernel(const sockaddr_nl& sender, socklen_t size) {
    return size == sizeof sender && sender.nl_pid == 0;
}

/// How many of the datagram's bytes are whole messages, one after the other; the rest must
/// not be shown to libmnl, whose own check takes a length of 2 GiB and more for a negative
/// number, which fits anywhere.  `bytes` is aligned as a message is.
size_t wholeMessages(const char* bytes, size_t length);

/// The attribute's payload up to its first zero, which need not be there.
std::string_view textOf(const nlattr* attribute);

}  // namespace pmtud_linux

#endif
