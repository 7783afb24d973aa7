// SPDX-License-Identifier: MIT
// Every call on a frame's road fails, twice in a row: what leaves the daemon, and the frame behind.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <ostream>
#include <string>
#include <vector>

#include "QVLog.h"
#include "roads.h"

using faults::atWarning;
using faults::Daemon;
using faults::Failure;
using faults::Lines;
using faults::Road;
using faults::untroubled;
using faults::upTo;
using faults::without;
using faults::World;
using faults::operator+;

namespace {

/// What one failing call makes of a frame; `left` is the frame's whole journal at DEBUG.
struct Fault {
    std::string name;
    Road road;
    std::string call;
    Failure failure;
    int times;  ///< how often a frame makes the call, at DEBUG
    Lines left;
};

std::ostream& operator<<(std::ostream& os, const Fault& fault) { return os << fault.name; }

/// A failing answer and its text in a log line.
struct Answer {
    const char* name;
    long value;
    const char* text;
};

/// An answer that no log line shows.
struct Number {
    const char* name;
    long value;
};

struct Errno {
    const char* name;
    int value;
};

constexpr Errno kNoSocket[] = {
    {"Emfile", EMFILE},
    {"Enfile", ENFILE},
    {"Eperm", EPERM},
    {"Eacces", EACCES},
    {"Enobufs", ENOBUFS},
    {"Enomem", ENOMEM},
    {"Eintr", EINTR},
    {"Eafnosupport", EAFNOSUPPORT},
    {"Eprotonosupport", EPROTONOSUPPORT},
};
constexpr Errno kNoOption[] = {
    {"Enoprotoopt", ENOPROTOOPT}, {"Einval", EINVAL}, {"Ebadf", EBADF}, {"Eperm", EPERM},
    {"Enomem", ENOMEM},           {"Eintr", EINTR},
};
constexpr Errno kNotSent[] = {
    {"Enobufs", ENOBUFS},         {"Eagain", EAGAIN},     {"Eintr", EINTR},
    {"Enetunreach", ENETUNREACH}, {"Enetdown", ENETDOWN}, {"Ehostunreach", EHOSTUNREACH},
    {"Emsgsize", EMSGSIZE},       {"Eperm", EPERM},       {"Eacces", EACCES},
    {"Enomem", ENOMEM},           {"Einval", EINVAL},
};
constexpr Errno kNotClosed[] = {{"Eintr", EINTR}, {"Eio", EIO}, {"Enospc", ENOSPC}};

constexpr Answer kNoVlan[] = {
    {"Zero", 0, "0"},
    {"MinusOne", -1, "-1"},
    {"MinusEinval", -22, "-22"},
    {"The4095", 4095, "4095"},
    {"TheLargest", INT_MAX, "2147483647"},
    {"TheSmallest", INT_MIN, "-2147483648"},
};
// Beyond INT_MAX by way of the bits, so that a long of 32 bits holds them.
constexpr Answer kNoMtu[] = {
    {"Zero", 0, "0"},
    {"One", 1, "1"},
    {"The575", 575, "575"},
    {"The16384", 16384, "16384"},
    {"MinusOne", -1, "4294967295"},
    {"MinusEinval", -22, "4294967274"},
    {"TheLargestPositive", INT_MAX, "2147483647"},
    {"TheSmallest", INT_MIN, "2147483648"},
};
constexpr Number kNotZero[] = {
    {"One", 1},
    {"MinusOne", -1},
    {"MinusEinval", -22},
    {"MinusEnobufs", -105},
    {"TheLargest", INT_MAX},
    {"TheSmallest", INT_MIN},
};
constexpr Number kNegative[] = {
    {"MinusOne", -1},
    {"MinusEmsgsize", -90},
    {"MinusEnetunreach", -101},
    {"TheSmallest", INT_MIN},
};
constexpr Number kShort[] = {{"NoByte", 0}, {"OneByte", 1}, {"AllButAByte", 67}};
constexpr Number kSentCount[] = {{"Zero", 0}, {"One", 1}, {"TheLargest", INT_MAX}};

const std::string kIpv4Text =
    " | bool PMTUDApp::sendICMP4PacketTooBig(uint8_t*, size_t)] Invalid VLAN ";
const std::string kIpv6Text =
    " | bool PMTUDApp::sendICMP6PacketTooBig(const uint8_t&, size_t)] Invalid VLAN ";

/// How a frame ends that the engine has not answered.
const Lines kUnanswered = {
    "14:03:07.2 DEBUG: [SHM_Wrapper:49 | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] "
    "Discarding packet\r\n",
    "14:03:07.2 DEBUG: [SHM_Wrapper:112 | static int SHM_Wrapper_App::pkt_rx_cb("
    "const st_pktd_shm_queue_entry_data_t*, uint8_t*, int)] handle frame ret 7\r\n",
    "verdict 7"};

/// How it ends where the configuration's answer is none: the same said on both channels, or nearly.
Lines refused(const std::string& statement, const std::string& line, const std::string& toDebug) {
    return Lines{"14:03:07.2 DEBUG: [PMTUDApp:" + statement + line + "\r\n",
                 "89 PMTUD-Prot: Invalid VLAN " + toDebug} +
           kUnanswered;
}

void addIpv4Configuration(std::vector<Fault>& faults) {
    for (const auto& [name, value, text] : kNoVlan) {
        const std::string said = std::string("ID - VLAN ID: ") + text + " Egress: 77";
        faults.push_back({std::string("TheVlanIs") + name, Road::kIpv4, "cfg_vlan_l3_get_dest_vlan",
                          Failure{value}, 1,
                          upTo(untroubled(Road::kIpv4), "cfg_vlan_l3_get_dest_vlan(77)") +
                              refused("115" + kIpv4Text, said, said)});
    }
    for (const auto& [name, value, text] : kNoMtu) {
        const std::string said = std::string("MTU - VLAN ID: 100 Egress: 77 VLAN MTU: ") + text;
        faults.push_back({std::string("TheMtuIs") + name, Road::kIpv4, "cfg_vlan_l3_get_mtu",
                          Failure{value}, 1,
                          upTo(untroubled(Road::kIpv4), "cfg_vlan_l3_get_mtu(100)") +
                              refused("122" + kIpv4Text, said, said)});
    }
}

void addIpv4Socket(std::vector<Fault>& faults) {
    const Lines& road = untroubled(Road::kIpv4);
    for (const auto& [name, error] : kNoSocket) {
        faults.push_back({std::string("NoSocketIsOpenedBy") + name, Road::kIpv4, "socket",
                          Failure{-1, error}, 1,
                          upTo(road, "socket(2, 3, 1)") +
                              Lines{"89 PMTUD-Prot: Error creating socket"} + kUnanswered});
    }
    for (const auto& [name, error] : kNoOption) {
        faults.push_back({std::string("TheTimeToLiveIsNotSetBy") + name, Road::kIpv4, "setsockopt",
                          Failure{-1, error}, 1, road});
    }
    for (const auto& [name, error] : kNotSent) {
        faults.push_back({std::string("TheMessageIsNotSentBy") + name, Road::kIpv4, "sendto",
                          Failure{-1, error}, 1,
                          without(road, "89 PMTUD-Prot: ICMP message sent to source")});
    }
    for (const auto& [name, count] : kShort) {
        faults.push_back(
            {std::string("TheSocketTakes") + name, Road::kIpv4, "sendto", Failure{count}, 1, road});
    }
    for (const auto& [name, error] : kNotClosed) {
        faults.push_back({std::string("TheSocketsEndIsRefusedBy") + name, Road::kIpv4, "close",
                          Failure{-1, error}, 1, road});
    }
}

void addIpv6Configuration(std::vector<Fault>& faults) {
    for (const auto& [name, value, text] : kNoVlan) {
        const std::string id = std::string("ID: ") + text;
        faults.push_back(
            {std::string("TheVlanIs") + name, Road::kIpv6, "cfg_vlan_l3_get_dest_vlan",
             Failure{value}, 1,
             upTo(untroubled(Road::kIpv6), "cfg_vlan_l3_get_dest_vlan(77)") +
                 refused("211" + kIpv6Text, id + " (Egress ID: 77)", id + "(Egress ID: 77)")});
    }
    for (const auto& [name, value, text] : kNoMtu) {
        const std::string said = std::string("MTU: ") + text + " (VLAN ID : 100 Egress ID: 77)";
        faults.push_back({std::string("TheMtuIs") + name, Road::kIpv6, "cfg_vlan_l3_get_mtu",
                          Failure{value}, 1,
                          upTo(untroubled(Road::kIpv6), "cfg_vlan_l3_get_mtu(100)") +
                              refused("218" + kIpv6Text, said, said)});
    }
}

/// The IPv6 road without its interface: both the line and the send have the index 0.
Lines withoutInterface() {
    Lines road = untroubled(Road::kIpv6);
    for (std::string& entry : road) {
        if (entry.ends_with("] ifindex: 7\r\n")) entry.replace(entry.size() - 3, 3, "0\r\n");
        if (entry.starts_with("arpd_ipv6_pkt_send(")) entry.replace(entry.size() - 2, 2, "0)");
    }
    return road;
}

void addIpv6Socket(std::vector<Fault>& faults) {
    const Lines& road = untroubled(Road::kIpv6);
    for (const auto& [name, error] : {Errno{"Enodev", ENODEV}, Errno{"Enxio", ENXIO}}) {
        faults.push_back({std::string("ThereIsNoInterfaceBy") + name, Road::kIpv6, "if_nametoindex",
                          Failure{0, error}, 1, withoutInterface()});
    }
    for (const auto& [name, value] : kNotZero) {
        faults.push_back({std::string("TheSocketsOpeningAnswers") + name, Road::kIpv6,
                          "arpd_icmp6_socket_create", Failure{value}, 1,
                          upTo(road, "arpd_icmp6_socket_create(bcm0.20)") + kUnanswered});
    }
    for (const auto& [name, value] : kNegative) {
        faults.push_back(
            {std::string("TheSendAnswers") + name, Road::kIpv6, "arpd_ipv6_pkt_send",
             Failure{value}, 1,
             upTo(without(road, "89 PMTUD-Prot: ICMPv6 message sent to source"), "close(5)") +
                 kUnanswered});
    }
    for (const auto& [name, value] : kSentCount) {
        faults.push_back({std::string("TheSendAnswersTheCount") + name, Road::kIpv6,
                          "arpd_ipv6_pkt_send", Failure{value}, 1, road});
    }
    for (const auto& [name, error] : kNotClosed) {
        faults.push_back({std::string("TheSocketsEndIsRefusedBy") + name, Road::kIpv6, "close",
                          Failure{-1, error}, 1, road});
    }
}

/// Where a line cannot be written, it is lost, and nothing else.
void addLostLines(std::vector<Fault>& faults) {
    for (const Road road : {Road::kIpv4, Road::kIpv6}) {
        for (const auto& [name, value] : kNotZero) {
            faults.push_back({std::string("TheDebugProcessAnswers") + name, road, "debug_process",
                              Failure{value}, 9, untroubled(road)});
        }
        for (const auto& [name, error] : {Errno{"Enospc", ENOSPC}, Errno{"Epipe", EPIPE},
                                          Errno{"Eio", EIO}, Errno{"Ebadf", EBADF}}) {
            const Failure eof{EOF, error};
            faults.push_back({std::string("NoLineIsPutBy") + name, road, "fputs", eof,
                              road == Road::kIpv4 ? 11 : 13, untroubled(road)});
            faults.push_back({std::string("NoLineIsFlushedBy") + name, road, "fflush", eof,
                              road == Road::kIpv4 ? 11 : 13, untroubled(road)});
        }
    }
}

std::vector<Fault> allFaults() {
    std::vector<Fault> faults;
    addIpv4Configuration(faults);
    addIpv4Socket(faults);
    addIpv6Configuration(faults);
    addIpv6Socket(faults);
    addLostLines(faults);
    return faults;
}

class AFrame : public testing::TestWithParam<Fault> {
 protected:
    Daemon daemon;
};

TEST_P(AFrame, IsHandledTwiceInARowWhereThisFailsAndTheThirdIsAnswered) {
    const Fault& fault = GetParam();
    World world(qv::DEBUG);
    world.fail(fault.call, fault.failure, 2 * fault.times);
    for (const char* const frame : {"first", "second"}) {
        daemon.receive(world, fault.road);
        EXPECT_EQ(world.takeJournal(), fault.left) << frame;
        EXPECT_TRUE(world.open.empty()) << frame;
    }
    daemon.receive(world, fault.road);
    EXPECT_EQ(world.journal, untroubled(fault.road));
    EXPECT_TRUE(world.open.empty());
}

TEST_P(AFrame, IsHandledInTheSameWayBelowTheThreshold) {
    const Fault& fault = GetParam();
    World world(qv::WARNING);
    world.fail(fault.call, fault.failure, 2 * fault.times);
    daemon.receive(world, fault.road);
    EXPECT_EQ(world.takeJournal(), atWarning(fault.left));
    daemon.receive(world, fault.road);
    EXPECT_EQ(world.takeJournal(), atWarning(fault.left));
    EXPECT_TRUE(world.open.empty());
}

INSTANTIATE_TEST_SUITE_P(Fault, AFrame, testing::ValuesIn(allFaults()), [](const auto& instance) {
    return (instance.param.road == Road::kIpv4 ? "OfIpv4Where" : "OfIpv6Where") +
           instance.param.name;
});

class AnUntroubledFrame : public testing::TestWithParam<Road> {
 protected:
    Daemon daemon;
};

TEST_P(AnUntroubledFrame, IsAnswered) {
    World world(qv::DEBUG);
    daemon.receive(world, GetParam());
    EXPECT_EQ(world.journal, untroubled(GetParam()));
    EXPECT_TRUE(world.open.empty());
}

/// Where the process was started without its standard input, 0 is the next descriptor.
TEST_P(AnUntroubledFrame, IsAnsweredByTheDescriptor0) {
    World world(qv::DEBUG);
    world.lowest = 0;
    daemon.receive(world, GetParam());
    Lines road = untroubled(GetParam());
    for (std::string& entry : road) {
        const auto descriptor = entry.find("(5");
        if (descriptor != entry.npos) entry[descriptor + 1] = '0';
    }
    EXPECT_EQ(world.journal, road);
    EXPECT_TRUE(world.open.empty());
}

INSTANTIATE_TEST_SUITE_P(Road, AnUntroubledFrame, testing::Values(Road::kIpv4, Road::kIpv6),
                         [](const auto& instance) {
                             return instance.param == Road::kIpv4 ? "OfIpv4" : "OfIpv6";
                         });

}  // namespace
