// SPDX-License-Identifier: MIT
// What the tests of the engine share: frames, the order of all that leaves it, guarded memory.
#ifndef PMTUD_TEST_ENGINE_TEST_H
#define PMTUD_TEST_ENGINE_TEST_H

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "PMTUDApp.h"
#include "SHM_Wrapper.h"
#include "VlanConfig.h"
#include "captured_log.h"
#include "fake_platform.h"
#include "fake_syscalls.h"

namespace engine_test {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

/// The last line; "(none)" where there is none.
inline std::string last(const Lines& lines) { return lines.empty() ? "(none)" : lines.back(); }

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// The bytes from offset `begin` up to, not including, offset `end`.
inline Bytes slice(const Bytes& bytes, std::size_t begin, std::size_t end) {
    return {bytes.begin() + static_cast<std::ptrdiff_t>(begin),
            bytes.begin() + static_cast<std::ptrdiff_t>(end)};
}

/// 0, 1, ... 250, 0, 1, ...: 251 is no divisor of any length in use, so a shifted copy differs.
inline Bytes payload(std::size_t count) {
    Bytes bytes(count);
    for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(i % 251);
    return bytes;
}

/// 1600 bytes from 192.0.2.10 to 198.51.100.20 with DF, priority 3, drop eligible, VLAN 20.
inline Bytes ipv4Frame() {
    const Bytes headers = {
        0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0x00, 0x00, 0x5e, 0x00, 0x53, 0x01,  // MACs
        0x81, 0x00, 0x70, 0x14, 0x08, 0x00,                                      // tag, EtherType
        0x45, 0x00, 0x06, 0x2e, 0x12, 0x34, 0x40, 0x00, 0x40, 0x11, 0x36, 0x39,  // IPv4
        0xc0, 0x00, 0x02, 0x0a, 0xc6, 0x33, 0x64, 0x14};
    return headers + payload(1562);
}

/// From 2001:db8:0:10::a to 2001:db8:0:20::14, tagged as ipv4Frame.
inline Bytes ipv6Frame(uint16_t payloadLength) {
    Bytes headers = {
        0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0x00, 0x00, 0x5e, 0x00, 0x53, 0x01,  // MACs
        0x81, 0x00, 0x70, 0x14, 0x86, 0xdd,                                      // tag, EtherType
        0x6a, 0xbc, 0xde, 0xf1, 0x00, 0x00, 0x11, 0x40,                          // IPv6
        0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00, 0x00,  // source
        0x00, 0x00, 0x00, 0x0a,                                                  //
        0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x20, 0x00, 0x00, 0x00, 0x00,  // destination
        0x00, 0x00, 0x00, 0x14};
    headers[22] = static_cast<uint8_t>(payloadLength >> 8);
    headers[23] = static_cast<uint8_t>(payloadLength);
    return headers + payload(payloadLength);
}

/// 60 bytes of the same Ethernet header with another EtherType and zeros behind it.
inline Bytes frameOfType(uint16_t etherType) {
    Bytes frame = slice(ipv4Frame(), 0, 60);
    frame[16] = static_cast<uint8_t>(etherType >> 8);
    frame[17] = static_cast<uint8_t>(etherType);
    std::fill(frame.begin() + 18, frame.end(), uint8_t{0});
    return frame;
}

/// A record of all zeros but for the egress identifier.
inline st_pktd_shm_queue_entry_data_t recordWithEgress(int32_t egress) {
    st_pktd_shm_queue_entry_data_t record{};
    record.ctrl.egress = egress;
    return record;
}

/// Everything that leaves the engine while it lives, in one order: lines of the file channel
/// at the threshold (ended by CR LF), texts for the debug process, and calls as the fakes
/// spell them.  Set the fakes' answers before it is made.
class Journal {
 public:
    explicit Journal(int32_t level) : m_log(level) {
        fake::Platform& platform = fake::platform();
        const auto platformCall = [this] { note(fake::platform().calls.back()); };
        platform.destVlan = hooked(platformCall, platform.destVlan);
        platform.vlanMtu = hooked(platformCall, platform.vlanMtu);
        platform.mtuVlan = hooked(platformCall, platform.mtuVlan);
        platform.queueInit = hooked(platformCall, platform.queueInit);
        platform.rxThreadInit = hooked(platformCall, platform.rxThreadInit);
        platform.icmp6SocketCreate = hooked(platformCall, platform.icmp6SocketCreate);
        platform.icmp6Send = hooked(platformCall, platform.icmp6Send);
        platform.onDebugLine = [this, inner = platform.onDebugLine](const fake::DebugLine& line) {
            note(line.text);
            inner(line);
        };

        fake::Syscalls& syscalls = fake::syscalls();
        const auto systemCall = [this] { note(fake::syscalls().calls.back()); };
        syscalls.socket = hooked(systemCall, syscalls.socket);
        syscalls.setsockopt = hooked(systemCall, syscalls.setsockopt);
        syscalls.sendto = hooked(systemCall, syscalls.sendto);
        syscalls.close = hooked(systemCall, syscalls.close);
        syscalls.ifNameToIndex = hooked(systemCall, syscalls.ifNameToIndex);
    }
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;
    ~Journal() {
        fake::resetPlatform();
        fake::resetSyscalls();
    }

