// SPDX-License-Identifier: MIT
// The table of VLANs that a thread keeps up to date.
#include "known_vlans.h"

namespace pmtud_linux {

namespace {
thread_local const VlanTable* known = nullptr;
}

KnownVlans::KnownVlans(const VlanTable& table) { known = &table; }

KnownVlans::~KnownVlans() { known = nullptr; }

const VlanTable* KnownVlans::table() { return known; }

}  // namespace pmtud_linux
