// SPDX-License-Identifier: MIT
// Tests of the questions to the switch configuration and of what counts as an answer.
#include <limits>
#include <type_traits>

#include "engine_test.h"

namespace {

using engine_test::Bytes;
using engine_test::EngineTest;
using engine_test::FreshFakes;
using engine_test::ipv4Frame;
using engine_test::ipv6Frame;
using engine_test::last;
using engine_test::Lines;
using engine_test::logAt;

// The accessor.

static_assert(std::is_empty_v<VlanConfig>, "no fields, no virtual operations");
static_assert(std::is_trivially_default_constructible_v<VlanConfig> &&
                  std::is_trivially_destructible_v<VlanConfig>,
              "neither beginning nor end does anything");
static_assert(std::is_same_v<decltype(&VlanConfig::getDestVlan), int (VlanConfig::*)(int)>);
static_assert(std::is_same_v<decltype(&VlanConfig::getVlanMtu), uint32_t (VlanConfig::*)(int)>);
static_assert(std::is_same_v<decltype(&VlanConfig::logModuleId), uint32_t (VlanConfig::*)()>);

constexpr int kSmallest = std::numeric_limits<int>::min();
constexpr int kLargest = std::numeric_limits<int>::max();

class VlanConfigTest : public testing::Test {
 protected:
    FreshFakes fakes;
    VlanConfig cfg;
};

TEST_F(VlanConfigTest, AsksForTheDestinationVlanOfAnEgress) {
    EXPECT_EQ(cfg.getDestVlan(77), 100);
    cfg.getDestVlan(kSmallest);
    EXPECT_EQ(fake::platform().calls,
              (Lines{"cfg_vlan_l3_get_dest_vlan(77)", "cfg_vlan_l3_get_dest_vlan(-2147483648)"}));
}

TEST_F(VlanConfigTest, HandsTheDestinationVlanBackUnchanged) {
    for (const int answer : {kSmallest, -1, 0, 4095, kLargest}) {
        fake::platform().destVlan = [answer](int) { return answer; };
        EXPECT_EQ(cfg.getDestVlan(77), answer);
    }
}

TEST_F(VlanConfigTest, AsksForTheMtuOfAVlan) {
    EXPECT_EQ(cfg.getVlanMtu(100), 1500U);
    cfg.getVlanMtu(-1);
    EXPECT_EQ(fake::platform().calls,
              (Lines{"cfg_vlan_l3_get_mtu(100)", "cfg_vlan_l3_get_mtu(-1)"}));
}

TEST_F(VlanConfigTest, HandsTheMtuBackUnchanged) {
    for (const uint32_t answer : {0U, 575U, 16384U, 4294967295U}) {
        fake::platform().vlanMtu = [answer](int) { return answer; };
        EXPECT_EQ(cfg.getVlanMtu(100), answer);
    }
}

TEST_F(VlanConfigTest, AsksForTheMtuVlan) {
    fake::platform().mtuVlan = [](int) { return -19; };
    EXPECT_EQ(cfg.getMtuVlan(4095), -19);
    EXPECT_EQ(fake::platform().calls, Lines{"cfg_vlan_l3_get_mtu_vlan(4095)"});
}

TEST_F(VlanConfigTest, LogsUnderModule89WithoutAsking) {
    EXPECT_EQ(cfg.logModuleId(), 89U);
    EXPECT_EQ(fake::platform().calls, Lines{});
}

// The order of the questions, and what they are asked with.

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
    Bytes (*frame)();
};

const Family kFamilies[] = {{"Ipv4", [] { return ipv4Frame(); }},
                            {"Ipv6", [] { return ipv6Frame(8); }}};

class ResolutionTest : public EngineTest, public testing::WithParamInterface<Family> {
 protected:
    bool handleOne() { return handle(GetParam().frame()); }
};

INSTANTIATE_TEST_SUITE_P(Families, ResolutionTest, testing::ValuesIn(kFamilies),
                         [](const auto& row) { return row.param.name; });

TEST_P(ResolutionTest, AsksForTheVlanOfTheEgressAndThenForThatVlansMtu) {
    handleOne();
    EXPECT_EQ(questions(), (Lines{"cfg_vlan_l3_get_dest_vlan(77)", "cfg_vlan_l3_get_mtu(100)"}));
}

