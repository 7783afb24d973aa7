// SPDX-License-Identifier: MIT
// Every call on a packet's path fails, twice in a row: what leaves the daemon, and what happens to
// the next frame.
#include <cerrno>
#include <climits>
#include <ostream>
#include <utility>

#include "run.h"

namespace {

using fake::Journal;
using run::Frame;
using run::golden;
using run::goldenAtWarning;
using run::ipv4;
using run::ipv6;
using run::Lines;
using run::upTo;
using run::without;
using run::operator+;

/// What one failing call does to a frame.
struct Fault {
    std::string name;
    const Frame& frame;
    const char* call;
    Lines left;  ///< the frame's whole journal at DEBUG
    long result;
    int error = 0;
    int times = 1;  ///< how often a frame makes the call, at DEBUG
};

std::ostream& operator<<(std::ostream& os, const Fault& fault) { return os << fault.name; }

const std::string kPlace4 =
    " | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] Invalid VLAN ";
const std::string kPlace6 =
    " | bool PMTUDApp::sendICMP6PacketTooBig(const uint8_t&, size_t)] Invalid VLAN ";

/// The last entries for a frame that the engine has not answered.
const Lines kUnanswered = {
    "14:03:07.2 DEBUG: [SHM_Wrapper:49 | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] "
    "Discarding packet\r\n",
    "14:03:07.2 DEBUG: [SHM_Wrapper:112 | static int SHM_Wrapper_App::pkt_rx_cb("
    "const st_pktd_shm_queue_entry_data_t*, uint8_t*, int)] handle frame ret 7\r\n",
    "verdict 7"};

/// The entries up to the call, then those of a frame without an answer.
Lines endsAt(const Frame& frame, const char* call, const Lines& lines = {}) {
    return upTo(golden(frame), std::string(call) + "(") + lines + kUnanswered;
}

/// The configuration answers "none", which is logged on both channels.
Lines refusedAt(const Frame& frame, const char* call, const std::string& statement,
                const std::string& logged, const std::string& toDebugProcess) {
    return endsAt(frame, call,
                  {"14:03:07.2 DEBUG: [PMTUDApp:" + statement + logged + "\r\n",
                   "89 PMTUD-Prot: Invalid VLAN " + toDebugProcess});
}

/// Without its interface: both the line and the send have index 0.
Lines withoutInterface() {
    Lines lines = golden(ipv6());
    for (std::string& entry : lines) {
        if (entry.ends_with("] ifindex: 7\r\n")) entry.replace(entry.size() - 3, 3, "0\r\n");
        if (entry.starts_with("arpd_ipv6_pkt_send(606, 7)")) entry[24] = '0';
    }
    return lines;
}

std::vector<Fault> allFaults() {
    const char* const vlan = "cfg_vlan_l3_get_dest_vlan";
    const char* const mtu = "cfg_vlan_l3_get_mtu";
    const char* const create = "arpd_icmp6_socket_create";
    const char* const send = "arpd_ipv6_pkt_send";
    const Lines& path4 = golden(ipv4());
    const Lines& path6 = golden(ipv6());
    const Lines unsent4 = without(path4, "89 PMTUD-Prot: ICMP message sent to source");
    const Lines unsent6 =
        upTo(without(path6, "89 PMTUD-Prot: ICMPv6 message sent to source"), "close(606)") +
        kUnanswered;
    const std::string noVlan4 = "ID - VLAN ID: -22 Egress: 20";
    const std::string noMtu4 = "MTU - VLAN ID: 20 Egress: 20 VLAN MTU: 4294967274";
    const std::string noMtu6 = "MTU: 2147483648 (VLAN ID : 20 Egress ID: 20)";

    std::vector<Fault> faults = {
        {"TheVlanIsAnErrno", ipv4(), vlan,
         refusedAt(ipv4(), vlan, "115" + kPlace4, noVlan4, noVlan4), -22},
        {"TheMtuIsAnErrno", ipv4(), mtu, refusedAt(ipv4(), mtu, "122" + kPlace4, noMtu4, noMtu4),
         -22},
        {"NoDescriptorIsLeft", ipv4(), "socket",
         endsAt(ipv4(), "socket", {"89 PMTUD-Prot: Error creating socket"}), -1, EMFILE},
        {"TheTimeToLiveIsRefused", ipv4(), "setsockopt", path4, -1, EPERM},
        {"TheSendIsInterrupted", ipv4(), "sendto", unsent4, -1, EINTR},
        {"TheMessageIsTooLong", ipv4(), "sendto", unsent4, -1, EMSGSIZE},
        {"TheSendTakesNoByte", ipv4(), "sendto", path4, 0},
        {"TheSendTakesAllButAByte", ipv4(), "sendto", path4, 67},
        {"TheVlanIsTheLargest", ipv6(), vlan,
         refusedAt(ipv6(), vlan, "211" + kPlace6, "ID: 2147483647 (Egress ID: 20)",
                   "ID: 2147483647(Egress ID: 20)"),
         INT_MAX},
        // INT_MIN has the bits of an MTU beyond INT_MAX, and fits a long of 32 bits.
        {"TheMtuIsBeyondTheSignedRange", ipv6(), mtu,
         refusedAt(ipv6(), mtu, "218" + kPlace6, noMtu6, noMtu6), INT_MIN},
        {"ThereIsNoInterface", ipv6(), "if_nametoindex", withoutInterface(), 0, ENODEV},
        {"TheSocketsOpeningReturnsMinusEnodev", ipv6(), create, endsAt(ipv6(), create), -19},
        {"TheSocketsOpeningReturnsOne", ipv6(), create, endsAt(ipv6(), create), 1},
        {"TheSendReturnsMinusOne", ipv6(), send, unsent6, -1},
        {"TheSendReturnsTheSmallest", ipv6(), send, unsent6, INT_MIN},
        {"TheSendReturnsACount", ipv6(), send, path6, 1500},
    };
    // A line that cannot be written is lost, but nothing else is.
    for (const Frame* const frame : {&ipv4(), &ipv6()}) {
        const Lines& path = golden(*frame);
        const int lines = frame == &ipv4() ? 11 : 13;
        faults.push_back({"TheSocketIsNotClosed", *frame, "close", path, -1, EINTR});
        faults.push_back({"TheDebugProcessIsFull", *frame, "debug_process", path, -105, 0, 9});
        faults.push_back({"NoLineIsPut", *frame, "fputs", path, EOF, ENOSPC, lines});
        faults.push_back({"NoLineIsFlushed", *frame, "fflush", path, EOF, EPIPE, lines});
    }
    return faults;
}

class FaultTest : public run::Daemon, public testing::WithParamInterface<Fault> {
 protected:
    const Fault& fault = GetParam();
    const fake::Failure failure = {fault.result, fault.error};
};

TEST_P(FaultTest, LeavesTheSameLinesTwiceInARowAndTheThirdFrameIsAnswered) {
    Journal journal(qv::DEBUG);
    fake::fail(fault.call, failure, 2 * fault.times);
    for (const Lines* const left : {&fault.left, &fault.left, &golden(fault.frame)}) {
        receive(journal, fault.frame);
        EXPECT_EQ(journal.take(), *left);
        EXPECT_TRUE(fake::openSockets.empty());
    }
}

TEST_P(FaultTest, LeavesTheSameCallsBelowTheThreshold) {
    Lines left = fault.left;
    std::erase_if(left, [](const std::string& entry) { return entry.ends_with("\r\n"); });
    Journal journal(qv::INFO);
    fake::fail(fault.call, failure, fault.times);
    receive(journal, fault.frame);
    EXPECT_EQ(journal.entries, left);
    EXPECT_TRUE(fake::openSockets.empty());
}

INSTANTIATE_TEST_SUITE_P(If, FaultTest, testing::ValuesIn(allFaults()), [](const auto& instance) {
    return instance.param.name + run::familyOf(instance.param.frame);
});

// Each log statement needs the time.

class TimelessTest : public run::AnsweredFrame {};

/// Only the IPv6 path logs while its socket is open: its eleventh statement.
TEST_P(TimelessTest, EachStatementWithoutATimeEndsTheFrameWithAnEmptyLineAndTheNextIsAnswered) {
    const Lines& path = golden(frame);
    int nth = 0;
    for (auto entry = path.begin(); entry != path.end(); ++entry) {
        if (!entry->ends_with("\r\n")) continue;
        SCOPED_TRACE(++nth);
        Journal journal(qv::DEBUG);
        for (int time = 0; time < 2; ++time) {
            fake::fail("localtime_r", {0, EOVERFLOW}, 1, nth - 1);
            receive(journal, frame);
            EXPECT_EQ(journal.take(), Lines(path.begin(), entry) +
                                          Lines({"\r\n", "throws Could not get local time"}));
        }
        const bool leavesSockets = &frame == &ipv6() && nth == 11;
        EXPECT_EQ(std::exchange(fake::openSockets, {}),
                  leavesSockets ? std::multiset<int>({606, 606}) : std::multiset<int>());
        receive(journal, frame);
        EXPECT_EQ(journal.entries, path);
    }
    EXPECT_EQ(nth, &frame == &ipv4() ? 11 : 13);
}

TEST_P(TimelessTest, NoTimeIsNeededBelowTheThreshold) {
    Journal journal(qv::WARNING);
    fake::fail("localtime_r", {0, EOVERFLOW});
    receive(journal, frame);
    EXPECT_EQ(journal.entries, goldenAtWarning(frame));
}

INSTANTIATE_TEST_SUITE_P(Family, TimelessTest, run::kAnsweredFrames, run::kFamily);

// Each address must be converted, for the debug process and for the dumps.

class AddressTest : public run::AnsweredFrame {};

TEST_P(AddressTest, ThatCannotBeConvertedEndsTheFrameAndTheNextIsAnswered) {
    const Lines whole = goldenAtWarning(frame);
    int nth = 0;
    for (const std::string line : {"89 PMTUD-Prot:    From: ", "89 PMTUD-Prot:    To: "}) {
        Lines left = upTo(whole, line);
        left.back() = line;
        Journal journal(qv::WARNING);
        fake::fail("inet_ntop", {0, ENOSPC}, 1, nth++);
        receive(journal, frame);
        // The exception's text is the address library's.
        ASSERT_TRUE(journal.entries.back().starts_with("throws "));
        journal.entries.pop_back();
        EXPECT_EQ(journal.take(), left);
        EXPECT_TRUE(fake::openSockets.empty());
        receive(journal, frame);
        EXPECT_EQ(journal.entries, whole);
    }
}

TEST_P(AddressTest, IsNotWrittenWhileTheSocketIsOpen) {
    Journal journal(qv::WARNING);
    fake::fail("inet_ntop", {0, ENOSPC}, 10, 2);
    receive(journal, frame);
    EXPECT_EQ(journal.entries, goldenAtWarning(frame));
}

TEST_P(AddressTest, OfADumpThatCannotBeWrittenDoesNotKeepTheFrameFromBeingAnswered) {
    Lines expected = golden(frame);
    for (std::string& entry : expected) {
        if (const auto at = entry.find("\nSrc: "); at != entry.npos) entry.resize(at + 6);
        if (entry.ends_with("\nSrc: ")) entry += "\r\n";
    }
    Journal journal(qv::DEBUG);
    fake::fail("inet_ntop", {0, ENOSPC}, 2);
    receive(journal, frame);
    EXPECT_EQ(journal.entries, expected);
}

INSTANTIATE_TEST_SUITE_P(Family, AddressTest, run::kAnsweredFrames, run::kFamily);

class DescriptorTest : public run::AnsweredFrame {};

/// If the process was started without its standard input, 0 is the next descriptor.
TEST_P(DescriptorTest, ZeroIsASocketLikeAnyOther) {
    fake::syscalls().socket = [] { return 0; };
    fake::platform().icmp6SocketCreate = [](int32_t* fd) { return *fd = 0; };
    Journal journal(qv::DEBUG);
    receive(journal, frame);
    Lines expected = golden(frame);
    for (std::string& entry : expected) {
        for (const char* const descriptor : {"(404", "(606"}) {
            const auto found = entry.find(descriptor);
            if (found != entry.npos) entry.replace(found + 1, 3, "0");
        }
    }
    EXPECT_EQ(journal.entries, expected);
    EXPECT_TRUE(fake::openSockets.empty());
}

INSTANTIATE_TEST_SUITE_P(Family, DescriptorTest, run::kAnsweredFrames, run::kFamily);

}  // namespace
