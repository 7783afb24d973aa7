// SPDX-License-Identifier: MIT
// Every call on a packet's path fails, twice in a row: what leaves the daemon, and the next frame.
#include <cerrno>
#include <climits>
#include <ostream>

#include "run.h"

namespace {

using fake::Failure;
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

const Frame* const kFrames[] = {&ipv4(), &ipv6()};

std::string familyOf(const Frame& frame) { return &frame == &ipv4() ? "OfIpv4" : "OfIpv6"; }

/// What one failing call makes of a frame; `left` is the frame's whole journal at DEBUG.
struct Fault {
    std::string name;
    const Frame& frame;
    const char* call;
    Failure failure;
    int times;  ///< how often a frame makes the call, at DEBUG
    Lines left;
};

std::ostream& operator<<(std::ostream& os, const Fault& fault) { return os << fault.name; }

const std::string kPlace4 =
    " | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] Invalid VLAN ";
const std::string kPlace6 =
    " | bool PMTUDApp::sendICMP6PacketTooBig(const uint8_t&, size_t)] Invalid VLAN ";

/// How a frame ends that the engine has not answered.
const Lines kUnanswered = {
    "14:03:07.2 DEBUG: [SHM_Wrapper:49 | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] "
    "Discarding packet\r\n",
    "14:03:07.2 DEBUG: [SHM_Wrapper:112 | static int SHM_Wrapper_App::pkt_rx_cb("
    "const st_pktd_shm_queue_entry_data_t*, uint8_t*, int)] handle frame ret 7\r\n",
    "verdict 7"};

/// Up to the call, and then no answer.
Lines endsAt(const Frame& frame, const char* call, const Lines& lines = {}) {
    return upTo(golden(frame), std::string(call) + "(") + lines + kUnanswered;
}

/// The configuration's answer is none: logged on both channels.
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
        {"TheVlanIsAnErrno",
         ipv4(),
         vlan,
         {-22},
         1,
         refusedAt(ipv4(), vlan, "115" + kPlace4, noVlan4, noVlan4)},
        {"TheMtuIsAnErrno",
         ipv4(),
         mtu,
         {-22},
         1,
         refusedAt(ipv4(), mtu, "122" + kPlace4, noMtu4, noMtu4)},
        {"NoDescriptorIsLeft",
         ipv4(),
         "socket",
         {-1, EMFILE},
         1,
         endsAt(ipv4(), "socket", {"89 PMTUD-Prot: Error creating socket"})},
        {"TheTimeToLiveIsRefused", ipv4(), "setsockopt", {-1, EPERM}, 1, path4},
        {"TheSendIsInterrupted", ipv4(), "sendto", {-1, EINTR}, 1, unsent4},
        {"TheMessageIsTooLong", ipv4(), "sendto", {-1, EMSGSIZE}, 1, unsent4},
        {"TheSendTakesNoByte", ipv4(), "sendto", {0}, 1, path4},
        {"TheSendTakesAllButAByte", ipv4(), "sendto", {67}, 1, path4},
        {"TheVlanIsTheLargest",
         ipv6(),
         vlan,
         {INT_MAX},
         1,
         refusedAt(ipv6(), vlan, "211" + kPlace6, "ID: 2147483647 (Egress ID: 20)",
                   "ID: 2147483647(Egress ID: 20)")},
        // Beyond INT_MAX by way of the bits, so that a long of 32 bits holds it.
        {"TheMtuIsBeyondTheSignedRange",
         ipv6(),
         mtu,
         {INT_MIN},
         1,
         refusedAt(ipv6(), mtu, "218" + kPlace6, noMtu6, noMtu6)},
        {"ThereIsNoInterface", ipv6(), "if_nametoindex", {0, ENODEV}, 1, withoutInterface()},
        {"TheSocketsOpeningAnswersMinusEnodev", ipv6(), create, {-19}, 1, endsAt(ipv6(), create)},
        {"TheSocketsOpeningAnswersOne", ipv6(), create, {1}, 1, endsAt(ipv6(), create)},
        {"TheSendAnswersMinusOne", ipv6(), send, {-1}, 1, unsent6},
        {"TheSendAnswersTheSmallest", ipv6(), send, {INT_MIN}, 1, unsent6},
        {"TheSendAnswersACount", ipv6(), send, {1500}, 1, path6},
    };
    // A line that cannot be written is lost, and nothing else.
    for (const Frame* const frame : kFrames) {
        const int lines = frame == &ipv4() ? 11 : 13;
        faults.push_back({"TheSocketIsNotClosed", *frame, "close", {-1, EINTR}, 1, golden(*frame)});
        faults.push_back(
            {"TheDebugProcessIsFull", *frame, "debug_process", {-105}, 9, golden(*frame)});
        faults.push_back({"NoLineIsPut", *frame, "fputs", {EOF, ENOSPC}, lines, golden(*frame)});
        faults.push_back(
            {"NoLineIsFlushed", *frame, "fflush", {EOF, EPIPE}, lines, golden(*frame)});
    }
    return faults;
}

