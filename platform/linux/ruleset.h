// SPDX-License-Identifier: MIT
// The nftables rules that copy candidates and withdraw the kernel's answers, as text.
#ifndef PMTUD_LINUX_RULESET_H
#define PMTUD_LINUX_RULESET_H

#include <cstdint>
#include <string>

#include "vlan.h"

namespace pmtud_linux {

/// The log group that the rules log to.
constexpr uint16_t kLogGroup = 89;

/// How many bytes of a candidate are copied: an IPv6 answer quotes up to 1,492.
constexpr uint32_t kCopySize = 1500;

/// The VLAN MTUs that the daemon accepts. On an egress with any other MTU, the kernel answers.
constexpr uint32_t kMinimumMtu = 576;
constexpr uint32_t kMaximumMtu = 16383;

inline bool isServed(const Vlan& vlan) {
    return vlan.mtu >= kMinimumMtu && vlan.mtu <= kMaximumMtu;
}

/// A copy's log prefix is this, followed by the egress VLAN in decimal.
constexpr char kCopyPrefix[] = "pmtud:";

/// The log prefix of a kernel message that was withdrawn.
constexpr char kRefusedPrefix[] = "pmtud:refused";

/// The counter of "too big" messages that processes sent, usually the daemon's answers, and that
/// left the router.
constexpr char kAnswersCounter[] = "answers";

/// The table, with everything that does not depend on the VLANs.
std::string tableText();

/// The commands that turn the rules for one set of VLANs into those for another, for one
/// transaction on an existing table; empty if nothing changes.
std::string changeText(const Vlans& before, const Vlans& after);

/// The command that leaves the answers on the interface to the kernel for that many seconds.
std::string leaveToKernelText(uint32_t ifindex, int seconds);

}  // namespace pmtud_linux

#endif
