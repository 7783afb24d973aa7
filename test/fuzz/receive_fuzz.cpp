// SPDX-License-Identifier: MIT
// Fuzzes the receive callback: frame, record and every answer that it gets come from the input.
#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <boost/system/system_error.hpp>
#include <cerrno>
#include <climits>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "PMTUDApp.h"
#include "SHM_Wrapper.h"
#include "VlanConfig.h"
#include "captured_log.h"
#include "fake_platform.h"
#include "fake_syscalls.h"
#include "guarded_memory.h"
#include "input.h"

using fuzz::GuardedMemory;
using fuzz::Input;
using fuzz::require;
using fuzz::Span;

namespace {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

constexpr int kFramesPerInput = 8;
constexpr size_t kLargestFrame = 18 + 65575;

bool addressesFail = false;

}  // namespace

extern "C" {

const char* __real_inet_ntop(int family, const void* address, char* text, socklen_t size);

const char* __wrap_inet_ntop(int family, const void* address, char* text, socklen_t size) {
    if (!addressesFail) return __real_inet_ntop(family, address, text, size);
    errno = ENOSPC;
    return nullptr;
}

}  // extern "C"

namespace {

// What everything that the daemon calls answers while one frame is handled.
struct Answers {
    explicit Answers(Input& input) {
        const uint8_t choice = input.byte();
        constexpr std::array<int, 7> kVlans = {100, 1, 4094, 0, 4095, -1, INT_MIN};
        vlan = choice % 8 == 7 ? input.number<int32_t>() : kVlans[choice % 8];
        constexpr std::array<uint32_t, 15> kMtus = {
            1500, 576,  16383, 1280,       9000,       575,        16384, 0,
            1499, 1501, 577,   4294967295, 2147483648, 2147483647, 65535};
        const unsigned mtuChoice = choice / 8 % 16;
        mtu = mtuChoice == 15 ? input.number<uint32_t>() : kMtus[mtuChoice];

        const uint8_t failing = input.byte();
        socket = (failing & 0x01) != 0 ? -1 : 404;
        setsockopt = (failing & 0x02) != 0 ? -1 : 0;
        sendto = (failing & 0x04) != 0 ? -1 : 0;
        close = (failing & 0x08) != 0 ? -1 : 0;
        icmp6Create = (failing & 0x10) != 0 ? input.number<int32_t>() : 0;
        icmp6Send = (failing & 0x20) != 0 ? input.number<int32_t>() : 0;
        clockFails = (failing & 0x40) != 0;
        addressesFail = (failing & 0x80) != 0;
        interface = input.byte();
    }

    bool vlanIsValid() const { return vlan >= 1 && vlan <= 4094; }
    bool mtuIsValid() const { return vlanIsValid() && mtu >= 576 && mtu <= 16383; }

    void install() const {
        fake::Platform& platform = fake::platform();
        platform.destVlan = [answer = vlan](int) { return answer; };
        platform.vlanMtu = [answer = mtu](int) { return answer; };
        platform.icmp6SocketCreate = [answer = icmp6Create](int32_t* fd) {
            *fd = 606;
            return answer;
        };
        platform.icmp6Send = [answer = icmp6Send] { return answer; };
        fake::Syscalls& syscalls = fake::syscalls();
        syscalls.socket = [answer = socket] { return answer; };
        syscalls.setsockopt = [answer = setsockopt] { return answer; };
        syscalls.sendto = [answer = sendto](size_t) { return long{answer}; };
        syscalls.close = [answer = close] { return answer; };
        syscalls.ifNameToIndex = [answer = interface](const std::string&) { return answer; };
        fake::clock().localtimeFails = clockFails;
        ::addressesFail = addressesFail;
    }

    int vlan;
    uint32_t mtu;
    int socket;
    int setsockopt;
    int sendto;
    int close;
    int icmp6Create;
    int icmp6Send;
    bool clockFails;
    bool addressesFail;
    unsigned interface;
};

st_pktd_shm_queue_entry_data_t drawRecord(Input& input) {
    st_pktd_shm_queue_entry_data_t record;
    memset(&record, input.byte(), sizeof record);
    record.ctrl.is_trunk = input.byte();
    record.ctrl.egress = input.number<int32_t>();
    record.ctrl.unit = input.number<int32_t>();
    record.ctrl.port = input.number<int32_t>();
    record.ctrl.tid = input.number<int32_t>();
    record.ctrl.vid = input.number<int32_t>();
    record.ctrl.proto = input.number<int32_t>();
    record.ctrl.vtag = input.number<uint16_t>();
    return record;
}

// What the file channel is to write, and where to.
struct Channel {
    explicit Channel(uint8_t choice) : level(choice % 9 - 1), open(choice < 0xF0) {}