class AFrame : public run::Daemon, public testing::WithParamInterface<Fault> {};

TEST_P(AFrame, IsHandledTwiceInARowIfThisFailsAndTheThirdIsAnswered) {
    const Fault& fault = GetParam();
    Journal journal(qv::DEBUG);
    fake::fail(fault.call, fault.failure, 2 * fault.times);
    for (const char* const frame : {"first", "second"}) {
        receive(journal, fault.frame);
        EXPECT_EQ(journal.take(), fault.left) << frame;
        EXPECT_TRUE(fake::openSockets.empty()) << frame;
    }
    receive(journal, fault.frame);
    EXPECT_EQ(journal.entries, golden(fault.frame));
    EXPECT_TRUE(fake::openSockets.empty());
}

TEST_P(AFrame, IsHandledInTheSameWayBelowTheThreshold) {
    Lines left = GetParam().left;
    std::erase_if(left, [](const std::string& entry) { return entry.ends_with("\r\n"); });
    Journal journal(qv::INFO);
    fake::fail(GetParam().call, GetParam().failure, GetParam().times);
    receive(journal, GetParam().frame);
    EXPECT_EQ(journal.entries, left);
    EXPECT_TRUE(fake::openSockets.empty());
}

INSTANTIATE_TEST_SUITE_P(Fault, AFrame, testing::ValuesIn(allFaults()), [](const auto& instance) {
    return familyOf(instance.param.frame) + "If" + instance.param.name;
});

/// The n-th log statement of a frame's path, which needs the time.
struct Statement {
    const Frame* frame;
    int nth;
};

class AFrameWithoutTheTime : public run::Daemon, public testing::WithParamInterface<Statement> {};

/// Only the IPv6 path has a statement while its socket is open, the eleventh.
TEST_P(AFrameWithoutTheTime, EndsAtTheStatementWithAnEmptyLineAndTheNextIsAnswered) {
    const auto [frame, nth] = GetParam();
    Lines left;
    int lines = 0;
    for (const std::string& entry : golden(*frame)) {
        if (entry.ends_with("\r\n") && ++lines == nth) break;
        left.push_back(entry);
    }
    Journal journal(qv::DEBUG);
    for (int time = 0; time < 2; ++time) {
        fake::fail("localtime_r", {0, EOVERFLOW}, 1, nth - 1);
        receive(journal, *frame);
        EXPECT_EQ(journal.take(), left + Lines({"\r\n", "throws Could not get local time"}));
    }
    const bool leavesSockets = frame == &ipv6() && nth == 11;
    EXPECT_EQ(fake::openSockets,
              leavesSockets ? std::multiset<int>({606, 606}) : std::multiset<int>());
    receive(journal, *frame);
    EXPECT_EQ(journal.entries, golden(*frame));
}

