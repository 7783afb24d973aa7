// SPDX-License-Identifier: MIT
// The script of the scripted platform: reads its lines.
#include "scripted_script.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <limits>
#include <set>
#include <sstream>

namespace scripted {
namespace {

constexpr int64_t kLeast = std::numeric_limits<int>::min();
constexpr int64_t kMost = std::numeric_limits<int>::max();

const std::set<std::string> kAnswering = {"cfg_init",
                                          "cfg_add_pid",
                                          "updateTZ",
                                          "cfg_clear_pid",
                                          "cfg_vlan_l3_get_dest_vlan",
                                          "cfg_vlan_l3_get_mtu",
                                          "cfg_vlan_l3_get_mtu_vlan",
                                          "pktd_shm_queue_init",
                                          "pktd_shm_rx_thread_init",
                                          "pktd_queue_entry_data_vlan_based_init",
                                          "shm_data_entry_post",
                                          "arpd_icmp6_socket_create",
                                          "arpd_ipv6_pkt_send",
                                          "debug_process",
                                          "usleep"};
const std::set<std::string> kThrowing = [] {
    std::set<std::string> calls = kAnswering;
    calls.insert("new");
    return calls;
}();
const std::set<std::string> kFailing = {"open", "flock", "localtime_r"};

/// What is wrong with a line.
struct Fault : std::invalid_argument {
    using std::invalid_argument::invalid_argument;
};

template <typename Number>
Number toNumber(const std::string& text, int base, int64_t least, int64_t most) {
    int64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value, base);
    if (error != std::errc() || rest != end || value < least || value > most) {
        throw Fault("'" + text + "' is no number from " + std::to_string(least) + " to " +
                    std::to_string(most));
    }
    return static_cast<Number>(value);
}

/// Reads one line, word by word.
class Line {
 public:
    explicit Line(const std::string& text) : m_in(text) {}

    bool hasWord() { return !(m_in >> std::ws).eof(); }

    std::string word() {
        std::string text;
        if (!(m_in >> text)) throw Fault("a word is missing");
        return text;
    }

    std::string oneOf(const std::set<std::string>& words) {
        std::string text = word();
        if (!words.contains(text)) throw Fault("'" + text + "' does not belong here");
        return text;
    }

    template <typename Number = int>
    Number number(int64_t least = kLeast, int64_t most = kMost) {
        return toNumber<Number>(word(), 10, least, most);
    }

    std::string rest() {
        std::string text;
        std::getline(m_in >> std::ws, text);
        return text;
    }

 private:
    std::istringstream m_in;
};

Incident readException(Line& line) {
    const std::string kind = line.oneOf({"qv", "std", "int"});
    if (kind == "int") return {Incident::Kind::kThrowInt, {}, line.number()};
    return {kind == "qv" ? Incident::Kind::kThrowQv : Incident::Kind::kThrowStd, line.rest(), 0};
}

Clock readClock(const std::string& text) {
    Clock clock{};
    int used = 0;
    const int count = sscanf(text.c_str(), "%2d:%2d:%2d.%3d%n", &clock.hour, &clock.minute,
                             &clock.second, &clock.millisecond, &used);
    if (count != 4 || used != 12 || text.size() != 12) {
        throw Fault("'" + text + "' is no time HH:MM:SS.mmm");
    }
    return clock;
}

st_pktd_shm_queue_entry_ctrl_t readRecord(Line& line) {
    st_pktd_shm_queue_entry_ctrl_t ctrl{};
    while (line.hasWord()) {
        const std::string field = line.word();
        const size_t equals = field.find('=');
        if (equals == std::string::npos) throw Fault("'" + field + "' is not FIELD=NUMBER");
        const std::string name = field.substr(0, equals);
        const std::string value = field.substr(equals + 1);
        // By member access: only that tells the compiler that a packed field is unaligned.
        if (name == "trunk") {
            ctrl.is_trunk = toNumber<uint8_t>(value, 10, 0, 255);
        } else if (name == "vtag") {
            ctrl.vtag = toNumber<uint16_t>(value, 10, 0, 65535);
        } else if (name == "unit") {
            ctrl.unit = toNumber<int32_t>(value, 10, kLeast, kMost);
        } else if (name == "port") {
            ctrl.port = toNumber<int32_t>(value, 10, kLeast, kMost);
        } else if (name == "tid") {
            ctrl.tid = toNumber<int32_t>(value, 10, kLeast, kMost);
        } else if (name == "vid") {
            ctrl.vid = toNumber<int32_t>(value, 10, kLeast, kMost);
        } else if (name == "proto") {
            ctrl.proto = toNumber<int32_t>(value, 10, kLeast, kMost);
        } else if (name == "egress") {
            ctrl.egress = toNumber<int32_t>(value, 10, kLeast, kMost);
        } else {
            throw Fault("no field '" + name + "' of a record");
        }
    }
    return ctrl;
}

std::vector<uint8_t> readFrame(Line& line) {
    std::string digits = line.rest();
    std::erase(digits, ' ');
    if (digits.empty() || digits.size() % 2 != 0) throw Fault("no whole bytes");
    if (digits.size() / 2 > kFrameBuffer) throw Fault("frame too long");
    std::vector<uint8_t> frame;
    for (size_t i = 0; i < digits.size(); i += 2) {
        frame.push_back(toNumber<uint8_t>(digits.substr(i, 2), 16, 0, 255));
    }
    return frame;
}

/// False: it was the last line.
bool readLine(Line& line, st_pktd_shm_queue_entry_ctrl_t& ctrl, Script& script) {
    const std::string keyword = line.word();
    if (keyword == "answer") {
        const std::string call = line.oneOf(kAnswering);
        script.answers[call] = line.number();
    } else if (keyword == "vlan") {
        const int egress = line.number();
        script.vlans[egress] = line.number();
    } else if (keyword == "mtu") {
        const int vlan = line.number();
        script.mtus[vlan] = line.number<uint32_t>(0, std::numeric_limits<uint32_t>::max());
    } else if (keyword == "throw") {
        const std::string call = line.oneOf(kThrowing);
        const int nth = line.number(1);
        script.incidents[{call, nth}] = readException(line);
    } else if (keyword == "fail") {
        const std::string call = line.oneOf(kFailing);
        const int nth = line.number(1);
        script.incidents[{call, nth}] = {Incident::Kind::kFail, {}, line.number(1, 4095)};
    } else if (keyword == "clock") {
        script.clock = readClock(line.word());
    } else if (keyword == "arpd") {
        script.sendsIcmp6 = line.oneOf({"real"}) == "real";
    } else if (keyword == "record") {
        ctrl = readRecord(line);
    } else if (keyword == "frame") {
        script.deliveries.push_back({ctrl, readFrame(line)});
    } else if (keyword != "end") {
        throw Fault("no statement '" + keyword + "'");
    }
    if (line.hasWord()) throw Fault("surplus '" + line.word() + "'");
    return keyword != "end";
}

}  // namespace

Script readScript(std::istream& in) {
    Script script;
    st_pktd_shm_queue_entry_ctrl_t ctrl{};
    bool ended = false;
    int number = 0;
    for (std::string text; std::getline(in, text);) {
        ++number;
        const size_t begin = text.find_first_not_of(" \t");
        if (begin == std::string::npos || text[begin] == '#') continue;
        if (ended) throw BadLine(number, "a line after 'end'");
        try {
            Line line(text);
            ended = !readLine(line, ctrl, script);
        } catch (const Fault& fault) {
            throw BadLine(number, fault.what());
        }
    }
    if (!ended) throw BadLine(number + 1, "no 'end'");
    return script;
}

}  // namespace scripted
