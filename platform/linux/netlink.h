// SPDX-License-Identifier: MIT
// Validates the sender and the lengths of netlink datagrams, and reads the text of an attribute.
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

/// How many of the datagram's bytes are complete messages. The rest must not reach libmnl, whose
/// own check treats a length of 2 GiB or more as a negative number, which fits anywhere. `bytes`
/// must be aligned like a message.
size_t wholeMessages(const char* bytes, size_t length);

/// The attribute's payload up to its first zero byte, or all of it if there is none.
std::string_view textOf(const nlattr* attribute);

}  // namespace pmtud_linux

#endif
