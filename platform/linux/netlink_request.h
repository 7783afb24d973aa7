// SPDX-License-Identifier: MIT
// One netlink request to the kernel, and its answer.
#ifndef PMTUD_LINUX_NETLINK_REQUEST_H
#define PMTUD_LINUX_NETLINK_REQUEST_H

#include <libmnl/libmnl.h>

#include "mnl_socket.h"

namespace pmtud_linux {

/// Sends the request and awaits its acknowledgement, or, with `take`, hands each message of the
/// answer to it until it returns MNL_CB_STOP.  The kernel queues the answer before the send
/// returns, so nothing waits.  0 or a negative errno value.
int requestOfKernel(const MnlSocket& socket, nlmsghdr* request, mnl_cb_t take, void* data);

}  // namespace pmtud_linux

#endif