TEST_P(ResolutionTest, AsksWithTheEgressOfTheFrameInHand) {
    adapter.setFrameInfo(1, 2, 3, 4, 5, -2147483647);
    handleOne();
    EXPECT_EQ(questions().at(0), "cfg_vlan_l3_get_dest_vlan(-2147483647)");
}

TEST_P(ResolutionTest, AsksAfreshForEachFrame) {
    handleOne();
    handleOne();
    EXPECT_EQ(questions(), (Lines{"cfg_vlan_l3_get_dest_vlan(77)", "cfg_vlan_l3_get_mtu(100)",
                                  "cfg_vlan_l3_get_dest_vlan(77)", "cfg_vlan_l3_get_mtu(100)"}));
}

TEST_P(ResolutionTest, HasAChangedMtuInForceFromTheNextFrameOn) {
    handleOne();
    answerMtu(1400);
    handleOne();
    Lines mtus;
    for (const std::string& text : fake::platform().debugTexts()) {
        if (text.starts_with(" PMTUD-Prot:    Dest VLAN MTU")) mtus.push_back(text);
    }
    EXPECT_EQ(mtus, (Lines{" PMTUD-Prot:    Dest VLAN MTU: 1500",
                           " PMTUD-Prot:    Dest VLAN MTU: 1400"}));
}

TEST_P(ResolutionTest, HasAnMtuThatBecameInvalidInForceFromTheNextFrameOn) {
    EXPECT_TRUE(handleOne());
    answerMtu(0);
    EXPECT_FALSE(handleOne());
}

TEST_P(ResolutionTest, HasAnotherVlanInForceFromTheNextFrameOn) {
    handleOne();
    answerVlan(200);
    handleOne();
    EXPECT_EQ(last(questions()), "cfg_vlan_l3_get_mtu(200)");
}

TEST_P(ResolutionTest, LeavesTheDiscardInForceWhereItFails) {
    answerVlan(0);
    adapter.setPostAction(SHM_Wrapper::eAccept);
    Bytes frame = GetParam().frame();
    EXPECT_EQ(adapter.handleFrame(frame.data(), frame.size()), 7);
}

TEST_P(ResolutionTest, IsSilentOnTheFileChannelAtInfo) {
    answerVlan(0);
    EXPECT_EQ(logAt(qv::INFO, [this] { handleOne(); }), Lines{});
}

// Which answers are valid.

template <typename Value>
struct Answer {
    const char* name;
    Value value;
};
using VlanCase = std::tuple<Family, Answer<int>>;
using MtuCase = std::tuple<Family, Answer<uint32_t>>;

const auto kCaseName = [](const auto& row) {
    return std::string(std::get<0>(row.param).name) + std::get<1>(row.param).name;
};

class ValidVlanTest : public EngineTest, public testing::WithParamInterface<VlanCase> {};

