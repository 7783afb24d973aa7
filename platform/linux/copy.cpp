// SPDX-License-Identifier: MIT
// The start of one candidate, as it arrived.
#include "copy.h"

#include <algorithm>

#include "ip_packet.h"

namespace pmtud_linux {

size_t Copy::packetSize() const { return std::max(size, claimedSize(packet())); }

}  // namespace pmtud_linux
