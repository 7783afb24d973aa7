// SPDX-License-Identifier: MIT
// Beyond the daemon's limits, every packet is still answered once, by the daemon or by the kernel.
#include "twin_fixture.h"

namespace twin {
namespace {

TEST(Rate, SendersOfABurstAreToldOncePerPacketByTheDaemonOrTheKernel) {
    const uint64_t byDaemon = expectTold("v46 size=1401 times=2000", 4000).answers;
    EXPECT_GT(byDaemon, 100U);
    EXPECT_LT(byDaemon, 4000U);
}

TEST(Rate, SendersOfABurstFromSeveralVlansAreToldOncePerPacket) {
    std::string lines;
    for (int i = 0; i < 40; ++i)
        lines += "v4 size=1400|1450 times=20\nv46 size=1450 host=c times=20\n";
    EXPECT_EQ(expectTold(lines, 2400).forwarded, 800U);
}

// Nothing shows which message is about which of the identical packets.
TEST(Rate, SenderOfABurstOfIdenticalPacketsIsToldOncePerPacket) {
    expectTold("v6 id=7 times=1000", 1000);
}

}  // namespace
}  // namespace twin