TEST_P(ValidVlanTest, HasItsMtuAskedForAndTheFrameAnswered) {
    const auto& [family, vlan] = GetParam();
    answerVlan(vlan.value);
    EXPECT_TRUE(handle(family.frame()));
    EXPECT_EQ(questions(), (Lines{"cfg_vlan_l3_get_dest_vlan(77)",
                                  "cfg_vlan_l3_get_mtu(" + std::to_string(vlan.value) + ")"}));
    EXPECT_EQ(fake::syscalls().sent.size() + fake::platform().icmp6Messages.size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    Vlans, ValidVlanTest,
    testing::Combine(testing::ValuesIn(kFamilies),
                     testing::Values(Answer<int>{"Vlan1", 1}, Answer<int>{"Vlan2", 2},
                                     Answer<int>{"Vlan4093", 4093}, Answer<int>{"Vlan4094", 4094})),
    kCaseName);

class InvalidVlanTest : public EngineTest, public testing::WithParamInterface<VlanCase> {};

TEST_P(InvalidVlanTest, HasNoMtuAskedForAndTheFrameNotAnswered) {
    const auto& [family, vlan] = GetParam();
    answerVlan(vlan.value);
    EXPECT_FALSE(handle(family.frame()));
    EXPECT_EQ(fake::platform().calls, Lines{"cfg_vlan_l3_get_dest_vlan(77)"});
    EXPECT_EQ(fake::syscalls().calls, Lines{});
}

INSTANTIATE_TEST_SUITE_P(
    Vlans, InvalidVlanTest,
    testing::Combine(testing::ValuesIn(kFamilies),
                     testing::Values(Answer<int>{"Vlan0", 0}, Answer<int>{"Vlan4095", 4095},
                                     Answer<int>{"Vlan4096", 4096}, Answer<int>{"Vlan65546", 65546},
                                     Answer<int>{"VlanMinus1", -1},
                                     Answer<int>{"VlanMinus65535", -65535},
                                     Answer<int>{"TheSmallestVlan", kSmallest},
                                     Answer<int>{"TheLargestVlan", kLargest})),
    kCaseName);

class ValidMtuTest : public EngineTest, public testing::WithParamInterface<MtuCase> {};

TEST_P(ValidMtuTest, HasTheFrameAnswered) {
    const auto& [family, mtu] = GetParam();
    answerMtu(mtu.value);
    EXPECT_TRUE(handle(family.frame()));
    EXPECT_EQ(fake::syscalls().sent.size() + fake::platform().icmp6Messages.size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Mtus, ValidMtuTest,
                         testing::Combine(testing::ValuesIn(kFamilies),
                                          testing::Values(Answer<uint32_t>{"Mtu576", 576},
                                                          Answer<uint32_t>{"Mtu577", 577},
                                                          Answer<uint32_t>{"Mtu1279", 1279},
                                                          Answer<uint32_t>{"Mtu1280", 1280},
                                                          Answer<uint32_t>{"Mtu1501", 1501},
                                                          Answer<uint32_t>{"Mtu9000", 9000},
                                                          Answer<uint32_t>{"Mtu16382", 16382},
                                                          Answer<uint32_t>{"Mtu16383", 16383})),
                         kCaseName);

class InvalidMtuTest : public EngineTest, public testing::WithParamInterface<MtuCase> {};

TEST_P(InvalidMtuTest, HasTheFrameNotAnswered) {
    const auto& [family, mtu] = GetParam();
    answerMtu(mtu.value);
    EXPECT_FALSE(handle(family.frame()));
    EXPECT_EQ(fake::platform().calls,
              (Lines{"cfg_vlan_l3_get_dest_vlan(77)", "cfg_vlan_l3_get_mtu(100)"}));
    EXPECT_EQ(fake::syscalls().calls, Lines{});
}

// 67036 and 2147485148 are 1500 in their low 16 and 31 bits.
INSTANTIATE_TEST_SUITE_P(
    Mtus, InvalidMtuTest,
    testing::Combine(testing::ValuesIn(kFamilies),
                     testing::Values(Answer<uint32_t>{"Mtu0", 0}, Answer<uint32_t>{"Mtu575", 575},
                                     Answer<uint32_t>{"Mtu16384", 16384},
                                     Answer<uint32_t>{"Mtu67036", 67036},
                                     Answer<uint32_t>{"Mtu2147485148", 2147485148U},
                                     Answer<uint32_t>{"Mtu4294967295", 4294967295U})),
    kCaseName);

// The line of a successful resolution.

class ResolvedLineTest : public EngineTest {};

TEST_F(ResolvedLineTest, ShowsMtuAndTagVlanForIpv4) {
    answerMtu(9000);
    const Lines lines = logAt(qv::DEBUG, [this] { reply4(ipv4Frame()); });
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines.at(2),
              "14:03:07.2 DEBUG: [PMTUDApp:127 | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, "
              "size_t)] MTU VLAN: 9000 VLAN:20\r\n");
}

TEST_F(ResolvedLineTest, ShowsMtuAndTagVlanForIpv6) {
    answerMtu(9000);
    const Lines lines = logAt(qv::DEBUG, [this] { reply6(ipv6Frame(8)); });
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_EQ(lines.at(2),
              "14:03:07.2 DEBUG: [PMTUDApp:223 | bool PMTUDApp::sendICMP6PacketTooBig(const "
              "uint8_t&, size_t)] MTU VLAN: 9000 VLAN:20\r\n");
}

}  // namespace