    bool writes(qv::LogLevel statement) const { return open && statement <= level; }

    int32_t level;
    bool open;
};

// A frame's bytes as far as the input supplies them; zeros follow.
class FrameBytes {
 public:
    explicit FrameBytes(Span known) : m_known(known) {}

    unsigned at(size_t i) const { return i < m_known.size() ? m_known[i] : 0; }
    unsigned number(size_t i) const { return at(i) * 256 + at(i + 1); }

    Bytes slice(size_t begin, size_t end) const {
        const Span known = m_known.first(std::min(end, m_known.size()));
        const Span wanted = known.subspan(std::min(begin, known.size()));
        Bytes bytes(wanted.begin(), wanted.end());
        bytes.resize(end - begin);
        return bytes;
    }

    bool tagged() const { return number(12) == 0x8100; }
    unsigned vlan() const { return number(14) % 4096; }
    bool ipv4() const { return tagged() && number(16) == 0x0800; }
    bool ipv6() const { return tagged() && number(16) == 0x86DD; }
    size_t ipv6Packet() const { return 40 + number(22); }

 private:
    Span m_known;
};

size_t ipv6Message(const FrameBytes& frame, uint32_t mtu) {
    const size_t longest = std::min<size_t>(mtu, 1500);
    return std::min(longest, frame.ipv6Packet() + 8);
}

// How many bytes there must be of a frame: its headers, what is quoted, what is dumped.
size_t readableOf(const FrameBytes& frame, const Answers& answers, const Channel& channel) {
    if (frame.ipv4()) return 18 + 60;
    if (!frame.ipv6()) return 18;
    if (channel.writes(qv::DEBUG)) return 18 + frame.ipv6Packet();
    const size_t quote = answers.mtuIsValid() ? ipv6Message(frame, answers.mtu) - 8 : 0;
    return 18 + std::max<size_t>(40, quote);
}

// The calls and messages that a frame must come to.

Lines expectedCalls(const FrameBytes& frame, const Answers& answers, int egress, bool throws) {
    if (!frame.ipv4() && !frame.ipv6()) return {};
    Lines calls = {"cfg_vlan_l3_get_dest_vlan(" + std::to_string(egress) + ")"};
    if (!answers.vlanIsValid()) return calls;
    calls.push_back("cfg_vlan_l3_get_mtu(" + std::to_string(answers.vlan) + ")");
    if (!answers.mtuIsValid() || throws || frame.ipv4()) return calls;
    calls.push_back("arpd_icmp6_socket_create(\"bcm0." + std::to_string(frame.vlan()) + "\")");
    if (answers.icmp6Create == 0)
        calls.push_back("arpd_ipv6_pkt_send(606, " + std::to_string(answers.interface) + ")");
    return calls;
}

Lines expectedSyscalls(const FrameBytes& frame, const Answers& answers, bool throws) {
    if (throws || !answers.mtuIsValid()) return {};
    if (frame.ipv4()) {
        if (answers.socket == -1) return {"socket(2, 3, 1)"};
        return {"socket(2, 3, 1)", "setsockopt(404, 0, 2, [64], 1)", "sendto(404, 68 bytes, 0, 16)",
                "close(404)"};
    }
    if (!frame.ipv6()) return {};
    Lines calls = {"if_nametoindex(\"bcm0." + std::to_string(frame.vlan()) + "\")"};
    if (answers.icmp6Create == 0) calls.push_back("close(606)");
    return calls;
}

// The sum is folded once, as the daemon's is; 34 words need no more than one carry.
void checkChecksum(Bytes message) {
    const unsigned stored = message[2] * 256U + message[3];
    message[2] = message[3] = 0;
    unsigned sum = 0;
    for (size_t i = 0; i < message.size(); i += 2) sum += message[i] * 256U + message[i + 1];
    require(stored == (~(sum % 65536 + sum / 65536) & 0xFFFF), "checksum of the ICMP message");
}

void checkIcmpMessage(const FrameBytes& frame, uint32_t mtu, const fake::SentMessage& sent) {
    require(sent.bytes.size() == 68, "an ICMP message has 68 bytes");
    const Bytes header(sent.bytes.begin(), sent.bytes.begin() + 8);
    require(header[0] == 3 && header[1] == 4 && header[4] == 0 && header[5] == 0,
            "type and code of the ICMP message");
    require(header[6] * 256U + header[7] == mtu, "MTU in the ICMP message");
    checkChecksum(sent.bytes);
    require(Bytes(sent.bytes.begin() + 8, sent.bytes.end()) == frame.slice(18, 78),
            "the ICMP message quotes the frame");
    require(sent.to.sin_family == AF_INET, "the ICMP message goes to an IPv4 address");
    require(memcmp(&sent.to.sin_addr, frame.slice(30, 34).data(), 4) == 0,
            "the ICMP message goes to the frame's source");
}

void checkIcmp6Message(const FrameBytes& frame, const Answers& answers,
                       const fake::Icmp6Message& sent) {
    const size_t size = ipv6Message(frame, answers.mtu);
    require(sent.bytes.size() == size && size <= 1500, "length of the ICMPv6 message");
    require(Bytes(sent.bytes.begin(), sent.bytes.begin() + 6) == Bytes{2, 0, 0, 0, 0, 0},
            "type and code of the ICMPv6 message");
    require(sent.bytes[6] * 256U + sent.bytes[7] == answers.mtu, "MTU in the ICMPv6 message");
    require(Bytes(sent.bytes.begin() + 8, sent.bytes.end()) == frame.slice(18, 18 + size - 8),
            "the ICMPv6 message quotes the frame");
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    memcpy(&to.sin6_addr, frame.slice(26, 42).data(), 16);
    require(memcmp(&sent.to, &to, sizeof to) == 0, "the ICMPv6 message goes to the source");
    require(sent.iovcnt == 1, "the ICMPv6 message is in one piece");
}

void checkMessages(const FrameBytes& frame, const Answers& answers, bool throws) {
    const bool answered = answers.mtuIsValid() && !throws;
    const bool over4 = answered && frame.ipv4() && answers.socket != -1;
    const bool over6 = answered && frame.ipv6() && answers.icmp6Create == 0;
    require(fake::syscalls().sent.size() == (over4 ? 1 : 0), "number of ICMP messages");
    require(fake::platform().icmp6Messages.size() == (over6 ? 1 : 0), "number of ICMPv6 messages");
    if (over4) checkIcmpMessage(frame, answers.mtu, fake::syscalls().sent.front());
    if (over6) checkIcmp6Message(frame, answers, fake::platform().icmp6Messages.front());
}

// The debug process gets the line about a sent message exactly if one was sent.
void checkDebugLines(const Answers& answers) {
    const auto& lines = fake::platform().debugLines;
    const bool sent4 = !fake::syscalls().sent.empty() && answers.sendto >= 0;
    const bool sent6 = !fake::platform().icmp6Messages.empty() && answers.icmp6Send >= 0;
    const auto said = std::count_if(lines.begin(), lines.end(), [](const fake::DebugLine& line) {
        require(line.channel == 89 && line.format == "%s", "the debug process' module and format");
        return line.text.find(" message sent to source ") != std::string::npos;
    });
    require(said == (sent4 || sent6 ? 1 : 0), "the debug process is told of what was sent");
}

// Every line is whole and of a level that is reported.
void checkLog(const std::string& text, const Channel& channel, bool clockFails) {
    constexpr std::array<const char*, 8> kNames = {"ERROR",  "WARNING", "INFO",   "DEBUG",
                                                   "DEBUG1", "DEBUG2",  "DEBUG3", "DEBUG4"};
    for (const std::string& line : linesOf(text)) {
        require(line.ends_with("\r\n"), "a line is whole");
        const std::string level =
            line.substr(0, line.find(':', 11)).substr(line.size() > 11 ? 11 : 0);
        const auto* const known = std::find(kNames.begin(), kNames.end(), level);
        require(clockFails ? line == "\r\n" : known - kNames.begin() <= channel.level,
                "a line of the log is of a level that is reported");
    }
}

void checkFrameInfo(const PktdFrameInfo& info, const st_pktd_shm_queue_entry_ctrl_t& ctrl) {
    require(info.unit == ctrl.unit && info.port == ctrl.port, "unit and port are stored");
    require(info.tid == (ctrl.is_trunk != 0 ? ctrl.tid : -1), "the trunk is stored");
    require(info.vid == ctrl.vid && info.proto == ctrl.proto, "VLAN and protocol are stored");
    require(info.egress == ctrl.egress, "the egress is stored");
}

// Whether an exception left the callback; the verdict otherwise.
struct Outcome {
    bool threw = false;
    int verdict = 0;
};

Outcome receive(const st_pktd_shm_queue_entry_data_t* record, uint8_t* frame, int len) {
    try {
        return {false, SHM_Wrapper_App::pkt_rx_cb(record, frame, len)};
    } catch (const boost::system::system_error&) {
        return {true, 0};
    } catch (const std::runtime_error&) {
        return {true, 0};
    }
}

void handleOne(Input& input, const Channel& channel) {
    static GuardedMemory frameMemory(kLargestFrame);
    static GuardedMemory recordMemory(sizeof(st_pktd_shm_queue_entry_data_t));
    static VlanConfig config;
    fake::resetPlatform();
    fake::resetSyscalls();
    fake::resetClock();

    const Answers answers(input);
    const auto action = static_cast<int32_t>(input.byte()) - 1;
    const st_pktd_shm_queue_entry_data_t record = drawRecord(input);
    const auto len = int{input.number<uint16_t>()};
    const FrameBytes frame(input.bytes(input.number<uint16_t>()));

    const size_t readable = readableOf(frame, answers, channel);
    const Bytes before = frame.slice(0, readable);
    uint8_t* const placed = frameMemory.place(before, readable);
    uint8_t* const recordBytes = recordMemory.place(
        {reinterpret_cast<const uint8_t*>(&record), sizeof record}, sizeof record);
    const auto* const placedRecord =
        reinterpret_cast<const st_pktd_shm_queue_entry_data_t*>(recordBytes);

    SHM_Wrapper_App& adapter = *getShmWrapperApp();
    PMTUDApp app(&config, &adapter);
    adapter.setPostAction(static_cast<SHM_Wrapper::eActions>(action));
    answers.install();
    Outcome outcome;
    std::string log;
    {
        const CapturedLog captured(channel.level);
        FILE* const file = qv::stream();
        if (!channel.open) qv::stream() = nullptr;
        outcome = receive(placedRecord, placed, len);
        qv::stream() = file;
        log = captured.text();
    }
    fake::clock().localtimeFails = false;

    const bool logs = channel.writes(qv::DEBUG) || (channel.writes(qv::WARNING) && !frame.tagged());
    const bool untimed = answers.clockFails && logs;
    const bool unwritable =
        (frame.ipv4() || frame.ipv6()) && answers.mtuIsValid() && answers.addressesFail && !untimed;
    require(outcome.threw == (untimed || unwritable), "what throws, and what does not");
    require(fake::platform().calls ==
                (untimed ? Lines{} : expectedCalls(frame, answers, record.ctrl.egress, unwritable)),
            "calls of the platform");
    require(fake::syscalls().calls == expectedSyscalls(frame, answers, outcome.threw),
            "calls of the system: each socket is closed once");
    checkMessages(frame, answers, outcome.threw);
    checkDebugLines(answers);
    checkLog(log, channel, answers.clockFails);
    require(log.empty() == !logs, "something is logged where something is reported");
    require(memcmp(placed, before.data(), readable) == 0, "the frame is as it was");
    require(memcmp(placedRecord, &record, sizeof record) == 0, "the record is as it was");
    if (!untimed) checkFrameInfo(adapter.frameInfo(), record.ctrl);
    if (outcome.threw) return;

    require(outcome.verdict == 7, "the verdict is discard");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const Channel channel(input.byte());
    handleOne(input, channel);
    for (int frame = 1; frame < kFramesPerInput && !input.exhausted(); ++frame)
        handleOne(input, channel);
    return 0;
}
