// SPDX-License-Identifier: MIT
// The rules as text.
#include "ruleset.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using pmtud_linux::changeText;
using pmtud_linux::leaveToKernelText;
using pmtud_linux::tableText;
using pmtud_linux::Vlans;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

// What the first VLAN with an MTU adds: the maps of copied headers, and the chains that look
// refused packets up in them.
constexpr char kAdd1280[] =
    R"(add map inet pmtud copied4-1280 { typeof @nh,96,64 . @nh,160,64 : meta mark; size 8192; flags dynamic,timeout; timeout 100ms; }
add chain inet pmtud refused4-1280
add rule inet pmtud refused4-1280 @th,160,64 . @th,224,64 != @copied4-1280 accept
add rule inet pmtud refused4-1280 jump withdrawable
add rule inet pmtud refused4-1280 meta mark set @th,160,64 . @th,224,64 map @copied4-1280
add rule inet pmtud refused4-1280 goto handed-over
add element inet pmtud refused4 { 1280 : goto refused4-1280 }
add map inet pmtud copied4o-1280 { typeof @nh,96,32 . @nh,128,32 . @nh,16,64 : meta mark; size 8192; flags dynamic,timeout; timeout 100ms; }
add chain inet pmtud refused4o-1280
add rule inet pmtud refused4o-1280 @th,160,32 . @th,192,32 . @th,80,64 != @copied4o-1280 accept
add rule inet pmtud refused4o-1280 jump withdrawable
add rule inet pmtud refused4o-1280 meta mark set @th,160,32 . @th,192,32 . @th,80,64 map @copied4o-1280
add rule inet pmtud refused4o-1280 goto handed-over
add element inet pmtud refused4o { 1280 : goto refused4o-1280 }
add map inet pmtud copied6-1280 { typeof @nh,224,32 . @nh,288,32 . @nh,320,64 : meta mark; size 8192; flags dynamic,timeout; timeout 100ms; }
add chain inet pmtud refused6-1280
add rule inet pmtud refused6-1280 @th,288,32 . @th,352,32 . @th,384,64 != @copied6-1280 accept
add rule inet pmtud refused6-1280 jump withdrawable
add rule inet pmtud refused6-1280 meta mark set @th,288,32 . @th,352,32 . @th,384,64 map @copied6-1280
add rule inet pmtud refused6-1280 goto handed-over
add element inet pmtud refused6 { 1280 : goto refused6-1280 }
)";

constexpr char kSmallest1280[] = R"(flush chain inet pmtud fits-every-vlan
add rule inet pmtud fits-every-vlan meta length <= 1280 accept
)";

constexpr char kFlushFits[] = "flush chain inet pmtud fits-every-vlan\n";

constexpr char kRemove1280[] = R"(delete element inet pmtud refused4 { 1280 }
delete chain inet pmtud refused4-1280
delete map inet pmtud copied4-1280
delete element inet pmtud refused4o { 1280 }
delete chain inet pmtud refused4o-1280
delete map inet pmtud copied4o-1280
delete element inet pmtud refused6 { 1280 }
delete chain inet pmtud refused6-1280
delete map inet pmtud copied6-1280
)";

// The rules of VLAN 20's chain.
constexpr char kChain20[] = R"(add rule inet pmtud to-bcm0.20 meta length <= 1280 accept
add rule inet pmtud to-bcm0.20 jump candidate
add rule inet pmtud to-bcm0.20 ip hdrlength 5 update @copied4-1280 { @nh,96,64 . @nh,160,64 : 20 } log prefix "pmtud:20" group 89 snaplen 1500
add rule inet pmtud to-bcm0.20 ip hdrlength 6-13 update @copied4o-1280 { @nh,96,32 . @nh,128,32 . @nh,16,64 : 20 } log prefix "pmtud:20" group 89 snaplen 1500
add rule inet pmtud to-bcm0.20 meta nfproto ipv6 update @copied6-1280 { @nh,224,32 . @nh,288,32 . @nh,320,64 : 20 } log prefix "pmtud:20" group 89 snaplen 1500
)";

// Its interface has the index 7.
const std::string kAddVlan20 =
    R"(add element inet pmtud vlans { "0000000000000007" }
