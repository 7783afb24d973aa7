// SPDX-License-Identifier: MIT
// Sends the kernel's own answer, which the rules had withdrawn.
#ifndef PMTUD_LINUX_KERNEL_ANSWER_H
#define PMTUD_LINUX_KERNEL_ANSWER_H

#include "copies.h"
#include "descriptor.h"
#include "log_message.h"

namespace pmtud_linux {

/// Used for a packet that the daemon did not answer, or whose answer did not leave the router.
class KernelAnswer {
 public:
    /// Sends the message straight to the station that the refused packet came from, bypassing all
    /// rules, because it had already passed all but the last of them. `refused` is the packet's
    /// copy. If it is null, if the station's address is unknown, if the message was to leave via an
    /// interface other than the packet's ingress, or if sending directly fails, uses the kernel's
    /// routes instead, and so passes through the rules. 0 or a negative errno value: -EPERM if the
    /// rules dropped it.
    int send(const LogMessage& message, const Copy* refused);

 private:
    int toStation(const LogMessage& message, const Copy& refused);
    int byRoute4(const LogMessage& message);
    int byRoute6(const LogMessage& message);

    // Opened when first needed, which is hardly ever.
    Descriptor m_packets;
    Descriptor m_raw4;
    Descriptor m_raw6;
};

}  // namespace pmtud_linux

#endif
