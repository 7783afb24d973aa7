// SPDX-License-Identifier: MIT
// The table of VLANs that a thread keeps up to date.
#ifndef PMTUD_LINUX_KNOWN_VLANS_H
#define PMTUD_LINUX_KNOWN_VLANS_H

#include "vlan_table.h"

namespace pmtud_linux {

/// While it exists, all code on the calling thread can use the table.
class KnownVlans {
 public:
    explicit KnownVlans(const VlanTable& table);
    KnownVlans(const KnownVlans&) = delete;
    KnownVlans& operator=(const KnownVlans&) = delete;
    ~KnownVlans();

    /// The calling thread's table; null: none.
    static const VlanTable* table();
};

}  // namespace pmtud_linux

#endif
