// SPDX-License-Identifier: MIT
// The scripted platform as a library, for the target's daemon in the lab. The file that
// PMTUD_SCRIPT names states what it answers and which frames it delivers, one statement per line:
//
//   arpd real           ICMPv6 messages are sent through raw sockets, otherwise only recorded
//   vlan EGRESS VLAN    cfg_vlan_l3_get_dest_vlan(EGRESS) returns VLAN, otherwise 0
//   mtu VLAN MTU        cfg_vlan_l3_get_mtu(VLAN) returns MTU, otherwise 0
//   record FIELD=NUMBER ...
//                       the record of the frames that follow: port, vid, proto, vtag, egress
//   frame HEX ...       a frame to deliver, two digits per byte
//   end                 the last line
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

#include "fake_calls.h"
#include "fake_platform.h"

namespace {

struct Delivery {
    st_pktd_shm_queue_entry_data_t record;
    std::vector<uint8_t> frame;
};

struct Script {
    bool sendsIcmp6 = false;
    std::map<int, int> vlans;
    std::map<int, uint32_t> mtus;
    std::vector<Delivery> deliveries;
};

st_pktd_shm_queue_entry_data_t readRecord(std::istringstream words) {
    std::map<std::string, int> fields;
    for (std::string name; std::getline(words >> std::ws, name, '=');) words >> fields[name];
    st_pktd_shm_queue_entry_data_t record{};
    record.ctrl.port = fields["port"];
    record.ctrl.vid = fields["vid"];
    record.ctrl.proto = fields["proto"];
    record.ctrl.vtag = static_cast<uint16_t>(fields["vtag"]);
    record.ctrl.egress = fields["egress"];
    return record;
}

std::vector<uint8_t> readFrame(std::string digits) {
    std::erase(digits, ' ');
    std::vector<uint8_t> frame;
    for (size_t i = 0; i < digits.size(); i += 2) {
        frame.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    }
    return frame;
}

/// Throws std::exception if the file cannot be read or a line is not a statement.
Script readScript(const char* name) {
    Script script;
    st_pktd_shm_queue_entry_data_t record{};
    std::ifstream file(name);
    file.exceptions(std::ios::failbit);
    for (std::string statement; std::getline(file, statement) && statement != "end";) {
        std::istringstream words(statement);
        std::string keyword;
        int key = 0;
        words >> keyword;
        if (keyword == "vlan" && words >> key && words >> script.vlans[key]) continue;
        if (keyword == "mtu" && words >> key && words >> script.mtus[key]) continue;
        if (keyword == "record") {
            record = readRecord(std::move(words));
        } else if (keyword == "frame") {
            script.deliveries.push_back({record, readFrame(statement.substr(sizeof "frame"))});
        } else if (statement == "arpd real") {
            script.sendsIcmp6 = true;
        } else {
            throw std::invalid_argument(statement);
        }
    }
    return script;
}

void deliverFrames(const std::vector<Delivery>& deliveries, pktd_rx_cb_t callback) {
    for (const auto& [record, frame] : deliveries) {
        // What follows the frame is readable and zero, as the interface requires.
        std::vector<uint8_t> buffer = frame;
        buffer.resize(18 + 40 + 65535);
        callback(&record, buffer.data(), static_cast<int>(frame.size()));
    }
}

int createRawSocket(int32_t* fd) {
    const int created = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
    if (created == -1) return -errno;
    const std::string& name = fake::platform().interface;
    if (setsockopt(created, SOL_SOCKET, SO_BINDTODEVICE, name.data(),
                   static_cast<socklen_t>(name.size())) != 0) {
        const int error = errno;
        close(created);
        return -error;
    }
    *fd = created;
    return 0;
}

int sendRaw() {
    const fake::Icmp6Message& message = fake::platform().icmp6Messages.back();
    sockaddr_in6 to = message.to;
    to.sin6_scope_id = message.ifindex;
    const auto sent = sendto(message.fd, message.bytes.data(), message.bytes.size(), 0,
                             reinterpret_cast<const sockaddr*>(&to), sizeof to);
    return sent == -1 ? -errno : 0;
}

Script& script() {
    // Never destroyed: the receive thread may still read it when the process exits.
    static Script& only = *new Script;
    return only;
}

void installAnswers() {
    if (const char* const name = getenv("PMTUD_SCRIPT"); name != nullptr) {
        try {
            script() = readScript(name);
        } catch (const std::exception& error) {
            fprintf(stderr, "pmtud-scripted: %s: %s\n", name, error.what());
            _exit(2);
        }
    }
    fake::Platform& platform = fake::platform();
    platform.destVlan = [](int egress) { return script().vlans[egress]; };
    platform.vlanMtu = [](int vlan) { return script().mtus[vlan]; };
    if (!script().sendsIcmp6) return;
    platform.icmp6SocketCreate = createRawSocket;
    platform.icmp6Send = sendRaw;
}

}  // namespace

/// No call fails; each is written to standard error, for a person to read.
std::optional<fake::Failure> fake::made(const char* call, const std::string& entry) {
    static std::once_flag installed;
    std::call_once(installed, installAnswers);
    fprintf(stderr, "%s\n", entry.c_str());
    if (std::string_view(call) == "pktd_shm_rx_thread_init") {
        std::thread(deliverFrames, script().deliveries, platform().callback).detach();
    }
    return std::nullopt;
}
