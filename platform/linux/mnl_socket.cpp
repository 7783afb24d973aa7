// SPDX-License-Identifier: MIT
// Owns a libmnl netlink socket and closes it.
#include "mnl_socket.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace pmtud_linux {

int openSocket(MnlSocket& socket, int family, unsigned int groups) {
    MnlSocket opened(mnl_socket_open2(family, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!opened) return -errno;
    if (mnl_socket_bind(opened.get(), groups, MNL_SOCKET_AUTOPID) < 0) return -errno;
    socket = std::move(opened);
    return 0;
}

}  // namespace pmtud_linux
