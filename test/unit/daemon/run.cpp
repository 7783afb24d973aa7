// SPDX-License-Identifier: MIT
// The daemon's objects, the frames that they are given, and each frame's entries in run.golden.
#include "run.h"

#include <exception>
#include <fstream>
#include <map>
#include <optional>

#include "allocations.h"

using allocations::Paused;

namespace run {

namespace {

std::vector<Frame> makeFrames() {
    const Bytes addresses = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e,
                             0x02, 0x00, 0x00, 0x00, 0x00, 0x0a};

    const Bytes tag10 = {0x81, 0x00, 0x60, 0x0a};
    const Bytes ipv4 = {0x08, 0x00,                                      //
                        0x45, 0x00, 0x05, 0xdc, 0x12, 0x34, 0x40, 0x00,  //
                        0x40, 0x11, 0xbe, 0xef, 0xc0, 0x00, 0x02, 0x01,  //
                        0xcb, 0x00, 0x71, 0x09, 0x30, 0x39, 0x00, 0x50};
    const Bytes ipv4Options = {0x08, 0x00,                                      //
                               0x4f, 0xb8, 0x06, 0x40, 0xff, 0xff, 0xff, 0xff,  //
                               0x01, 0x06, 0x00, 0x01, 0x0a, 0x00, 0x00, 0x01,  //
                               0xff, 0xfe, 0xfd, 0xfc, 0x94, 0x04, 0x00, 0x00};
    const Bytes ipv6 = {0x86, 0xdd,                                      //
                        0x6a, 0xbc, 0xde, 0xf1, 0x05, 0xb4, 0x06, 0x40,  //
                        0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x00,  //
                        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01,  //
                        0x20, 0x01, 0x0d, 0xb8, 0xff, 0x00, 0x00, 0x00,  //
                        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xab, 0xcd,  //
                        0x80, 0x00, 0x01, 0x02};
    const Bytes shortIpv6 = {0x86, 0xdd,                                      //
                             0x60, 0x00, 0x00, 0x00, 0x00, 0x00, 0x3b, 0xff,  //
                             0xfe, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //
                             0x02, 0x00, 0x00, 0xff, 0xfe, 0x00, 0x00, 0x0a,  //
                             0x20, 0x01, 0x0d, 0xb8, 0xff, 0x00, 0x00, 0x00,  //
                             0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02};

    return {
        {"an IPv4 packet that is too large", 1518, addresses + tag10 + ipv4, 20},
        {"an IPv6 packet that is too large", 1518, addresses + tag10 + ipv6, 20},
        {"an IPv4 packet with options", 1618,
         addresses + Bytes{0x81, 0x00, 0xff, 0xff} + ipv4Options, 30},
        {"an IPv6 packet without payload", 58, addresses + tag10 + shortIpv6, 30},
        {"an IPv4 packet to an unknown egress", 1518, addresses + tag10 + ipv4, -5, qv::INFO},
        {"an IPv6 packet to an unknown egress", 1518, addresses + tag10 + ipv6, 4095, qv::INFO},
        {"an IPv4 packet to a VLAN with an MTU of 575", 1518, addresses + tag10 + ipv4, 40,
         qv::INFO},
        {"an IPv6 packet to a VLAN with an MTU of 4294967295", 1518, addresses + tag10 + ipv6, 50,
         qv::INFO},
        {"an ARP frame", 64, addresses + tag10 + Bytes{0x08, 0x06}, 20},
        {"an untagged frame", 1514, addresses + Bytes{0x08, 0x00, 0x45, 0x00}, 20},
        {"a frame with a service tag outside", 1522,
         addresses + Bytes{0x88, 0xa8, 0x00, 0x64, 0x81, 0x00, 0x00, 0x0a}, 20},
    };
}

uint32_t mtuOf(int vlan) {
    if (vlan == 30) return 9000;
    if (vlan == 40) return 575;
    if (vlan == 50) return 4294967295U;
    return 1400;
}

/// The sections of run.golden by their titles, in entries as the journal has them: a line of the
/// file channel extends to its CR LF.
std::map<std::string, Lines> readGolden() {
    std::ifstream file(PMTUD_GOLDEN_FILE, std::ios::binary);
    std::map<std::string, Lines> sections;
    std::string title;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("== ")) {
            title = line.substr(3);
            continue;
        }
        const bool isLogged = line.starts_with("14:03:07.2 ");
        for (std::string rest; isLogged && !line.ends_with('\r');) {
            if (!std::getline(file, rest)) break;
            line += '\n' + rest;
        }
        sections[title].push_back(isLogged ? line + '\n' : line);
    }
    return sections;
}

}  // namespace

const std::vector<Frame>& frames() {
    static const std::vector<Frame> all = makeFrames();
    return all;
}

const Lines& golden(const Frame& frame) {
    static const std::map<std::string, Lines> sections = readGolden();
    return sections.at(frame.title);
}

Lines goldenAtWarning(const Frame& frame) {
    Lines left = golden(frame);
    std::erase_if(left, [](const std::string& entry) { return entry.ends_with("\r\n"); });
    return left;
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

Daemon::Daemon() {
    fake::reset();
    fake::platform().destVlan = [](int egress) { return egress; };
    fake::platform().vlanMtu = mtuOf;
}

Daemon::~Daemon() {
    getShmWrapperApp()->setHandler(nullptr);
    fake::reset();
}

void Daemon::receive(Journal& journal, const Frame& frame) {
    receive(journal, frame, recordOf(frame));
}

void Daemon::receive(Journal& journal, const Frame& frame,
                     const st_pktd_shm_queue_entry_data_t& record) {
    std::optional<Paused> paused(std::in_place);
    Bytes buffer = frame.bytes;
    buffer.resize(18 + 40 + 65535);
    const auto length = static_cast<int>(frame.length);
    try {
        paused.reset();
        const int verdict = SHM_Wrapper_App::pkt_rx_cb(&record, buffer.data(), length);
        const Paused again;
        journal.note("verdict " + std::to_string(verdict));
    } catch (const std::exception& error) {
        const Paused again;
        journal.note(std::string("throws ") + error.what());
    }
}

}  // namespace run
