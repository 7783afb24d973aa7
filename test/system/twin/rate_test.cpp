// SPDX-License-Identifier: MIT
// More packets than the daemon takes: every sender is told once, by someone.
#include "twin_fixture.h"

namespace twin {

namespace {

using Rate = TwinTest;

TEST_F(Rate, EveryPacketOfABurstIsToldOfOnceByTheDaemonOrTheKernel) {
    Twins twins(run);
    for (int i = 0; i < 2000; ++i) {
        twins.send(Ipv4{.size = 1401});
        twins.send(Ipv6{.size = 1401});
    }
    const Comparison result = twins.compare(false);
    EXPECT_EQ(result.told, 4000U);
    expectNoDifference(result);
}

TEST_F(Rate, EveryPacketOfABurstFromSeveralVlansIsToldOfOnce) {
    Twins twins(run);
    for (int i = 0; i < 800; ++i) {
        twins.send(Ipv4{.size = 1450});
        twins.send(Ipv4{.size = 1450, .from = "10.0.30.2"}, {.from = "c"});
        twins.send(Ipv6{.size = 1450, .from = "2001:db8:30::2"}, {.from = "c"});
        twins.send(Ipv4{.size = 1400});
    }
    const Comparison result = twins.compare(false);
    EXPECT_EQ(result.told, 2400U);
    EXPECT_EQ(result.forwarded, 800U);
    expectNoDifference(result);
}

// Identical packets: which message is about which, nobody can tell.
TEST_F(Rate, EveryOneOfABurstOfIdenticalPacketsIsToldOf) {
    Twins twins(run);
    for (int i = 0; i < 1000; ++i) twins.send(Ipv6{.flowLabel = 7});
    const Comparison result = twins.compare(false);
    EXPECT_EQ(result.told, 1000U);
    expectNoDifference(result);
}

}  // namespace

}  // namespace twin
