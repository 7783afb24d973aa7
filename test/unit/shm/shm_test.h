// SPDX-License-Identifier: MIT
// What the tests of the packet-queue adapter share: frames, records, handlers and log lines.
#ifndef PMTUD_TEST_SHM_TEST_H
#define PMTUD_TEST_SHM_TEST_H

#include <gtest/gtest.h>

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "SHM_Wrapper.h"
#include "captured_log.h"
#include "fake_platform.h"
#include "fake_syscalls.h"

namespace shm_test {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

/// From 00:00:5e:00:53:01 to 00:1a:2b:3c:4d:5e with these bytes as TPID and TCI, then EtherType
/// 0x0800 and the first four bytes of an IPv4 packet.
inline Bytes frameWithTag(uint8_t tpidHigh, uint8_t tpidLow, uint8_t tciHigh, uint8_t tciLow) {
    return {0x00, 0x1a,     0x2b,    0x3c,    0x4d,   0x5e, 0x00, 0x00, 0x5e, 0x00, 0x53,
            0x01, tpidHigh, tpidLow, tciHigh, tciLow, 0x08, 0x00, 0x45, 0x00, 0x05, 0xdc};
}

/// Tagged for VLAN 100.
inline Bytes taggedFrame() { return frameWithTag(0x81, 0x00, 0x00, 0x64); }

/// A handler that answers as it is told and counts its calls.
class ScriptedHandler : public SHM_Handler {
 public:
    explicit ScriptedHandler(std::same_as<bool> auto result)
        : answer([result](uint8_t&, size_t) { return result; }) {}
    explicit ScriptedHandler(std::function<bool(uint8_t&, size_t)> function)
        : answer(std::move(function)) {}

    bool handleFrame(uint8_t& frame, size_t len) override {
        ++calls;
        return answer(frame, len);
    }

    std::function<bool(uint8_t&, size_t)> answer;
    int calls = 0;
};

/// A queue record in bytes, every one 0xEE until it is set, so that a field read too wide or
/// at another place is seen.
class QueueRecord {
 public:
    /// `shift` moves the record that many bytes from an aligned address.
    explicit QueueRecord(std::size_t shift = 0) : m_shift(shift), m_bytes(shift + 9364, 0xEE) {}

    /// Writes the value in the processor's byte order.
    template <typename T>
    QueueRecord& set(std::size_t offset, T value) {
        memcpy(m_bytes.data() + m_shift + offset, &value, sizeof value);
        return *this;
    }

    const st_pktd_shm_queue_entry_data_t* get() const {
        return reinterpret_cast<const st_pktd_shm_queue_entry_data_t*>(m_bytes.data() + m_shift);
    }

    /// The bytes of an unshifted record.
    const Bytes& bytes() const { return m_bytes; }

 private:
    std::size_t m_shift;
    Bytes m_bytes;
};

/// The six fields in their order: unit, port, tid, vid, proto, egress.
inline std::array<int32_t, 6> fields(const PktdFrameInfo& info) {
    return {info.unit, info.port, info.tid, info.vid, info.proto, info.egress};
}

/// What the file channel is given at this threshold while `work` runs.
inline Lines logAt(int32_t level, const std::function<void()>& work) {
    const CapturedLog log(level);
    work();
    return linesOf(log.text());
}

/// Starts each test on a platform that has seen nothing, at 14:03:07.245.
class ShmTest : public testing::Test {
 protected:
    ShmTest() {
        fake::resetPlatform();
        fake::resetClock();
    }
    ~ShmTest() override {
        fake::resetPlatform();
        fake::resetClock();
    }
};

}  // namespace shm_test

#endif
