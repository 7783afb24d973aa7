// SPDX-License-Identifier: MIT
// A netlink socket of libmnl's, with its owner.
#ifndef PMTUD_LINUX_MNL_SOCKET_H
#define PMTUD_LINUX_MNL_SOCKET_H

#include <libmnl/libmnl.h>

#include <memory>

namespace pmtud_linux {

struct MnlSocketClose {
    void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};
using MnlSocket = std::unique_ptr<mnl_socket, MnlSocketClose>;

/// Opens a socket of the netlink family that does not block and belongs to the multicast groups,
/// a mask.  0 or a negative errno value, and then the socket stays what it was.
int openSocket(MnlSocket& socket, int family, unsigned int groups);

}  // namespace pmtud_linux

#endif
