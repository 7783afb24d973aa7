// SPDX-License-Identifier: MIT
// The configuration service's answers, from the kernel's interfaces, and the registration.
#include "cfg.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "world.h"

namespace {

constexpr const char* kRecord = "/run/pmtud.registered";

std::string recorded() { return output(std::string("cat ") + kRecord); }

}  // namespace

class Configuration : public World {
 protected:
    void SetUp() override {
        World::SetUp();
        unlink(kRecord);
    }
};

TEST_F(Configuration, AnswersNothingBeforeItIsAttached) {
    inOwnProcess([] {
        EXPECT_EQ(cfg_vlan_l3_get_dest_vlan(indexOf("bcm0.20")), -1);
        EXPECT_EQ(cfg_vlan_l3_get_mtu(20), 0U);
        EXPECT_EQ(cfg_vlan_l3_get_mtu_vlan(20), -1);
        EXPECT_EQ(cfg_init(), 0);
        EXPECT_EQ(cfg_vlan_l3_get_dest_vlan(indexOf("bcm0.20")), 20);
    });
}

TEST_F(Configuration, HasOneSocketThatNoOtherProgramInherits) {
    inOwnProcess([] {
        // The socket gets the lowest free number.
        close(STDIN_FILENO);
        ASSERT_EQ(cfg_init(), 0);
        EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), FD_CLOEXEC);
        const int next = dup(STDERR_FILENO);
        close(next);
        EXPECT_EQ(cfg_init(), 0);
        EXPECT_EQ(dup(STDERR_FILENO), next);
    });
}

TEST_F(Configuration, KnowsWhichInterfaceIsWhichVlan) {
    run("ip link add bcm0.0 type veth peer name bcm0.4095");
    inOwnProcess([] {
        ASSERT_EQ(cfg_init(), 0);
        EXPECT_EQ(cfg_init(), 0);
        EXPECT_EQ(cfg_vlan_l3_get_dest_vlan(indexOf("bcm0.10")), 10);
        EXPECT_EQ(cfg_vlan_l3_get_dest_vlan(indexOf("bcm0.20")), 20);
        for (const int index : {indexOf("lo"), indexOf("fence"), indexOf("bcm0.0"), 0, -1, 9999})
            EXPECT_EQ(cfg_vlan_l3_get_dest_vlan(index), -1) << index;
        for (const int vlan : {0, -1, 4095, 4096, 21}) {
            EXPECT_EQ(cfg_vlan_l3_get_mtu(vlan), 0U) << vlan;
            EXPECT_EQ(cfg_vlan_l3_get_mtu_vlan(vlan), -1) << vlan;
        }
        EXPECT_EQ(cfg_vlan_l3_get_mtu_vlan(10), 10);
        EXPECT_EQ(updateTZ(), 0);
    });
}

TEST_F(Configuration, KnowsTheMtusOfTheFirstAndTheLastVlan) {
    run("ip link add bcm0.1 mtu 1111 type veth peer name bcm0.4094 mtu 1222");
    inOwnProcess([] {
        ASSERT_EQ(cfg_init(), 0);
        EXPECT_EQ(cfg_vlan_l3_get_mtu(1), 1111U);
        EXPECT_EQ(cfg_vlan_l3_get_mtu(4094), 1222U);
    });
}

TEST_F(Configuration, KnowsTheCurrentMtuOfAVlan) {
    inOwnProcess([] {
        ASSERT_EQ(cfg_init(), 0);
        EXPECT_EQ(cfg_vlan_l3_get_mtu(10), 1500U);
        EXPECT_EQ(cfg_vlan_l3_get_mtu(20), 1280U);
        run("ip link set bcm0.20 mtu 1400");
        EXPECT_EQ(cfg_vlan_l3_get_mtu(20), 1400U);
        run("ip link del bcm0.20");
        EXPECT_EQ(cfg_vlan_l3_get_mtu(20), 0U);
    });
}

TEST_F(Configuration, ReplacesAnExistingRecordOrLinkAndDoesNotWriteThroughIt) {
    for (const bool isLink : {false, true}) {
        unlink(kRecord);
        if (isLink)
            ASSERT_EQ(symlink("/run/victim", kRecord), 0);
        else
            std::ofstream(kRecord) << "1\n";
        inOwnProcess([] {
            ASSERT_EQ(cfg_add_pid("pmtud"), 0);
            EXPECT_NE(access("/run/victim", F_OK), 0);
            EXPECT_EQ(recorded(), std::to_string(getpid()) + "\n");
        });
    }
}

TEST_F(Configuration, LeavesTheRecordOfAnotherProcessAlone) {
    inOwnProcess([] {
        ASSERT_EQ(cfg_add_pid("pmtud"), 0);
        std::ofstream(kRecord) << "1\n";
        EXPECT_EQ(cfg_clear_pid(), -EEXIST);
        EXPECT_EQ(recorded(), "1\n");
    });
}

TEST_F(Configuration, ReportsARecordThatIsGoneOrCannotBeRead) {
    inOwnProcess([] {
        ASSERT_EQ(cfg_add_pid("pmtud"), 0);
        unlink(kRecord);
        EXPECT_EQ(cfg_clear_pid(), -ENOENT);
        std::ofstream(kRecord, std::ios::trunc).close();
        EXPECT_EQ(cfg_clear_pid(), -EEXIST);
        unlink(kRecord);
        ASSERT_EQ(mkdir(kRecord, 0700), 0);
        EXPECT_EQ(cfg_clear_pid(), -EISDIR);
        rmdir(kRecord);
    });
}

TEST_F(Configuration, LeavesNoDraftBehind) {
    const std::string before = output("ls -A /run");
    inOwnProcess([] {
        // A process with this PID died before it had finished.
        std::ofstream("/run/.pmtud." + std::to_string(getpid())) << "half";
        ASSERT_EQ(cfg_add_pid("pmtud"), 0);
        EXPECT_EQ(cfg_clear_pid(), 0);
    });
    EXPECT_EQ(output("ls -A /run"), before);
}

TEST_F(Configuration, LeavesNothingOfARecordThatDoesNotFit) {
    const std::string before = output("ls -A /run");
    inOwnProcess([] {
        const rlimit threeBytes{3, 3};
        setrlimit(RLIMIT_FSIZE, &threeBytes);
        EXPECT_EQ(cfg_add_pid("pmtud"), -EIO);
    });
    EXPECT_EQ(output("ls -A /run"), before);
}

TEST_F(Configuration, RegistersOnlyUnderAPlainName) {
    inOwnProcess([] {
        EXPECT_EQ(cfg_add_pid(nullptr), -EINVAL);
        EXPECT_EQ(cfg_add_pid(""), -EINVAL);
        EXPECT_EQ(cfg_add_pid("../etc/passwd"), -EINVAL);
        EXPECT_EQ(cfg_add_pid(".."), -EINVAL);
        EXPECT_EQ(cfg_add_pid(".pmtud"), -EINVAL);
        EXPECT_EQ(cfg_add_pid(std::string(200, 'x').c_str()), -ENAMETOOLONG);
        EXPECT_EQ(cfg_clear_pid(), -ENOENT);
    });
}
