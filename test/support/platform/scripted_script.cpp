// SPDX-License-Identifier: MIT
// The script of the scripted platform: reads its lines.
#include "scripted_script.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <limits>
#include <set>
#include <sstream>

namespace scripted {
namespace {

constexpr int kLeast = std::numeric_limits<int>::min();
constexpr int kMost = std::numeric_limits<int>::max();

bool answers(const std::string& call) {
    static const std::set<std::string> calls = {"cfg_init",
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
    return calls.contains(call);
}

/// What is wrong with a line.
struct Fault : std::invalid_argument {
    using std::invalid_argument::invalid_argument;
};

/// Reads one line, word by word.
class Line {
 public:
    explicit Line(const std::string& text) : m_in(text) {}

    std::optional<std::string> nextWord() {
        std::string text;
        if (!(m_in >> text)) return std::nullopt;
        return text;
    }

    std::string word(const char* what) {
        const std::optional<std::string> text = nextWord();
        if (!text) throw Fault(std::string("missing ") + what);
        return *text;
    }

    int64_t number(const char* what, int64_t least, int64_t most) {
        return toNumber(word(what), what, least, most);
    }

    int integer(const char* what) { return static_cast<int>(number(what, kLeast, kMost)); }

    std::string rest() {
        std::string text;
        std::getline(m_in >> std::ws, text);
        return text;
    }

    void ends() {
        const std::optional<std::string> surplus = nextWord();
        if (surplus) throw Fault("surplus '" + *surplus + "'");
    }

    static int64_t toNumber(const std::string& text, const char* what, int64_t least,
                            int64_t most) {
        int64_t value = 0;
        const char* const end = text.data() + text.size();
        const auto [rest, error] = std::from_chars(text.data(), end, value);
        if (error != std::errc() || rest != end || value < least || value > most) {
            throw Fault(std::string(what) + " '" + text + "' is no number from " +
                        std::to_string(least) + " to " + std::to_string(most));
        }
        return value;
    }

 private:
    std::istringstream m_in;
};

void readAnswer(Line& line, Script& script) {
    const std::string call = line.word("call");
    if (!answers(call)) throw Fault("no call '" + call + "' to answer");
    script.answers[call] = line.integer("answer");
    line.ends();
}

void readThrow(Line& line, Script& script) {
    const std::string call = line.word("call");
    if (!answers(call) && call != "new") {
        throw Fault("no call '" + call + "' to throw from");
    }
    const int nth = static_cast<int>(line.number("count", 1, kMost));
    const std::string kind = line.word("kind of exception");
    Incident incident{Incident::Kind::kThrowQv, {}, 0};
    if (kind == "int") {
        incident.kind = Incident::Kind::kThrowInt;
        incident.number = line.integer("int");
        line.ends();
    } else if (kind == "qv" || kind == "std") {
        if (kind == "std") incident.kind = Incident::Kind::kThrowStd;
        incident.text = line.rest();
    } else {
        throw Fault("no kind of exception '" + kind + "'");
    }
    script.incidents[{call, nth}] = incident;
}

void readFail(Line& line, Script& script) {
    const std::string call = line.word("call");
    if (call != "open" && call != "flock" && call != "localtime_r") {
        throw Fault("no call '" + call + "' to fail");
    }
    const int nth = static_cast<int>(line.number("count", 1, kMost));
    const int number = static_cast<int>(line.number("errno", 1, 4095));
    line.ends();
    script.incidents[{call, nth}] = {Incident::Kind::kFail, {}, number};
}

void readClock(Line& line, Script& script) {
    const std::string text = line.word("time");
    line.ends();
    Clock clock{};
    int used = 0;
    const int count = sscanf(text.c_str(), "%2d:%2d:%2d.%3d%n", &clock.hour, &clock.minute,
                             &clock.second, &clock.millisecond, &used);
    if (count != 4 || used != 12 || text.size() != 12) {
        throw Fault("'" + text + "' is no time HH:MM:SS.mmm");
    }
    script.clock = clock;
}

void setField(st_pktd_shm_queue_entry_ctrl_t& ctrl, const std::string& name,
              const std::string& value) {
    if (name == "trunk") {
        ctrl.is_trunk = static_cast<uint8_t>(Line::toNumber(value, "trunk", 0, 255));
        return;
    }
    if (name == "vtag") {
        ctrl.vtag = static_cast<uint16_t>(Line::toNumber(value, "vtag", 0, 65535));
        return;
    }
    // By offset and memcpy: a packed field is unaligned.
    static const std::map<std::string, std::size_t> offsets = {
        {"unit", offsetof(st_pktd_shm_queue_entry_ctrl_t, unit)},
        {"port", offsetof(st_pktd_shm_queue_entry_ctrl_t, port)},
        {"tid", offsetof(st_pktd_shm_queue_entry_ctrl_t, tid)},
        {"vid", offsetof(st_pktd_shm_queue_entry_ctrl_t, vid)},
        {"proto", offsetof(st_pktd_shm_queue_entry_ctrl_t, proto)},
        {"egress", offsetof(st_pktd_shm_queue_entry_ctrl_t, egress)}};
    const auto offset = offsets.find(name);
    if (offset == offsets.end()) throw Fault("no field '" + name + "' of a record");
    const auto number = static_cast<int32_t>(Line::toNumber(value, name.c_str(), kLeast, kMost));
    memcpy(reinterpret_cast<uint8_t*>(&ctrl) + offset->second, &number, sizeof number);
}

st_pktd_shm_queue_entry_ctrl_t readRecord(Line& line) {
    st_pktd_shm_queue_entry_ctrl_t ctrl{};
    while (const std::optional<std::string> field = line.nextWord()) {
        const std::size_t equals = field->find('=');
        if (equals == std::string::npos) throw Fault("'" + *field + "' is not FIELD=NUMBER");
        setField(ctrl, field->substr(0, equals), field->substr(equals + 1));
    }
    return ctrl;
}

std::vector<uint8_t> readFrame(Line& line) {
    std::string digits = line.rest();
    digits.erase(std::remove(digits.begin(), digits.end(), ' '), digits.end());
    if (digits.empty() || digits.size() % 2 != 0) throw Fault("no whole bytes");
    if (digits.size() / 2 > kFrameBuffer) throw Fault("frame too long");

    std::vector<uint8_t> frame;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        unsigned byte = 0;
        const char* const end = digits.data() + i + 2;
        const auto [rest, error] = std::from_chars(digits.data() + i, end, byte, 16);
        if (error != std::errc() || rest != end) {
            throw Fault("'" + digits.substr(i, 2) + "' is no byte");
        }
        frame.push_back(static_cast<uint8_t>(byte));
    }
    return frame;
}

/// False: it was the last line.
bool readLine(const std::string& text, st_pktd_shm_queue_entry_ctrl_t& ctrl, Script& script) {
    Line line(text);
    const std::string keyword = line.word("statement");
    if (keyword == "answer") {
        readAnswer(line, script);
    } else if (keyword == "vlan") {
        const int egress = line.integer("egress");
        script.vlans[egress] = line.integer("VLAN");
        line.ends();
    } else if (keyword == "mtu") {
        const int vlan = line.integer("VLAN");
        script.mtus[vlan] =
            static_cast<uint32_t>(line.number("MTU", 0, std::numeric_limits<uint32_t>::max()));
        line.ends();
    } else if (keyword == "throw") {
        readThrow(line, script);
    } else if (keyword == "fail") {
        readFail(line, script);
    } else if (keyword == "clock") {
        readClock(line, script);
    } else if (keyword == "arpd") {
        const std::string how = line.word("'real'");
        if (how != "real") throw Fault("'" + how + "' is not 'real'");
        line.ends();
        script.sendsIcmp6 = true;
    } else if (keyword == "record") {
        ctrl = readRecord(line);
    } else if (keyword == "frame") {
        script.deliveries.push_back({ctrl, readFrame(line)});
    } else if (keyword == "end") {
        line.ends();
        return false;
    } else {
        throw Fault("no statement '" + keyword + "'");
    }
    return true;
}

}  // namespace

Script readScript(std::istream& in) {
    Script script;
    st_pktd_shm_queue_entry_ctrl_t ctrl{};
    bool ended = false;
    int number = 0;
    for (std::string text; std::getline(in, text);) {
        ++number;
        const std::size_t begin = text.find_first_not_of(" \t");
        if (begin == std::string::npos || text[begin] == '#') continue;
        if (ended) throw BadLine(number, "a line behind 'end'");
        try {
            ended = !readLine(text, ctrl, script);
        } catch (const Fault& fault) {
            throw BadLine(number, fault.what());
        }
    }
    if (!ended) throw BadLine(number + 1, "no 'end'");
    return script;
}

}  // namespace scripted
