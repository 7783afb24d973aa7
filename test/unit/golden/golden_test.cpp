// SPDX-License-Identifier: MIT
// One scripted run, with every log line and every message, against a checked-in text.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

#include "PMTUDApp.h"
#include "SHM_Wrapper.h"
#include "VlanConfig.h"
#include "captured_log.h"
#include "fake_platform.h"
#include "fake_syscalls.h"

namespace {

using Bytes = std::vector<uint8_t>;

/// A frame's first bytes, and zeros up to its length and as far as any dump reads.
struct Frame {
    const char* title;
    std::size_t length;
    Bytes bytes;
    int egress;
};

const Bytes kAddresses = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0x02, 0x00, 0x00, 0x00, 0x00, 0x0a};

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

const Bytes kTag10 = {0x81, 0x00, 0x60, 0x0a};
const Bytes kIpv4 = {0x08, 0x00,                                      //
                     0x45, 0x00, 0x05, 0xdc, 0x12, 0x34, 0x40, 0x00,  //
                     0x40, 0x11, 0xbe, 0xef, 0xc0, 0x00, 0x02, 0x01,  //
                     0xcb, 0x00, 0x71, 0x09, 0x30, 0x39, 0x00, 0x50};
const Bytes kIpv4Options = {0x08, 0x00,                                      //
                            0x4f, 0xb8, 0x06, 0x40, 0xff, 0xff, 0xff, 0xff,  //
                            0x01, 0x06, 0x00, 0x01, 0x0a, 0x00, 0x00, 0x01,  //
                            0xff, 0xfe, 0xfd, 0xfc, 0x94, 0x04, 0x00, 0x00};
const Bytes kIpv6 = {0x86, 0xdd,                                      //
                     0x6a, 0xbc, 0xde, 0xf1, 0x05, 0xb4, 0x06, 0x40,  //
                     0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x00,  //
                     0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01,  //
                     0x20, 0x01, 0x0d, 0xb8, 0xff, 0x00, 0x00, 0x00,  //
                     0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xab, 0xcd,  //
                     0x80, 0x00, 0x01, 0x02};
const Bytes kShortIpv6 = {0x86, 0xdd,                                      //
                          0x60, 0x00, 0x00, 0x00, 0x00, 0x00, 0x3b, 0xff,  //
                          0xfe, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //
                          0x02, 0x00, 0x00, 0xff, 0xfe, 0x00, 0x00, 0x0a,  //
                          0x20, 0x01, 0x0d, 0xb8, 0xff, 0x00, 0x00, 0x00,  //
                          0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02};

const std::vector<Frame> kFrames = {
    {"an IPv4 packet that is too large", 1518, kAddresses + kTag10 + kIpv4, 20},
    {"an IPv4 packet with options", 1618, kAddresses + Bytes{0x81, 0x00, 0xff, 0xff} + kIpv4Options,
     30},
    {"an IPv6 packet that is too large", 1518, kAddresses + kTag10 + kIpv6, 20},
    {"an IPv6 packet without payload", 58, kAddresses + kTag10 + kShortIpv6, 30},
    {"an IPv4 packet to an unknown egress", 1518, kAddresses + kTag10 + kIpv4, -5},
    {"an IPv6 packet to an unknown egress", 1518, kAddresses + kTag10 + kIpv6, 4095},
    {"an IPv4 packet to a VLAN with an MTU of 575", 1518, kAddresses + kTag10 + kIpv4, 40},
    {"an IPv6 packet to a VLAN with an MTU of 4294967295", 1518, kAddresses + kTag10 + kIpv6, 50},
    {"an ARP frame", 64, kAddresses + kTag10 + Bytes{0x08, 0x06}, 20},
    {"an untagged frame", 1514, kAddresses + Bytes{0x08, 0x00, 0x45, 0x00}, 20},
    {"a frame with a service tag outside", 1522,
     kAddresses + Bytes{0x88, 0xa8, 0x00, 0x64, 0x81, 0x00, 0x00, 0x0a}, 20},
};

std::string hex(const Bytes& bytes) {
    std::ostringstream os;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        os << (i % 32 == 0 ? "\n    " : " ") << std::hex << std::setw(2) << std::setfill('0')
           << unsigned{bytes[i]};
    }
    return os.str();
}

uint32_t mtuOf(int vlan) {
    if (vlan == 30) return 9000;
    if (vlan == 40) return 575;
    if (vlan == 50) return 4294967295U;
    return 1400;
}

/// Everything that one frame makes the daemon write and send.
std::string receive(const Frame& frame, const st_pktd_shm_queue_entry_data_t& record,
                    qv::LogLevel level) {
    fake::resetSyscalls();
    fake::platform().calls.clear();
    fake::platform().debugLines.clear();
    fake::platform().icmp6Messages.clear();
    Bytes buffer(18 + 40 + 65535);
    std::copy(frame.bytes.begin(), frame.bytes.end(), buffer.begin());

    const CapturedLog log(level);
    const int verdict =
        SHM_Wrapper_App::pkt_rx_cb(&record, buffer.data(), static_cast<int>(frame.length));

    std::ostringstream os;
    os << "== " << frame.title << "\n" << log.text();
    for (const fake::DebugLine& line : fake::platform().debugLines) {
        os << "debug process " << line.channel << ":" << line.text << "\n";
    }
    for (const std::string& call : fake::platform().calls) os << "platform " << call << "\n";
    for (const std::string& call : fake::syscalls().calls) os << "system " << call << "\n";
    for (const fake::SentMessage& message : fake::syscalls().sent) {
        os << "ICMP message to " << std::hex << ntohl(message.to.sin_addr.s_addr) << std::dec << ":"
           << hex(message.bytes) << "\n";
    }
    for (const fake::Icmp6Message& message : fake::platform().icmp6Messages) {
        os << "ICMPv6 message to "
           << hex({message.to.sin6_addr.s6_addr, message.to.sin6_addr.s6_addr + 16}) << ":"
           << hex(message.bytes) << "\n";
    }
    os << "verdict " << verdict << "\n";
    return os.str();
}

st_pktd_shm_queue_entry_data_t recordOf(const Frame& frame) {
    st_pktd_shm_queue_entry_data_t record{};
    record.ctrl.port = 4;
    record.ctrl.vid = 10;
    record.ctrl.proto = 0x0800;
    record.ctrl.vtag = 10;
    record.ctrl.egress = frame.egress;
    return record;
}

/// A record whose dump is the same in either byte order.
st_pktd_shm_queue_entry_data_t symmetricRecord() {
    st_pktd_shm_queue_entry_data_t record;
    memset(&record, 0x0a, sizeof record);
    return record;
}

std::string contentOf(const char* path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream os;
    os << file.rdbuf();
    return os.str();
}

TEST(Golden, EveryLineAndEveryMessageOfTheRunIsTheSameOnEveryMachine) {
    fake::resetPlatform();
    fake::resetClock();
    fake::platform().destVlan = [](int egress) { return egress; };
    fake::platform().vlanMtu = mtuOf;
    VlanConfig config;
    PMTUDApp app(&config, getShmWrapperApp());
    std::string run;
    for (const Frame& frame : kFrames) run += receive(frame, recordOf(frame), qv::DEBUG);
    run += receive(kFrames.front(), symmetricRecord(), qv::DEBUG4);

    if (run != contentOf(PMTUD_GOLDEN_FILE)) {
        std::ofstream(PMTUD_GOLDEN_ACTUAL, std::ios::binary) << run;
        FAIL() << "differs; see: diff -u " PMTUD_GOLDEN_FILE " " PMTUD_GOLDEN_ACTUAL;
    }
}

}  // namespace
