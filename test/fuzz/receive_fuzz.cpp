// SPDX-License-Identifier: MIT
// Fuzzes the receive callback: frame, record and every answer that it gets come from the input.
#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>
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
#include "messages.h"

using fuzz::Input;
using fuzz::require;

namespace {

using Lines = std::vector<std::string>;
using Record = st_pktd_shm_queue_entry_data_t;

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

// What the functions that the daemon calls return while one frame is handled.
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
        failing = input.byte();
        icmp6Create = fails(0x10) ? input.number<int32_t>() : 0;
        icmp6Send = fails(0x20) ? input.number<int32_t>() : 0;
        interface = input.byte();

        fake::Platform& platform = fake::platform();
        platform.destVlan = [this](int) { return vlan; };
        platform.vlanMtu = [this](int) { return mtu; };
        platform.icmp6SocketCreate = [this](int32_t* fd) {
            *fd = 606;
            return icmp6Create;
        };
        platform.icmp6Send = [this] { return icmp6Send; };
        fake::Syscalls& syscalls = fake::syscalls();
        syscalls.socket = [this] { return socketFails() ? -1 : 404; };
        syscalls.setsockopt = [this] { return fails(0x02) ? -1 : 0; };
        syscalls.sendto = [this](size_t size) {
            return sendtoFails() ? -1L : static_cast<long>(size);
        };
        syscalls.close = [this] { return fails(0x08) ? -1 : 0; };
        syscalls.ifNameToIndex = [this](const std::string&) { return interface; };
        fake::clock().localtimeFails = clockFails();
        ::addressesFail = addressesFail();
    }
    Answers(const Answers&) = delete;
    Answers& operator=(const Answers&) = delete;

    bool vlanIsValid() const { return vlan >= 1 && vlan <= 4094; }
    bool mtuIsValid() const { return vlanIsValid() && mtu >= 576 && mtu <= 16383; }
    bool fails(unsigned bit) const { return (failing & bit) != 0; }
    bool socketFails() const { return fails(0x01); }
    bool sendtoFails() const { return fails(0x04); }
    bool clockFails() const { return fails(0x40); }
    bool addressesFail() const { return fails(0x80); }

    int vlan;
    uint32_t mtu;
    uint8_t failing;
    int icmp6Create;
    int icmp6Send;
    unsigned interface;
};

