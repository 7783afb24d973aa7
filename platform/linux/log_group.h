// SPDX-License-Identifier: MIT
// The NFLOG group: a socket on which the kernel delivers the packets that rules copy to it.
#ifndef PMTUD_LINUX_LOG_GROUP_H
#define PMTUD_LINUX_LOG_GROUP_H

#include <cstdint>

#include "links.h"

namespace pmtud_linux {

class LogGroup {
 public:
    /// Takes the group for this process: every packet copied up to `snapLength` bytes, in a
    /// message of its own, with a sequence number, at once.  0 or a negative errno value:
    /// -EPERM without CAP_NET_ADMIN, -EBUSY where another process has the group.
    int open(uint16_t group, uint32_t snapLength);

    void close() { m_socket.reset(); }

    /// Non-blocking.  Each datagram holds one message.
    int fd() const { return mnl_socket_get_fd(m_socket.get()); }

 private:
    MnlSocket m_socket;
};

}  // namespace pmtud_linux

#endif
