// SPDX-License-Identifier: MIT
// One netlink request to the kernel, and its answer.
#ifndef PMTUD_LINUX_NETLINK_REQUEST_H
#define PMTUD_LINUX_NETLINK_REQUEST_H

#include <libmnl/libmnl.h>

#include "mnl_socket.h"

namespace pmtud_linux {

/// Sends the request and receives its acknowledgement or, if `take` is given, passes it each
/// message of the answer until it returns MNL_CB_STOP. Does not block: the kernel queues the answer
/// before the send returns. 0 or a negative errno value.
int requestFromKernel(const MnlSocket& socket, nlmsghdr* request, mnl_cb_t take, void* data);

}  // namespace pmtud_linux

#endif