std::vector<Statement> statements() {
    std::vector<Statement> all;
    for (int nth = 1; nth <= 11; ++nth) all.push_back({&ipv4(), nth});
    for (int nth = 1; nth <= 13; ++nth) all.push_back({&ipv6(), nth});
    return all;
}

INSTANTIATE_TEST_SUITE_P(At, AFrameWithoutTheTime, testing::ValuesIn(statements()),
                         [](const auto& instance) {
                             return familyOf(*instance.param.frame) + "Statement" +
                                    std::to_string(instance.param.nth);
                         });

class EitherFrame : public run::Daemon, public testing::WithParamInterface<const Frame*> {};

TEST_P(EitherFrame, NeedsNoTimeBelowTheThreshold) {
    Journal journal(qv::WARNING);
    fake::fail("localtime_r", {0, EOVERFLOW});
    receive(journal, *GetParam());
    EXPECT_EQ(journal.entries, goldenAtWarning(*GetParam()));
}

/// If the process was started without its standard input, 0 is the next descriptor.
TEST_P(EitherFrame, IsAnsweredThroughDescriptor0) {
    fake::syscalls().socket = [] { return 0; };
    fake::platform().icmp6SocketCreate = [](int32_t* fd) { return *fd = 0; };
    Journal journal(qv::DEBUG);
    receive(journal, *GetParam());
    Lines expected = golden(*GetParam());
    for (std::string& entry : expected) {
        for (const char* const descriptor : {"(404", "(606"}) {
            const auto found = entry.find(descriptor);
            if (found != entry.npos) entry.replace(found + 1, 3, "0");
        }
    }
    EXPECT_EQ(journal.entries, expected);
    EXPECT_TRUE(fake::openSockets.empty());
}

// Addresses, in the lines of the debug process and in the dumps.

TEST_P(EitherFrame, EndsAtAnAddressThatCannotBeWrittenAndTheNextIsAnswered) {
    const Lines whole = goldenAtWarning(*GetParam());
    int nth = 0;
    for (const std::string line : {"89 PMTUD-Prot:    From: ", "89 PMTUD-Prot:    To: "}) {
        Lines left = upTo(whole, line);
        left.back() = line;
        Journal journal(qv::WARNING);
        fake::fail("inet_ntop", {0, ENOSPC}, 1, nth++);
        receive(journal, *GetParam());
        // The exception's text is the address library's.
        ASSERT_TRUE(journal.entries.back().starts_with("throws "));
        journal.entries.pop_back();
        EXPECT_EQ(journal.take(), left);
        EXPECT_TRUE(fake::openSockets.empty());
        receive(journal, *GetParam());
        EXPECT_EQ(journal.entries, whole);
    }
}

TEST_P(EitherFrame, WritesNoAddressWhileItsSocketIsOpen) {
    Journal journal(qv::WARNING);
    fake::fail("inet_ntop", {0, ENOSPC}, 10, 2);
    receive(journal, *GetParam());
    EXPECT_EQ(journal.entries, goldenAtWarning(*GetParam()));
}

TEST_P(EitherFrame, IsAnsweredIfAnAddressOfItsDumpCannotBeWritten) {
    Lines expected = golden(*GetParam());
    for (std::string& entry : expected) {
        if (const auto at = entry.find("\nSrc: "); at != entry.npos) entry.resize(at + 6);
        if (entry.ends_with("\nSrc: ")) entry += "\r\n";
    }
    Journal journal(qv::DEBUG);
    fake::fail("inet_ntop", {0, ENOSPC}, 2);
    receive(journal, *GetParam());
    EXPECT_EQ(journal.entries, expected);
}

INSTANTIATE_TEST_SUITE_P(Family, EitherFrame, testing::ValuesIn(kFrames),
                         [](const auto& instance) { return familyOf(*instance.param); });

}  // namespace