add counter inet pmtud bcm0.20
add element inet pmtud counters { 20 : "bcm0.20" }
add chain inet pmtud to-bcm0.20
)" + std::string(kChain20) +
    R"(add element inet pmtud egress { "0000000000000007" : goto to-bcm0.20 }
)";

constexpr char kRemoveVlan20[] = R"(delete element inet pmtud vlans { "0000000000000007" }
delete element inet pmtud egress { "0000000000000007" }
delete chain inet pmtud to-bcm0.20
delete element inet pmtud counters { 20 }
delete counter inet pmtud bcm0.20
)";

// The text with another number, or another name, throughout.
std::string with(std::string text, const std::string& before, const std::string& after) {
    for (size_t at = 0; (at = text.find(before, at)) != text.npos; at += after.size())
        text.replace(at, before.size(), after);
    return text;
}

const std::string kFlush20 = "flush chain inet pmtud to-bcm0.20\n";

}  // namespace

TEST(RuleText, OfTheTableBelongsToTheProcess) {
    EXPECT_THAT(tableText(), StartsWith("table inet pmtud {\n    flags owner\n"));
}

TEST(RuleText, OfTheTableLooksUpTheEgressOnlyForLongPacketsFromVlans) {
    EXPECT_THAT(tableText(), HasSubstr(R"(    chain prerouting {
        type filter hook prerouting priority 350; policy accept;
        jump fits-every-vlan
        iif @enough-copies accept comment "spares bulk traffic the rest"
        iif != @vlans accept
        fib daddr . mark oif vmap @egress
    }
)"));
}

TEST(RuleText, OfTheTableRemembersInterfacesAtTheirLimitsForAWhile) {
    EXPECT_THAT(tableText(), HasSubstr(R"(    set copying {
        typeof iif
        size 8192
        flags dynamic,timeout
        timeout 10s
    }

    set enough-copies {
        typeof iif
        size 8192
        flags dynamic,timeout
        timeout 100ms
    }

    set answering {
        typeof oif
        size 8192
        flags dynamic,timeout
        timeout 10s
    }

    set enough-answers {
        typeof oif
        size 8192
        flags dynamic,timeout
        timeout 100ms
    }

    set left-to-kernel {
        type iface_index
        flags timeout
    }
)"));
}

TEST(RuleText, OfTheTableCopiesOnlyWhatCanBeAnsweredUpToItsLimits) {
    EXPECT_THAT(tableText(), HasSubstr(R"(    chain candidate {
        ip frag-off & 0x4000 == 0 accept
        update @copying { iif limit rate over 250/second burst 250 packets } goto at-copy-limit
        limit name all-copies accept
        meta nfproto ipv4 iif @vrf-ports accept comment "no way back from outside the VRF"
        meta nfproto ipv6 fib saddr . iif oif missing accept comment "no way back via the ingress"
    }

    chain at-copy-limit {
        add @enough-copies { iif }
        accept
    }
)"));
    EXPECT_THAT(tableText(), HasSubstr(R"(    limit all-copies {
        rate over 3000/second burst 2750 packets
    }

    limit all-answers {
        rate over 1500/second burst 2750 packets
    }
)"));
}

TEST(RuleText, OfTheTableCountsTheMessagesOfProcessesAndWithdrawsTheKernelsOwn) {
    EXPECT_THAT(tableText(), HasSubstr(R"(    chain postrouting {
        type filter hook postrouting priority 1000000; policy accept;
        meta l4proto != { 1, 58 } accept comment "neither ICMP nor ICMPv6"
        icmp type destination-unreachable icmp code frag-needed goto too-big-ipv4
        icmpv6 type packet-too-big goto too-big-ipv6
    }

    chain too-big-ipv4 {
        meta skuid 0-4294967295 counter name answers accept comment "a process's"
        oif @enough-copies accept comment "without a copy"
        oif @enough-answers accept comment "spares a flood the rest"
        @th,68,4 5 icmp mtu vmap @refused4
        icmp mtu vmap @refused4o
    }

    chain too-big-ipv6 {
        meta skuid 0-4294967295 counter name answers accept comment "a process's"
        oif @enough-copies accept comment "without a copy"
        oif @enough-answers accept comment "spares a flood the rest"
        icmpv6 mtu vmap @refused6
    }

    chain withdrawable {
        update @answering { oif limit rate over 125/second burst 250 packets } goto at-answer-limit
        oif @left-to-kernel accept
        fib saddr type != local accept comment "not this router's own"
        fib daddr type broadcast accept comment "no process may answer it"
        limit name all-answers accept
    }

    chain at-answer-limit {
        add @enough-answers { oif }
        accept
    }

    chain handed-over {
        counter name meta mark map @counters log prefix "pmtud:refused" group 89 snaplen 1280 queue-threshold 1 drop
    }
)"));
}

