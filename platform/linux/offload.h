// SPDX-License-Identifier: MIT
// Receive offload: whether an interface merges packets before the kernel routes them.
#ifndef PMTUD_LINUX_OFFLOAD_H
#define PMTUD_LINUX_OFFLOAD_H

#include <cstdint>
#include <string>
#include <unordered_set>

#include "descriptor.h"
#include "vlan_table.h"

namespace pmtud_linux {

/// What the daemon says of an interface whose receive offload is on; empty: it is off.
/// `options` is what ethtool has to turn off, "gro off" or "gro off lro off".
std::string offloadNote(const std::string& name, const std::string& options);

/// Says once per interface that its receive offload is on.
class OffloadWatch {
 public:
    /// 0 or a negative errno value.
    int open();

    /// Looks at the VLANs' interfaces that it has not seen yet, and at those below them;
    /// forgets the others.
    void look(const Vlans& vlans);

 private:
    void forgetAllBut(const Vlans& vlans);
    void lookAt(uint32_t ifindex);

    Descriptor m_socket;
    std::unordered_set<uint32_t> m_seen;
};

}  // namespace pmtud_linux

#endif