    /// Adds an entry of the test's own.
    void note(const std::string& entry) {
        collectLog();
        m_entries.push_back(entry);
    }

    const Lines& entries() {
        collectLog();
        return m_entries;
    }

 private:
    template <typename Hook, typename Result, typename... Arguments>
    static std::function<Result(Arguments...)> hooked(Hook hook,
                                                      std::function<Result(Arguments...)> answer) {
        return [hook, answer = std::move(answer)](Arguments... arguments) {
            hook();
            return answer(arguments...);
        };
    }

    void collectLog() {
        const std::string text = m_log.text();
        for (std::string& line : linesOf(text.substr(m_collected))) m_entries.push_back(line);
        m_collected = text.size();
    }

    CapturedLog m_log;
    std::size_t m_collected = 0;
    Lines m_entries;
};

/// What the file channel is given at this threshold while `work` runs.
template <typename Work>
Lines logAt(int32_t level, Work work) {
    const CapturedLog log(level);
    work();
    return linesOf(log.text());
}

/// The bytes laid so that the first byte behind them cannot be read.
class GuardedBytes {
 public:
    explicit GuardedBytes(const Bytes& bytes)
        : m_readable((bytes.size() + m_page - 1) / m_page * m_page),
          m_start(mmap(nullptr, m_readable + m_page, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
        if (m_start == MAP_FAILED) throw std::bad_alloc();
        uint8_t* const guard = static_cast<uint8_t*>(m_start) + m_readable;
        if (mprotect(guard, m_page, PROT_NONE) != 0) throw std::bad_alloc();
        m_data = guard - bytes.size();
        std::copy(bytes.begin(), bytes.end(), m_data);
    }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;
    ~GuardedBytes() { munmap(m_start, m_readable + m_page); }

    uint8_t* data() const { return m_data; }

 private:
    std::size_t m_page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    std::size_t m_readable;
    void* m_start;
    uint8_t* m_data = nullptr;
};

/// Fakes that have seen nothing, at 14:03:07.245.
class FreshFakes {
 public:
    FreshFakes() { reset(); }
    FreshFakes(const FreshFakes&) = delete;
    FreshFakes& operator=(const FreshFakes&) = delete;
    ~FreshFakes() { reset(); }

 private:
    static void reset() {
        fake::resetPlatform();
        fake::resetSyscalls();
        fake::resetClock();
    }
};

/// The engine on the process's adapter.  The frame being handled is bound for egress 77, which
/// leads to VLAN 100 with an MTU of 1500, unless a test sets the fakes' answers.
class EngineTest : public testing::Test {
 protected:
    EngineTest() {
        adapter.setFrameInfo(0, 4, -1, 20, 2048, 77);
        adapter.setPostAction(SHM_Wrapper::eDiscard);
    }
    ~EngineTest() override { adapter.setHandler(nullptr); }

    bool handle(Bytes frame) { return app.handleFrame(frame.front(), frame.size()); }
    bool reply4(Bytes frame) { return app.sendICMP4PacketTooBig(frame.data(), frame.size()); }
    bool reply6(const Bytes& frame) {
        return app.sendICMP6PacketTooBig(frame.front(), frame.size());
    }

    static void answerVlan(int vlan) {
        fake::platform().destVlan = [vlan](int) { return vlan; };
    }
    static void answerMtu(uint32_t mtu) {
        fake::platform().vlanMtu = [mtu](int) { return mtu; };
    }

    FreshFakes fakes;
    VlanConfig cfg;
    SHM_Wrapper_App& adapter = *getShmWrapperApp();
    PMTUDApp app{&cfg, &adapter};
};

}  // namespace engine_test

#endif
