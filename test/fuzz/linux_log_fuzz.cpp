// SPDX-License-Identifier: MIT
// Fuzzes what the platform for stock Linux makes of the log group's messages: packets and frames.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "frames.h"
#include "guarded_memory.h"
#include "input.h"
#include "log_message.h"
#include "netlink_message.h"

using fuzz::Built;
using fuzz::Bytes;
using fuzz::GuardedMemory;
using fuzz::Input;
using fuzz::Packet;
using fuzz::require;
using fuzz::same;
using fuzz::Span;
using pmtud_linux::Frame;
using pmtud_linux::LoggedPacket;

namespace {

constexpr int messagesPerInput = 6;

bool lieIn(Span part, Span whole) {
    return part.empty() || (part.data() >= whole.data() &&
                            part.data() + part.size() <= whole.data() + whole.size());
}

void checkPacket(const std::optional<LoggedPacket>& read, const std::optional<Packet>& expected,
                 Span message) {
    require(read.has_value() == expected.has_value(), "what is a packet, and what is not");
    if (!read) return;
    require(lieIn(read->linkHeader, message), "the link header is part of the message");
    require(lieIn(read->payload, message), "the packet is part of the message");
    require(read->ingress == expected->ingress && read->mark == expected->mark, "interfaces");
    require(read->protocol == expected->protocol, "EtherType");
    require(read->sequence == expected->sequence, "sequence number");
    require(same(read->linkHeader, expected->linkHeader), "bytes of the link header");
    require(same(read->payload, expected->payload), "bytes of the packet");
}

void receive(Input& input, Frame& frame, Built& built) {
    static GuardedMemory memory(fuzz::largestMessage);
    const int vlan = 1 + input.number<uint16_t>() % 4094;
    const Bytes message = fuzz::drawLogMessage(input);
    const std::optional<Packet> expected = fuzz::expectedPacket(message);
    // A message starts aligned; what is made of it must not depend on what fills up its end.
    const std::size_t size = fuzz::aligned(message.size());
    for (const uint8_t filler : {uint8_t{0xFF}, uint8_t{0}}) {
        const uint8_t* const placed = memory.place(message, size, filler);
        const auto packet = pmtud_linux::decodePacket(placed, message.size());
        checkPacket(packet, expected, {placed, message.size()});
        if (!packet) continue;
        require(frame.build(*packet, vlan) == fuzz::buildExpected(*expected, vlan, built),
                "what becomes a frame, and what does not");
        checkFrame(frame.record(), frame.data(), frame.size(), built);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const auto frame = std::make_unique<Frame>();
    Built built;
    for (int count = 0; count < messagesPerInput && !input.exhausted(); ++count)
        receive(input, *frame, built);
    return 0;
}
