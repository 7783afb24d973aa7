// SPDX-License-Identifier: MIT
// Tests of the queries to the switch configuration and of which answers are valid.
#include <type_traits>

#include "engine_test.h"

namespace engine_test {
namespace {

constexpr int kLeast = std::numeric_limits<int>::min();
constexpr int kMost = std::numeric_limits<int>::max();

// The accessor.

static_assert(std::is_empty_v<VlanConfig>, "no fields, no virtual operations");
static_assert(std::is_trivially_default_constructible_v<VlanConfig> &&
              std::is_trivially_destructible_v<VlanConfig>);
static_assert(std::is_same_v<decltype(&VlanConfig::getDestVlan), int (VlanConfig::*)(int)>);
static_assert(std::is_same_v<decltype(&VlanConfig::getVlanMtu), uint32_t (VlanConfig::*)(int)>);
static_assert(std::is_same_v<decltype(&VlanConfig::logModuleId), uint32_t (VlanConfig::*)()>);

class VlanConfigTest : public EngineTest {};

TEST_F(VlanConfigTest, PassesQuestionsOnAndAnswersBackUnchanged) {
    for (const int answer : {kLeast, -1, 0, 4095, kMost}) {
        answerVlan(answer);
        EXPECT_EQ(cfg.getDestVlan(kLeast), answer);
        fake::fail("cfg_vlan_l3_get_mtu_vlan", {answer});
        EXPECT_EQ(cfg.getMtuVlan(4095), answer);
        EXPECT_EQ(last(fake::platform().calls), "cfg_vlan_l3_get_mtu_vlan(4095)");
    }
    for (const uint32_t answer : {0U, 575U, 16384U, 4294967295U}) {
        answerMtu(answer);
        EXPECT_EQ(cfg.getVlanMtu(-1), answer);
    }
    EXPECT_EQ(fake::platform().calls.front(), "cfg_vlan_l3_get_dest_vlan(-2147483648)");
    EXPECT_EQ(last(fake::platform().calls), "cfg_vlan_l3_get_mtu(-1)");
}

TEST_F(VlanConfigTest, LogsUnderModule89WithoutAQuery) {
    EXPECT_EQ(cfg.logModuleId(), 89U);
    EXPECT_EQ(fake::platform().calls, Lines{});
}

// The questions for a frame.

/// The calls to the configuration service.
Lines questions() {
    Lines asked;
    for (const std::string& call : fake::platform().calls) {
        if (call.starts_with("cfg_")) asked.push_back(call);
    }
    return asked;
}

struct Family {
    const char* name;
    Bytes frame;
};

std::vector<Family> families() { return {{"Ipv4", ipv4Frame()}, {"Ipv6", ipv6Frame(8)}}; }

class ResolutionTest : public EngineTest, public testing::WithParamInterface<Family> {
 protected:
    bool isAnswered() {
        const size_t before = messages();
        const bool answered = handle(GetParam().frame);
        EXPECT_EQ(messages() - before, answered ? 1U : 0U);
        return answered;
    }
    const bool isIpv4 = GetParam().frame[16] == 0x08;
};

INSTANTIATE_TEST_SUITE_P(Families, ResolutionTest, testing::ValuesIn(families()), kCaseName);

TEST_P(ResolutionTest, AsksAgainForEachFrameByItsEgress) {
    EXPECT_TRUE(isAnswered());
    adapter.setFrameInfo(1, 2, 3, 4, 5, -2147483647);
    answerVlan(200);
    EXPECT_TRUE(isAnswered());
    EXPECT_EQ(questions(),
              (Lines{"cfg_vlan_l3_get_dest_vlan(77)", "cfg_vlan_l3_get_mtu(100)",
                     "cfg_vlan_l3_get_dest_vlan(-2147483647)", "cfg_vlan_l3_get_mtu(200)"}));
}

TEST_P(ResolutionTest, AppliesAChangedMtuFromTheNextFrameOn) {
    EXPECT_TRUE(isAnswered());
    EXPECT_EQ(texts().at(6), " PMTUD-Prot:    Dest VLAN MTU: 1500");
    answerMtu(1400);
    EXPECT_TRUE(isAnswered());
    EXPECT_EQ(texts().at(15), " PMTUD-Prot:    Dest VLAN MTU: 1400");
    answerMtu(0);
    EXPECT_FALSE(isAnswered());
}

// Which answers are valid. Some of the others are valid in their low 12, 16 or 31 bits.

TEST_P(ResolutionTest, TakesNumbersFrom1To4094AsAVlan) {
    for (const int vlan : {1, 2, 100, 4093, 4094}) {
        answerVlan(vlan);
        EXPECT_TRUE(isAnswered()) << vlan;
        EXPECT_EQ(last(questions()), "cfg_vlan_l3_get_mtu(" + std::to_string(vlan) + ")");
    }
}

TEST_P(ResolutionTest, RefusesOtherVlansAndDoesNotAskForTheirMtu) {
    for (const int vlan : {0, 4095, 4096, 8192, 8292, 65536, 65546, -1, -4094, -65535, kLeast,
                           kLeast + 100, kMost}) {
        answerVlan(vlan);
        EXPECT_FALSE(isAnswered()) << vlan;
        EXPECT_EQ(last(questions()), "cfg_vlan_l3_get_dest_vlan(77)");
        const std::string text = std::to_string(vlan);
        EXPECT_EQ(last(texts()),
                  isIpv4 ? " PMTUD-Prot: Invalid VLAN ID - VLAN ID: " + text + " Egress: 77"
                         : " PMTUD-Prot: Invalid VLAN ID: " + text + "(Egress ID: 77)");
    }
    EXPECT_EQ(fake::syscalls().calls, Lines{});
}

TEST_P(ResolutionTest, TakesNumbersFrom576To16383AsAnMtu) {
    for (const uint32_t mtu : {576U, 577U, 1279U, 1280U, 1500U, 1501U, 9000U, 16382U, 16383U}) {
        answerMtu(mtu);
        EXPECT_TRUE(isAnswered()) << mtu;
    }
}

TEST_P(ResolutionTest, RefusesOtherMtusAndOpensNoSocket) {
    for (const uint32_t mtu : {0U, 575U, 16384U, 32767U, 33344U, 65535U, 66112U, 67036U,
                               2147483647U, 2147483648U, 2147485148U, 4294966720U, 4294967295U}) {
        answerMtu(mtu);
        EXPECT_FALSE(isAnswered()) << mtu;
        const std::string text = std::to_string(mtu);
        EXPECT_EQ(
            last(texts()),
            isIpv4 ? " PMTUD-Prot: Invalid VLAN MTU - VLAN ID: 100 Egress: 77 VLAN MTU: " + text
                   : " PMTUD-Prot: Invalid VLAN MTU: " + text + " (VLAN ID : 100 Egress ID: 77)");
    }
    EXPECT_EQ(fake::syscalls().calls, Lines{});
}

}  // namespace
}  // namespace engine_test
