// SPDX-License-Identifier: MIT
// All 4,094 VLANs at once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "client.h"
#include "world.h"

namespace {

size_t occurrences(const std::string& piece) {
    const std::string rules = output("nft list table inet pmtud");
    size_t count = 0;
    for (size_t at = rules.find(piece); at != rules.npos; at = rules.find(piece, at + 1)) ++count;
    return count;
}

}  // namespace

class AllVlans : public World {
 protected:
    void SetUp() override {
        World::SetUp();
        // In pairs, each the peer of the one before it; the world's own VLANs already exist.
        std::string commands;
        bool isPeer = false;
        for (int vlan = 1; vlan <= 4094; ++vlan) {
            if (vlan == 10 || vlan == 20 || vlan == 30) continue;
            commands +=
                (isPeer ? " type veth peer name bcm0." : "\nlink add bcm0.") + std::to_string(vlan);
            isPeer = !isPeer;
        }
        batch(commands + " type veth peer name odd\n");
    }
};

TEST_F(AllVlans, AreServedAtOnceFollowedOneByOneOrTogetherAndTakeLittleMemory) {
    Client client;
    EXPECT_EQ(occurrences("chain to-bcm0."), 4094U);
    for (const std::string mtu : {"1400", "1280"}) changeRules("ip link set bcm0.20 mtu " + mtu);
    send(bytesOf(Ipv4{}));
    EXPECT_EQ(client.next().frame.size(), 1518U);
    {
        RuleChanges changes;
        run("ip link set group default mtu 1200");
        // The order and the number of the changes are undefined; the last state counts.
        while (occurrences("meta length <= 1200 accept\n\t\tjump candidate") < 4094)
            changes.await();
    }
// A sanitizer keeps what was freed.
#if !defined(PMTUD_SANITIZED)
    // In KiB. If the C library kept what was freed, it would be over 90,000.
    await("the memory to be given back", [&] { return client.anonymousMemory() <= 48L * 1024; });
#endif
}

// Each MTU has its own maps and chains.
TEST_F(AllVlans, MayAllHaveDifferentMtus) {
    std::string commands;
    for (int vlan = 1; vlan <= 4094; ++vlan)
        commands += "link set bcm0." + std::to_string(vlan) + " mtu " +
                    std::to_string(vlan == 10 ? 4700 : 576 + vlan) + "\n";
    batch(commands);
    Client client;
    changeRules("ip link set bcm0.20 mtu 5000");
    sendFence();
    EXPECT_EQ(client.next().frame.size(), 1019U);
    EXPECT_EQ(handedOver("bcm0.30"), 1U);
}
