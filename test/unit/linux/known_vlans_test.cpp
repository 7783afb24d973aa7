// SPDX-License-Identifier: MIT
// The VLAN of an interface on a thread that keeps a table of them.
#include "known_vlans.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>

#include "calls.h"
#include "interface_vlan.h"
#include "link.h"
#include "world.h"

using pmtud_linux::KnownVlans;
using pmtud_linux::vlanOfInterface;

// The interface's own name is fence, its alternative name bcm0.40.
class InterfaceOfAKnownVlan : public World {
 protected:
    void SetUp() override {
        World::SetUp();
        run("ip link property add dev fence altname bcm0.40");
        link.ifindex = if_nametoindex("fence");
        link.name = "fence";
        link.ethernet = true;
        link.alternativeNames = {"bcm0.40"};
        socketForNames.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    }

    int vlan() const {
        return vlanOfInterface(socketForNames.get(), static_cast<int>(link.ifindex));
    }

    pmtud_linux::Descriptor socketForNames;
    pmtud_linux::Link link;
    pmtud_linux::VlanTable table;
};

TEST_F(InterfaceOfAKnownVlan, IsThatVlanWhileTheKernelHasTheName) {
    table.apply(link);
    const KnownVlans known(table);
    EXPECT_EQ(vlan(), 40);
    run("ip link property del dev fence altname bcm0.40");
    EXPECT_EQ(vlan(), 0);
}

TEST_F(InterfaceOfAKnownVlan, IsNotThatVlanIfAnotherInterfaceHasTakenTheName) {
    table.apply(link);
    const KnownVlans known(table);
    run("ip link property del dev fence altname bcm0.40");
    run("ip link property add dev bcm0.30 altname bcm0.40");
    EXPECT_EQ(vlan(), 0);
}

TEST_F(InterfaceOfAKnownVlan, FallsBackToItsOwnName) {
    link.name = "bcm0.50";
    table.apply(link);
    const KnownVlans known(table);
    run("ip link set fence down && ip link set fence name bcm0.50");
    EXPECT_EQ(vlan(), 40);
    run("ip link property del dev bcm0.50 altname bcm0.40");
    EXPECT_EQ(vlan(), 50);
}

// Asking the kernel could take long.
TEST_F(InterfaceOfAKnownVlan, IsLookedUpOnlyInTheTable) {
    {
        const KnownVlans known(table);
        EXPECT_EQ(vlan(), 0);
    }
    EXPECT_EQ(vlan(), 40);
}

TEST_F(InterfaceOfAKnownVlan, FallsBackToItsOwnNameIfTheKernelCannotBeAsked) {
    run("ip link property add dev fence altname bcm0.1");
    EXPECT_EQ(vlan(), 1);
    calls.netlinkBind = failing(ENOBUFS);
    EXPECT_EQ(vlan(), 0);
    calls = real;
    calls.netlinkSend = failing(ENOBUFS);
    EXPECT_EQ(vlan(), 0);
    calls = real;
}

TEST_F(InterfaceOfAKnownVlan, HasNoVlanOnceItIsGone) {
    table.apply(link);
    const KnownVlans known(table);
    run("ip link del fence");
    EXPECT_EQ(vlan(), 0);
}
