// SPDX-License-Identifier: MIT
// Fuzzes what the platform for stock Linux makes of the log group's datagrams: messages, copies
// and the frames of refused packets.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "copies.h"
#include "copies_model.h"
#include "frame.h"
#include "guarded_memory.h"
#include "input.h"
#include "ip_packet.h"
#include "log_message.h"
#include "netlink.h"
#include "netlink_message.h"

using fuzz::Bytes;
using fuzz::CopiesModel;
using fuzz::GuardedMemory;
using fuzz::Input;
using fuzz::Kept;
using fuzz::Message;
using fuzz::require;
using fuzz::same;
using fuzz::Span;
using pmtud_linux::Copies;
using pmtud_linux::Copy;
using pmtud_linux::Frame;
using pmtud_linux::LogMessage;

namespace {

constexpr int kDatagramsPerInput = 24;

struct Platform {
    Copies copies;
    Frame frame;
};

bool lieIn(Span part, Span whole) {
    return part.empty() || (part.data() >= whole.data() &&
                            part.data() + part.size() <= whole.data() + whole.size());
}

void checkMessage(const std::optional<LogMessage>& read, const std::optional<Message>& expected,
                  Span whole) {
    require(read.has_value() == expected.has_value(), "what is a packet, and what is not");
    if (!read) return;
    require(lieIn(read->linkHeader, whole), "the link header is part of the message");
    require(lieIn(read->payload, whole), "the packet is part of the message");
    require(read->prefix == expected->prefix, "prefix");
    require(read->ingress == expected->ingress && read->egress == expected->egress, "interfaces");
    require(read->sequence == expected->sequence, "sequence number");
    require(same(read->linkHeader, expected->linkHeader), "bytes of the link header");
    require(same(read->payload, expected->payload), "bytes of the packet");
}

void checkTaken(const Copy* copy, const Kept* kept) {
    require((copy != nullptr) == (kept != nullptr), "what a message refuses");
    if (copy == nullptr) return;
    require(copy->ingress == kept->ingress && copy->egressVlan == kept->egressVlan, "which copy");
    require(copy->addresses == kept->addresses, "addresses of a copy");
    require(same(copy->packet(), kept->packet), "bytes of a copy");
    require(copy->packetSize() == kept->packetSize(), "size of the packet");
}

void handle(const LogMessage& read, const Message& expected, Platform& platform,
            CopiesModel& model) {
    const int vlan = fuzz::vlanOfPrefix(expected.prefix);
    require(pmtud_linux::copiedFor(read.prefix) == vlan, "the VLAN of a prefix");
    if (vlan != 0) {
        require(platform.copies.keep(read, vlan) == model.keep(expected, vlan), "what is kept");
        return;
    }
    // Whatever the prefix is, so that more is looked for.
    const Span quote = pmtud_linux::quoteOf(read.payload);
    require(same(quote, fuzz::quotedBy(expected.payload)), "what a message quotes");
    const Copy* const copy = platform.copies.take(quote);
    const Kept* const kept = model.take(quote);
    checkTaken(copy, kept);
    if (copy == nullptr) return;
    const int ingressVlan = 1 + static_cast<int>(copy->ingress % 4094);
    const uint32_t egress = expected.egress & 0x7FFFFFFF;
    Frame& frame = platform.frame;
    frame.build(*copy, ingressVlan, egress, quote);
    fuzz::checkFrame(frame.record(), frame.data(), frame.size(),
                     fuzz::expectedFrame(*kept, ingressVlan, egress, quote));
}

void receive(const Bytes& datagram, Platform& platform, CopiesModel& model) {
    static GuardedMemory memory(2 * fuzz::kLargestMessage);
    // It starts aligned; behind its end is what an earlier one left there.
    const std::size_t size = fuzz::aligned(datagram.size());
    const uint8_t* const placed = memory.place(datagram, size, 0xFF);
    const std::vector<Span> messages = fuzz::messagesOf({placed, size}, datagram.size());
    std::size_t whole = 0;
    for (const Span message : messages) whole += message.size();
    require(pmtud_linux::wholeMessages(reinterpret_cast<const char*>(placed), datagram.size()) ==
                std::min(whole, datagram.size()),
            "how much of a datagram is messages");
    for (const Span message : messages) {
        const auto& header = *reinterpret_cast<const nlmsghdr*>(message.data());
        const bool isLogged = fuzz::load<uint16_t>(message, 4) == fuzz::kLogPacketType;
        require(pmtud_linux::isLogged(header) == isLogged, "which messages are packets");
        if (!isLogged) continue;
        const auto read = pmtud_linux::decodeLogMessage(header);
        const auto expected = fuzz::expectedMessage(message);
        checkMessage(read, expected, message);
        if (read) handle(*read, *expected, platform, model);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const auto platform = std::make_unique<Platform>();
    CopiesModel model;
    fuzz::Traffic traffic;
    for (int count = 0; count < kDatagramsPerInput && !input.exhausted(); ++count) {
        Bytes datagram;
        for (int left = input.byte() % 4; left >= 0; --left) {
            if (datagram.size() < fuzz::kLargestMessage) traffic.add(input, datagram);
        }
        receive(datagram, *platform, model);
    }
    return 0;
}
