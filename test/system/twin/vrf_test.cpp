// SPDX-License-Identifier: MIT
// Routers whose VLANs belong to a VRF, on kernels that have VRFs.
#include <iostream>

#include "twin_fixture.h"

namespace twin {

namespace {

using Vrf = TwinTest;

// Without a VRF there is nothing to compare; the kernel must say itself that it lacks them, and
// not for another reason.
bool kernelHasVrfs() {
    const Namespace probe("probe");
    bool has = false;
    probe.run([&has] { has = succeeds("ip link add red type vrf table 100"); });
    if (has) return true;
    bool isUnknown = false;
    probe.run([&isUnknown] {
        isUnknown =
            succeeds("ip link add red type vrf table 100 2>&1 | grep -q 'Unknown device type'");
    });
    EXPECT_TRUE(isUnknown) << "ip link add type vrf failed for another reason";
    return false;
}

TEST_F(Vrf, SendersInAVrfAreToldAlike) {
    if (!kernelHasVrfs()) {
        std::cout << "NOT RUN: this kernel has no VRF (ip link add type vrf: Unknown device type)"
                  << std::endl;
        return;
    }
    Twins twins(run);
    twins.ip(R"(link add red type vrf table 100
link set dev red up
link set dev bcm0.10 master red
link set dev bcm0.20 master red)");
    twins.ip(R"(addr replace 2001:db8:10::1/64 dev bcm0.10 nodad
addr replace 2001:db8:20::1/64 dev bcm0.20 nodad)");
    twins.send(Ipv4{}, kKernelOnly);
    twins.send(Ipv6{});
    twins.send(Ipv4{.size = 1400});
    twins.send(Ipv6{.size = 1400});
    expectAlike(twins, 2);
}

}  // namespace

}  // namespace twin
