// SPDX-License-Identifier: MIT
// Owns a libmnl netlink socket and closes it.
#ifndef PMTUD_LINUX_MNL_SOCKET_H
#define PMTUD_LINUX_MNL_SOCKET_H

#include <libmnl/libmnl.h>

#include <memory>

namespace pmtud_linux {

struct MnlSocketClose {
    void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};
using MnlSocket = std::unique_ptr<mnl_socket, MnlSocketClose>;

/// Opens a non-blocking socket of the netlink family and joins it to the multicast groups, a bit
/// mask. 0, or a negative errno value with `socket` unchanged.
int openSocket(MnlSocket& socket, int family, unsigned int groups);

}  // namespace pmtud_linux

#endif