// libnftables treats a number as a name if an interface has that name, and no name has 16
// characters; without quotes, the number would be octal.
TEST(RuleText, ThatLeavesAnInterfaceToTheKernelHasAnIndexLongerThanAnyName) {
    EXPECT_EQ(leaveToKernelText(7, 30),
              "add element inet pmtud left-to-kernel { \"0000000000000007\" timeout 30s }\n");
    EXPECT_EQ(leaveToKernelText(4294967295, 1),
              "add element inet pmtud left-to-kernel { \"0000004294967295\" timeout 1s }\n");
}

namespace {

struct Change {
    const char* name;
    Vlans before;
    Vlans after;
    std::string commands;
};

class RuleChange : public testing::TestWithParam<Change> {};

constexpr char kMove20[] = R"(delete element inet pmtud vlans { "0000000000000007" }
delete element inet pmtud egress { "0000000000000007" }
add element inet pmtud vlans { "0000000000000009" }
add element inet pmtud egress { "0000000000000009" : goto to-bcm0.20 }
)";

constexpr char kSwap[] = R"(delete element inet pmtud vlans { "0000000000000005" }
delete element inet pmtud egress { "0000000000000005" }
delete element inet pmtud vlans { "0000000000000007" }
delete element inet pmtud vrf-ports { "0000000000000007" }
delete element inet pmtud egress { "0000000000000007" }
add element inet pmtud vlans { "0000000000000007" }
add element inet pmtud vrf-ports { "0000000000000007" }
add element inet pmtud egress { "0000000000000007" : goto to-bcm0.10 }
add element inet pmtud vlans { "0000000000000005" }
add element inet pmtud egress { "0000000000000005" : goto to-bcm0.20 }
)";

constexpr char kEnterVrf[] = R"(delete element inet pmtud vlans { "0000000000000007" }
add element inet pmtud vlans { "0000000000000007" }
add element inet pmtud vrf-ports { "0000000000000007" }
)";

constexpr char kLeaveVrf[] = R"(delete element inet pmtud vlans { "0000000000000007" }
delete element inet pmtud vrf-ports { "0000000000000007" }
add element inet pmtud vlans { "0000000000000007" }
)";

// The commands about the ingress, among those that add VLAN 20 and those that remove it.
constexpr char kAddIngress20[] = "add element inet pmtud vlans { \"0000000000000007\" }\n";
constexpr char kRemoveIngress20[] = "delete element inet pmtud vlans { \"0000000000000007\" }\n";

}  // namespace

TEST_P(RuleChange, IsMadeByTheseCommands) {
    EXPECT_EQ(changeText(GetParam().before, GetParam().after), GetParam().commands);
}

const Vlans kVlan20 = {{20, {7, 1280}}};
const Vlans kVlan30 = {{30, {9, 1280}}};
const Vlans kBoth = {{20, {7, 1280}}, {30, {9, 1280}}};
const Vlans kOddOnes = {{20, {7, 1280, true}}, {30, {9, 575}}};
const std::string kFirstOf1280 = std::string(kAdd1280) + kSmallest1280;

