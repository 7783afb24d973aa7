// SPDX-License-Identifier: MIT
// The time or an address cannot be had: the exception, the line as far as it was, what stays open.
#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <string>

#include "QVLog.h"
#include "roads.h"

using faults::atWarning;
using faults::Daemon;
using faults::Lines;
using faults::Road;
using faults::untroubled;
using faults::upTo;
using faults::World;
using faults::operator+;

namespace {

/// A road up to its `nth` line of the file channel, counted from 1, and without it.
Lines untilLine(const Lines& road, int nth) {
    Lines left;
    for (const std::string& entry : road) {
        if (entry.ends_with("\r\n") && --nth == 0) return left;
        left.push_back(entry);
    }
    throw std::out_of_range("no such line");
}

/// The n-th log statement of a road.
struct Statement {
    Road road;
    int nth;
};

std::ostream& operator<<(std::ostream& os, const Statement& statement) {
    return os << statement.nth;
}

const std::string kNoTime = "throws Could not get local time";

class AFrameWithoutTheTime : public testing::TestWithParam<Statement> {
 protected:
    Daemon daemon;
};

TEST_P(AFrameWithoutTheTime, EndsAtTheStatementWithAnEmptyLineAndAnException) {
    const auto [road, nth] = GetParam();
    World world(qv::DEBUG);
    world.fail("localtime_r", {0, EOVERFLOW}, 1, nth - 1);
    daemon.receive(world, road);
    EXPECT_EQ(world.journal, untilLine(untroubled(road), nth) + (Lines{"\r\n", kNoTime}));
}

/// Only the IPv6 road has a statement while its socket is open.
TEST_P(AFrameWithoutTheTime, LeavesTheSocketOpenWhereItIsAndNoOther) {
    const auto [road, nth] = GetParam();
    World world(qv::DEBUG);
    world.fail("localtime_r", {0, EOVERFLOW}, 1, nth - 1);
    daemon.receive(world, road);
    const bool isOpen = road == Road::kIpv6 && nth == 11;
    EXPECT_EQ(world.open, isOpen ? std::set<int>{5} : std::set<int>{});
}

TEST_P(AFrameWithoutTheTime, IsFollowedByOneThatIsAnswered) {
    const auto [road, nth] = GetParam();
    World world(qv::DEBUG);
    world.fail("localtime_r", {0, EOVERFLOW}, 1, nth - 1);
    daemon.receive(world, road);
    world.open.clear();
    world.takeJournal();
    daemon.receive(world, road);
    EXPECT_EQ(world.journal, untroubled(road));
}

std::vector<Statement> statements() {
    std::vector<Statement> all;
    for (int nth = 1; nth <= 11; ++nth) all.push_back({Road::kIpv4, nth});
    for (int nth = 1; nth <= 13; ++nth) all.push_back({Road::kIpv6, nth});
    return all;
}

INSTANTIATE_TEST_SUITE_P(At, AFrameWithoutTheTime, testing::ValuesIn(statements()),
                         [](const auto& instance) {
                             const bool isIpv4 = instance.param.road == Road::kIpv4;
                             return (isIpv4 ? "Ipv4Statement" : "Ipv6Statement") +
                                    std::to_string(instance.param.nth);
                         });

class AFrame : public testing::Test {
 protected:
    Daemon daemon;
};

TEST_F(AFrame, NeedsNoTimeBelowTheThreshold) {
    World world(qv::WARNING);
    world.fail("localtime_r", {0, EOVERFLOW});
    daemon.receive(world, Road::kIpv4);
    daemon.receive(world, Road::kIpv6);
    EXPECT_EQ(world.journal,
              atWarning(untroubled(Road::kIpv4)) + atWarning(untroubled(Road::kIpv6)));
}

TEST_F(AFrame, LeavesOneSocketOpenForEveryInterruptionInARow) {
    World world(qv::DEBUG);
    for (int frame = 0; frame < 2; ++frame) {
        world.fail("localtime_r", {0, EOVERFLOW}, 1, 10);
        daemon.receive(world, Road::kIpv6);
    }
    EXPECT_EQ(world.open, (std::set<int>{5, 6}));
    world.takeJournal();
    daemon.receive(world, Road::kIpv6);
    EXPECT_EQ(world.open, (std::set<int>{5, 6}));
    EXPECT_EQ(world.journal.at(world.journal.size() - 4), "close(7)");
}

// Addresses, in the lines of the debug process.

struct Address {
    const char* name;
    Road road;
    int nth;
    const char* behind;  ///< the last entry before the line
    const char* cut;     ///< the line
};

std::ostream& operator<<(std::ostream& os, const Address& address) { return os << address.name; }

const Address kAddresses[] = {
    {"TheIpv4Source", Road::kIpv4, 1,
     "89 PMTUD-Prot: Received IPv4 packet len 78:", "89 PMTUD-Prot:    From: "},
    {"TheIpv4Destination", Road::kIpv4, 2, "89 PMTUD-Prot:    From: 192.0.2.10",
     "89 PMTUD-Prot:    To: "},
    {"TheIpv6Source", Road::kIpv6, 1,
     "89 PMTUD-Prot: Received IPv6 packet len 66:", "89 PMTUD-Prot:    From: "},
    {"TheIpv6Destination", Road::kIpv6, 2, "89 PMTUD-Prot:    From: 2001:db8:0:10::a",
     "89 PMTUD-Prot:    To: "},
};

class AnAddress : public testing::TestWithParam<Address> {
 protected:
    Daemon daemon;
};

TEST_P(AnAddress, ThatCannotBeWrittenEndsTheFrameAtItsLine) {
    const Address& address = GetParam();
    World world(qv::WARNING);
    world.fail("inet_ntop", {0, ENOSPC}, 1, address.nth - 1);
    daemon.receive(world, address.road);
    ASSERT_FALSE(world.journal.empty());
    // The exception's text is the address library's.
    EXPECT_TRUE(world.journal.back().starts_with("throws "));
    world.journal.pop_back();
    EXPECT_EQ(world.takeJournal(),
              upTo(atWarning(untroubled(address.road)), address.behind) + Lines{address.cut});
    EXPECT_TRUE(world.open.empty());
}

TEST_P(AnAddress, IsWrittenAgainInTheNextFrame) {
    const Address& address = GetParam();
    World world(qv::WARNING);
    world.fail("inet_ntop", {0, ENOSPC}, 1, address.nth - 1);
    daemon.receive(world, address.road);
    world.takeJournal();
    daemon.receive(world, address.road);
    EXPECT_EQ(world.journal, atWarning(untroubled(address.road)));
}

INSTANTIATE_TEST_SUITE_P(Line, AnAddress, testing::ValuesIn(kAddresses),
                         [](const auto& instance) { return instance.param.name; });

/// Both are written before the socket is opened, so that none of them can leave it open.
TEST_F(AFrame, WritesNoAddressWhileItsSocketIsOpen) {
    for (const Road road : {Road::kIpv4, Road::kIpv6}) {
        World world(qv::WARNING);
        world.fail("inet_ntop", {0, ENOSPC}, 10, 2);
        daemon.receive(world, road);
        EXPECT_EQ(world.journal, atWarning(untroubled(road)));
        EXPECT_TRUE(world.open.empty());
    }
}

/// The dump alone ends at an address that cannot be written; the frame is answered.
TEST_F(AFrame, IsAnsweredWhereAnAddressOfItsDumpCannotBeWritten) {
    const std::string untilSource[] = {"Src: 192.0.2.10\nDst: 198.51.100.20\n",
                                       "Src: 2001:db8:0:10::a\nDst: 2001:db8:0:20::14\n"};
    for (const Road road : {Road::kIpv4, Road::kIpv6}) {
        World world(qv::DEBUG);
        world.fail("inet_ntop", {0, ENOSPC}, 2);
        daemon.receive(world, road);
        Lines left = untroubled(road);
        std::string& dump = left.at(8);
        const std::string& addresses = untilSource[road == Road::kIpv4 ? 0 : 1];
        dump.replace(dump.find(addresses), addresses.size(), "Src: ");
        EXPECT_EQ(world.journal, left);
        EXPECT_TRUE(world.open.empty());
    }
}

}  // namespace
