// SPDX-License-Identifier: MIT
// The scripted platform itself: bad scripts end the process with their line's number.
#include <gtest/gtest.h>

#include <cctype>
#include <ostream>
#include <string>

#include "daemon_process.h"
#include "private_machine.h"

namespace {

const std::string kPrefix = "pmtud-scripted: /proc/self/fd/100:";

class AScript : public testing::Test {
 protected:
    void SetUp() override { enterPrivateMachine(); }

    static Ending endingOf(const std::string& script) {
        DaemonProcess daemon({.script = script});
        return daemon.ending();
    }
};

TEST_F(AScript, WithoutEndIsRefused) {
    EXPECT_EQ(endingOf("# nothing\n\n"), (Ending{"exit status 2", kPrefix + "3: no 'end'\n"}));
}

TEST_F(AScript, MayHoldNothingBehindItsEnd) {
    EXPECT_EQ(endingOf("end\n\n# a remark\nmtu 1 1500\n"),
              (Ending{"exit status 2", kPrefix + "4: a line after 'end'\n"}));
}

TEST_F(AScript, ThatCannotBeReadIsRefused) {
    Start start{.script = ""};
    start.environment = {{"PMTUD_SCRIPT", "/run/no-such-script"}};
    DaemonProcess daemon(start);
    EXPECT_EQ(daemon.ending(),
              (Ending{"exit status 2", "pmtud-scripted: cannot read /run/no-such-script\n"}));
}

struct BadLine {
    std::string line;
    std::string fault;
};

std::ostream& operator<<(std::ostream& os, const BadLine& bad) { return os << bad.line; }

class ABadLine : public AScript, public testing::WithParamInterface<BadLine> {};

TEST_P(ABadLine, IsRefusedWithItsNumberAndItsFault) {
    EXPECT_EQ(endingOf("# a remark\n" + GetParam().line + "\nend\n"),
              (Ending{"exit status 2", kPrefix + "2: " + GetParam().fault + "\n"}));
}

const BadLine kBadLines[] = {
    {"anwser cfg_init 1", "no statement 'anwser'"},
    {"answer", "a word is missing"},
    {"answer cfg_exit 1", "'cfg_exit' does not belong here"},
    {"answer cfg_init one", "'one' is no number from -2147483648 to 2147483647"},
    {"answer cfg_init 2147483648", "'2147483648' is no number from -2147483648 to 2147483647"},
    {"answer cfg_init 1 2", "surplus '2'"},
    {"mtu 20 -1", "'-1' is no number from 0 to 4294967295"},
    {"throw open 1 qv x", "'open' does not belong here"},
    {"throw cfg_init 0 qv x", "'0' is no number from 1 to 2147483647"},
    {"throw cfg_init 1 bad_alloc", "'bad_alloc' does not belong here"},
    {"fail cfg_init 1 5", "'cfg_init' does not belong here"},
    {"fail open 1 0", "'0' is no number from 1 to 4095"},
    {"clock 14:03:07", "'14:03:07' is no time HH:MM:SS.mmm"},
    {"arpd fake", "'fake' does not belong here"},
    {"record unit", "'unit' is not FIELD=NUMBER"},
    {"record colour=1", "no field 'colour' of a record"},
    {"record trunk=256", "'256' is no number from 0 to 255"},
    {"frame 020", "no whole bytes"},
    {"frame 0g", "'0g' is no number from 0 to 255"},
    {"end now", "surplus 'now'"},
};

INSTANTIATE_TEST_SUITE_P(OfAScript, ABadLine, testing::ValuesIn(kBadLines),
                         [](const auto& instance) {
                             std::string name = instance.param.line;
                             for (char& c : name) {
                                 if (isalnum(static_cast<unsigned char>(c)) == 0) c = '_';
                             }
                             return name;
                         });

}  // namespace
