// SPDX-License-Identifier: MIT
// The rules as text.
#include "ruleset.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using pmtud_linux::changeText;
using pmtud_linux::tableText;
using pmtud_linux::Vlans;
using testing::HasSubstr;

TEST(RuleText, OfTheTableBelongsToTheProcess) {
    EXPECT_THAT(tableText(), HasSubstr("table inet pmtud {\n    flags owner\n"));
}

TEST(RuleText, OfTheTableLooksUpTheEgressOnlyForLongPacketsFromVlans) {
    EXPECT_THAT(tableText(), HasSubstr("    chain prerouting {\n"
                                       "        type filter hook prerouting priority raw; policy "
                                       "accept;\n"
                                       "        meta length <= 576 accept comment \"fits every "
                                       "VLAN\"\n"
                                       "        iifname != @vlans accept\n"
                                       "        iifname vmap @ingress\n"
                                       "        fib daddr oifname vmap @egress\n"
                                       "    }\n"));
}

TEST(RuleChange, AddsAVlanWithItsChainsAndElements) {
    EXPECT_EQ(changeText({}, {{20, {7, 1280, 0}}}),
              R"(add chain inet pmtud from-bcm0.20
add rule inet pmtud from-bcm0.20 meta length > 1280 counter accept
add element inet pmtud vlans { "bcm0.20" }
add element inet pmtud ingress { "bcm0.20" : jump from-bcm0.20 }
add counter inet pmtud bcm0.20
add chain inet pmtud to-bcm0.20
add rule inet pmtud to-bcm0.20 meta length <= 1280 accept
add rule inet pmtud to-bcm0.20 jump oversized
add rule inet pmtud to-bcm0.20 meta mark set 7 log group 89 snaplen 9000 queue-threshold 1 counter name "bcm0.20" drop
add element inet pmtud egress { "bcm0.20" : goto to-bcm0.20 }
)");
}

TEST(RuleChange, RemovesAVlanWithItsChainsAndElements) {
    EXPECT_EQ(changeText({{20, {7, 1280, 0}}}, {}),
              R"(delete element inet pmtud vlans { "bcm0.20" }
delete element inet pmtud ingress { "bcm0.20" }
delete chain inet pmtud from-bcm0.20
delete element inet pmtud egress { "bcm0.20" }
delete chain inet pmtud to-bcm0.20
delete counter inet pmtud bcm0.20
)");
}

TEST(RuleChange, OfAnMtuTouchesTheChainsOfThatVlanOnly) {
    EXPECT_EQ(changeText({{10, {5, 1500, 0}}, {20, {7, 1280, 0}}, {30, {9, 1500, 0}}},
                         {{10, {5, 1500, 0}}, {20, {7, 1400, 0}}, {30, {9, 1500, 0}}}),
              R"(flush chain inet pmtud from-bcm0.20
add rule inet pmtud from-bcm0.20 meta length > 1400 counter accept
flush chain inet pmtud to-bcm0.20
add rule inet pmtud to-bcm0.20 meta length <= 1400 accept
add rule inet pmtud to-bcm0.20 jump oversized
add rule inet pmtud to-bcm0.20 meta mark set 7 log group 89 snaplen 9000 queue-threshold 1 counter name "bcm0.20" drop
)");
}

TEST(RuleChange, ToAnotherInterfaceOfTheSameNameRenewsTheMark) {
    EXPECT_EQ(changeText({{20, {7, 1280, 0}}}, {{20, {9, 1280, 0}}}),
              R"(flush chain inet pmtud to-bcm0.20
add rule inet pmtud to-bcm0.20 meta length <= 1280 accept
add rule inet pmtud to-bcm0.20 jump oversized
add rule inet pmtud to-bcm0.20 meta mark set 9 log group 89 snaplen 9000 queue-threshold 1 counter name "bcm0.20" drop
)");
}

TEST(RuleChange, OfARenameIsARemovalAndAnAddition) {
    EXPECT_EQ(changeText({{20, {7, 575, 0}}}, {{21, {7, 575, 0}}}),
              R"(delete element inet pmtud vlans { "bcm0.20" }
delete element inet pmtud ingress { "bcm0.20" }
delete chain inet pmtud from-bcm0.20
add chain inet pmtud from-bcm0.21
add rule inet pmtud from-bcm0.21 meta length > 575 counter accept
add element inet pmtud vlans { "bcm0.21" }
add element inet pmtud ingress { "bcm0.21" : jump from-bcm0.21 }
)");
}

TEST(RuleChange, OfNothingIsEmpty) {
    const Vlans vlans = {{10, {5, 1500, 0}}, {20, {7, 1280, 0}}};
    EXPECT_EQ(changeText({}, {}), "");
    EXPECT_EQ(changeText(vlans, vlans), "");
    EXPECT_EQ(changeText({{20, {7, 1280, 0}}}, {{20, {7, 1280, 3}}}), "");
}

TEST(RuleChange, TakesOnlyMtusThatTheDaemonAnswersFor) {
    EXPECT_THAT(changeText({}, {{20, {7, 576, 0}}}), HasSubstr("to-bcm0.20"));
    EXPECT_THAT(changeText({}, {{20, {7, 16383, 0}}}), HasSubstr("to-bcm0.20"));
    for (const uint32_t mtu : {0U, 68U, 575U, 16384U, 65535U, 4294967295U}) {
        const std::string commands = changeText({}, {{20, {7, mtu, 0}}});
        EXPECT_THAT(commands, HasSubstr("from-bcm0.20")) << mtu;
        EXPECT_THAT(commands, testing::Not(HasSubstr("to-bcm0.20"))) << mtu;
    }
}

TEST(RuleChange, ToAnMtuThatTheDaemonRefusesGivesTheEgressBackToTheKernel) {
    EXPECT_EQ(changeText({{20, {7, 1280, 0}}}, {{20, {7, 575, 0}}}),
              R"(flush chain inet pmtud from-bcm0.20
add rule inet pmtud from-bcm0.20 meta length > 575 counter accept
delete element inet pmtud egress { "bcm0.20" }
delete chain inet pmtud to-bcm0.20
delete counter inet pmtud bcm0.20
)");
}

TEST(RuleChange, FromAnMtuThatTheDaemonRefusesTakesTheEgressOver) {
    EXPECT_EQ(changeText({{20, {7, 575, 0}}}, {{20, {7, 576, 0}}}),
              R"(flush chain inet pmtud from-bcm0.20
add rule inet pmtud from-bcm0.20 meta length > 576 counter accept
add counter inet pmtud bcm0.20
add chain inet pmtud to-bcm0.20
add rule inet pmtud to-bcm0.20 meta length <= 576 accept
add rule inet pmtud to-bcm0.20 jump oversized
add rule inet pmtud to-bcm0.20 meta mark set 7 log group 89 snaplen 9000 queue-threshold 1 counter name "bcm0.20" drop
add element inet pmtud egress { "bcm0.20" : goto to-bcm0.20 }
)");
}
