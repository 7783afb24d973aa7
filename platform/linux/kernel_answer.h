// SPDX-License-Identifier: MIT
// Sends a withdrawn answer of the kernel's after all.
#ifndef PMTUD_LINUX_KERNEL_ANSWER_H
#define PMTUD_LINUX_KERNEL_ANSWER_H

#include "copies.h"
#include "descriptor.h"
#include "log_message.h"

namespace pmtud_linux {

/// For the case that the daemon's answer to the same packet did not leave the router.  The kernel's
/// had passed all rules up to this table's when it was withdrawn, so it goes past them, through a
/// packet socket.
class KernelAnswer {
 public:
    /// Sends the message to the station that the refused packet came from.  0 or a negative
    /// errno value, -EHOSTUNREACH if the message was to leave by another interface than the
    /// packet's ingress, where the next station is unknown.
    int send(const LogMessage& message, const Copy& refused);

 private:
    // Opened when it is first needed, which is hardly ever.
    Descriptor m_socket;
};

}  // namespace pmtud_linux

#endif
