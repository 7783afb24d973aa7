// SPDX-License-Identifier: MIT
// What the tests of the packet-queue adapter share.
#ifndef PMTUD_TEST_SHM_TEST_H
#define PMTUD_TEST_SHM_TEST_H

#include <concepts>
#include <functional>
#include <limits>
#include <stdexcept>
#include <utility>

#include "SHM_Wrapper.h"
#include "daemon_test.h"
#include "pktd.h"

namespace shm_test {

using daemon_test::Bytes;
using daemon_test::kCaseName;
using daemon_test::Lines;
using daemon_test::logAt;
using packets::QueueRecord;
using packets::with;
using Fields = std::array<int32_t, 6>;

constexpr int kLeast = std::numeric_limits<int>::min();
constexpr int kMost = std::numeric_limits<int>::max();

/// Tagged for VLAN 100 and no longer than four bytes of IPv4.
inline Bytes taggedFrame() {
    return with(packets::cut(packets::ipv4Frame(), 0, 22), 14, {0x00, 0x64});
}

/// A handler that returns what its test chose, and counts its calls.
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

/// The six fields in their order: unit, port, tid, vid, proto, egress.
inline Fields fields(const PktdFrameInfo& info) {
    return {info.unit, info.port, info.tid, info.vid, info.proto, info.egress};
}

/// Results that mean failure, and how a log line shows them.
struct Failure {
    int result;
    const char* text;
};
constexpr Failure kFailures[] = {
    {1, "1\r\n"}, {-12, "-12\r\n"}, {kLeast, "-2147483648\r\n"}, {kMost, "2147483647\r\n"}};

}  // namespace shm_test

#endif