INSTANTIATE_TEST_SUITE_P(
    From, RuleChange,
    testing::Values(Change{"NothingToNothing", {}, {}, ""},
                    Change{"SomethingToTheSame", kOddOnes, kOddOnes, ""},
                    Change{"NothingToTheFirstVlanOfAnMtu", {}, kVlan20, kFirstOf1280 + kAddVlan20},
                    Change{"OneVlanToAnotherOfTheMtu", kVlan30, kBoth, kAddVlan20},
                    Change{"TheLastVlanOfAnMtuToNothing",
                           kVlan20,
                           {},
                           std::string(kFlushFits) + kRemoveVlan20 + kRemove1280},
                    Change{"TwoVlansOfAnMtuToOne", kBoth, kVlan30, kRemoveVlan20},
                    Change{"AnMtuToAnotherVlans",
                           {{10, {5, 1280}}, {20, {7, 1280}}, {30, {9, 1400}}},
                           {{10, {5, 1280}}, {20, {7, 1400}}, {30, {9, 1400}}},
                           kFlush20 + with(kChain20, "1280", "1400")},
                    // The new maps come first and the old ones go last.
                    Change{"AnMtuToANewOne",
                           {{20, {7, 1400}}},
                           kVlan20,
                           kFirstOf1280 + kFlush20 + kChain20 + with(kRemove1280, "1280", "1400")},
                    Change{"AnInterfaceToAnotherOfTheName", kVlan20, {{20, {9, 1280}}}, kMove20},
                    Change{"ANameToAnother",
                           kVlan20,
                           {{11, {7, 1280}}},
                           kRemoveVlan20 +
                               with(with(with(kAddVlan20, "bcm0.20", "bcm0.11"), " 20 ", " 11 "),
                                    "pmtud:20", "pmtud:11")},
                    Change{"NamesToSwappedOnes",
                           {{10, {5, 1280}}, {20, {7, 1280, true}}},
                           {{10, {7, 1280, true}}, {20, {5, 1280}}},
                           kSwap},
                    Change{"OutsideAVrfToInside", kVlan20, {{20, {7, 1280, true}}}, kEnterVrf},
                    Change{"InsideAVrfToOutside", {{20, {7, 1280, true}}}, kVlan20, kLeaveVrf},
                    Change{"AnMtuToOneThatTheDaemonRefuses",
                           kVlan20,
                           {{20, {7, 575}}},
                           kFlushFits + with(kRemoveVlan20, kRemoveIngress20, "") + kRemove1280},
                    Change{"AnMtuThatTheDaemonRefusesToOneThatItServes",
                           {{20, {7, 17000}}},
                           kVlan20,
                           kFirstOf1280 + with(kAddVlan20, kAddIngress20, "")}),
    [](const auto& change) { return std::string(change.param.name); });

TEST(RuleChanges, ServeTheMtusThatTheDaemonAnswersForAndTakeOthersAsIngressOnly) {
    for (const uint32_t mtu : {576U, 16383U})
        EXPECT_THAT(changeText({}, {{20, {7, mtu}}}), HasSubstr("to-bcm0.20")) << mtu;
    for (const uint32_t mtu : {0U, 68U, 575U, 16384U, 65535U, 66816U, 4294967295U})
        EXPECT_EQ(changeText({}, {{20, {7, mtu}}}), kAddIngress20) << mtu;
}

TEST(RuleChanges, LetWhatFitsEveryVlanPassFirst) {
    const Vlans vlans = {{10, {5, 1500}}, {20, {7, 1400}}, {30, {9, 575}}};
    EXPECT_THAT(changeText({}, vlans),
                HasSubstr("add rule inet pmtud fits-every-vlan meta length <= 1400 accept\n"));
    EXPECT_THAT(changeText(vlans, {{10, {5, 1500}}}),
                HasSubstr(with(kSmallest1280, "1280", "1500")));
}

// The kernel allocates the room of a map at once.
TEST(RuleChanges, GiveManyMtusSmallerMaps) {
    Vlans vlans;
    for (int vlan = 1; vlan <= 128; ++vlan) {
        const auto number = static_cast<uint32_t>(vlan);
        vlans[vlan] = {number, 1000 + number};
    }
    EXPECT_THAT(changeText({}, vlans), HasSubstr("; size 512; "));
    vlans.erase(vlans.upper_bound(8), vlans.end());
    EXPECT_THAT(changeText({}, vlans), HasSubstr("; size 8192; "));
}