Record drawRecord(Input& input) {
    Record record;
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

// What the file channel writes, and whether it can.
struct Channel {
    explicit Channel(uint8_t choice) : level(choice % 9 - 1), open(choice < 0xF0) {}

    bool writes(qv::LogLevel statement) const { return open && statement <= level; }

    int32_t level;
    bool open;
};

// The bytes that the input supplies, then zeros.
struct Frame {
    explicit Frame(Span known) : bytes(known.begin(), known.end()) { bytes.resize(kLargestFrame); }

    bool tagged() const { return get16(bytes, 12) == 0x8100; }
    bool ipv4() const { return tagged() && get16(bytes, 16) == 0x0800; }
    bool ipv6() const { return tagged() && get16(bytes, 16) == 0x86DD; }
    std::string interface() const { return "bcm0." + std::to_string(get16(bytes, 14) % 4096); }
    size_t ipv6Packet() const { return 40 + get16(bytes, 22); }
    /// The size of the answer.
    size_t ipv6Message(uint32_t mtu) const {
        return std::min({size_t{mtu}, size_t{1500}, ipv6Packet() + 8});
    }

    Bytes bytes;
};

// How many bytes of the frame must be readable: its headers, what is quoted, what is dumped.
size_t readableOf(const Frame& frame, const Answers& answers, const Channel& channel) {
    if (frame.ipv4()) return 18 + 60;
    if (!frame.ipv6()) return 18;
    if (channel.writes(qv::DEBUG)) return 18 + frame.ipv6Packet();
    const size_t quote = answers.mtuIsValid() ? frame.ipv6Message(answers.mtu) - 8 : 0;
    return 18 + std::max<size_t>(40, quote);
}

Lines expectedCalls(const Frame& frame, const Answers& answers, int egress, bool throws) {
    if (!frame.ipv4() && !frame.ipv6()) return {};
    Lines calls = {"cfg_vlan_l3_get_dest_vlan(" + std::to_string(egress) + ")"};
    if (!answers.vlanIsValid()) return calls;
    calls.push_back("cfg_vlan_l3_get_mtu(" + std::to_string(answers.vlan) + ")");
    if (!answers.mtuIsValid() || throws || frame.ipv4()) return calls;
    calls.push_back("arpd_icmp6_socket_create(\"" + frame.interface() + "\")");
    if (answers.icmp6Create == 0)
        calls.push_back("arpd_ipv6_pkt_send(606, " + std::to_string(answers.interface) + ")");
    return calls;
}

Lines expectedSyscalls(const Frame& frame, const Answers& answers, bool throws) {
    if (throws || !answers.mtuIsValid()) return {};
    if (frame.ipv4()) {
        if (answers.socketFails()) return {"socket(2, 3, 1)"};
        return {"socket(2, 3, 1)", "setsockopt(404, 0, 2, [64], 1)", "sendto(404, 68 bytes, 0, 16)",
                "close(404)"};
    }
    if (!frame.ipv6()) return {};
    Lines calls = {"if_nametoindex(\"" + frame.interface() + "\")"};
    if (answers.icmp6Create == 0) calls.push_back("close(606)");
    return calls;
}

void checkIcmpMessage(const Frame& frame, uint32_t mtu, const fake::SentMessage& sent) {
    Bytes expected = Bytes{3, 4, 0, 0, 0, 0, 0, 0} + cut(frame.bytes, 18, 78);
    put16(expected, 6, mtu);
    // Folded once, as the daemon does it; 34 words need no more than one carry.
    size_t sum = 0;
    for (size_t i = 0; i < expected.size(); i += 2) sum += get16(expected, i);
    put16(expected, 2, ~(sum % 65536 + sum / 65536));
    require(sent.bytes == expected, "the ICMP message: header, checksum, MTU and 60 bytes quoted");
    require(sent.to.sin_family == AF_INET &&
                memcmp(&sent.to.sin_addr, &frame.bytes[30], sizeof sent.to.sin_addr) == 0,
            "the ICMP message goes to the frame's source");
}

void checkIcmp6Message(const Frame& frame, uint32_t mtu, const fake::Icmp6Message& sent) {
    const size_t size = frame.ipv6Message(mtu);
    Bytes expected = Bytes{2, 0, 0, 0, 0, 0, 0, 0} + cut(frame.bytes, 18, 18 + size - 8);
    put16(expected, 6, mtu);
    require(sent.bytes == expected, "the ICMPv6 message: header, MTU and as much quoted as fits");
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    memcpy(&to.sin6_addr, &frame.bytes[26], sizeof to.sin6_addr);
    require(memcmp(&sent.to, &to, sizeof to) == 0, "the ICMPv6 message goes to the source");
    require(sent.iovcnt == 1, "the ICMPv6 message is in one piece");
}

void checkMessages(const Frame& frame, const Answers& answers, bool throws) {
    const auto& sent4 = fake::syscalls().sent;
    const auto& sent6 = fake::platform().icmp6Messages;
    const bool answered = answers.mtuIsValid() && !throws;
    const bool over4 = answered && frame.ipv4() && !answers.socketFails();
    const bool over6 = answered && frame.ipv6() && answers.icmp6Create == 0;
    require(sent4.size() == (over4 ? 1 : 0), "number of ICMP messages");
    require(sent6.size() == (over6 ? 1 : 0), "number of ICMPv6 messages");
    if (over4) checkIcmpMessage(frame, answers.mtu, sent4.front());
    if (over6) checkIcmp6Message(frame, answers.mtu, sent6.front());

    const bool left = (over4 && !answers.sendtoFails()) || (over6 && answers.icmp6Send >= 0);
    const auto& lines = fake::platform().debugLines;
    const auto logged = std::ranges::count_if(lines, [](const fake::DebugLine& line) {
        require(line.channel == 89 && line.format == "%s", "the debug process' module and format");
        return line.text.find(" message sent to source ") != std::string::npos;
    });
    require(logged == (left ? 1 : 0), "the debug process gets one line if a message was sent");
}

void checkLog(const std::string& text, const Channel& channel, bool clockFails) {
    constexpr std::array<const char*, 8> kNames = {"ERROR",  "WARNING", "INFO",   "DEBUG",
                                                   "DEBUG1", "DEBUG2",  "DEBUG3", "DEBUG4"};
    for (const std::string& line : linesOf(text)) {
        require(line.ends_with("\r\n"), "a line is whole");
        require(!clockFails || line == "\r\n", "a line without a time is empty");
        if (clockFails) continue;
        const auto* const name =
            std::ranges::find(kNames, line.substr(11, line.find(':', 11) - 11));
        require(name - kNames.begin() <= channel.level, "a line's level is reported");
    }
}

void checkFrameInfo(const PktdFrameInfo& info, const st_pktd_shm_queue_entry_ctrl_t& ctrl) {
    require(info.unit == ctrl.unit && info.port == ctrl.port, "unit and port are stored");
    require(info.tid == (ctrl.is_trunk != 0 ? ctrl.tid : -1), "the trunk is stored");
    require(info.vid == ctrl.vid && info.proto == ctrl.proto, "VLAN and protocol are stored");
    require(info.egress == ctrl.egress, "the egress is stored");
}

// The verdict, or nothing if an exception left the callback.
std::optional<int> receive(const Record* record, uint8_t* frame, int len) {
    try {
        return SHM_Wrapper_App::pkt_rx_cb(record, frame, len);
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
}

void handleOne(Input& input, const Channel& channel) {
    static packets::GuardedMemory frameMemory(kLargestFrame);
    static packets::GuardedMemory recordMemory(sizeof(Record));
    static VlanConfig config;
    fake::resetPlatform();
    fake::resetSyscalls();
    fake::resetClock();

    const Answers answers(input);
    const auto action = static_cast<int32_t>(input.byte()) - 1;
    const Record record = drawRecord(input);
    const auto len = int{input.number<uint16_t>()};
    const Frame frame(input.bytes(input.number<uint16_t>()));

    const size_t readable = readableOf(frame, answers, channel);
    uint8_t* const placed = frameMemory.place(frame.bytes, readable);
    const auto* const recordBytes = reinterpret_cast<const uint8_t*>(&record);
    const auto* const placedRecord = reinterpret_cast<const Record*>(
        recordMemory.place({recordBytes, sizeof record}, sizeof record));

    SHM_Wrapper_App& adapter = *getShmWrapperApp();
    PMTUDApp app(&config, &adapter);
    adapter.setPostAction(static_cast<SHM_Wrapper::eActions>(action));
    std::optional<int> verdict;
    std::string log;
    {
        const CapturedLog captured(channel.level);
        if (!channel.open) qv::stream() = nullptr;
        verdict = receive(placedRecord, placed, len);
        log = captured.text();
    }

    const bool logs = channel.writes(qv::DEBUG) || (channel.writes(qv::WARNING) && !frame.tagged());
    const bool untimed = answers.clockFails() && logs;
    const bool unwritable = (frame.ipv4() || frame.ipv6()) && answers.mtuIsValid() &&
                            answers.addressesFail() && !untimed;
    const bool throws = untimed || unwritable;
    require(verdict == (throws ? std::nullopt : std::optional(7)),
            "an exception if a line lacks its time or an address, else the verdict discard");
    require(fake::platform().calls ==
                (untimed ? Lines{} : expectedCalls(frame, answers, record.ctrl.egress, unwritable)),
            "calls of the platform");
    require(fake::syscalls().calls == expectedSyscalls(frame, answers, throws),
            "calls of the system: each socket is closed once");
    checkMessages(frame, answers, throws);
    checkLog(log, channel, answers.clockFails());
    require(log.empty() == !logs, "something is logged if its level is reported");
    require(memcmp(placed, frame.bytes.data(), readable) == 0, "the frame is unchanged");
    require(memcmp(placedRecord, &record, sizeof record) == 0, "the record is unchanged");
    if (!untimed) checkFrameInfo(adapter.frameInfo(), record.ctrl);
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
