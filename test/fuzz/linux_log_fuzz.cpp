// SPDX-License-Identifier: MIT
// Fuzzes how the Linux platform reads the log group's messages, and what follows: packets, copies
// and frames.
#include <memory>

#include "copies.h"
#include "copies_model.h"
#include "frame.h"
#include "guarded_memory.h"
#include "ip_packet.h"
#include "links_model.h"
#include "log_message.h"
#include "netlink.h"
#include "traffic.h"

using fuzz::require;
using fuzz::same;
using pmtud_linux::LogMessage;

namespace {

constexpr int kDatagramsPerInput = 24;

struct Platform {
    pmtud_linux::Copies copies;
    pmtud_linux::Frame frame;
    fuzz::CopiesModel model;
};

bool lieIn(Span inner, Span whole) {
    return inner.empty() || (inner.data() >= whole.data() &&
                             inner.data() + inner.size() <= whole.data() + whole.size());
}

void checkMessage(const LogMessage& read, const fuzz::Message& expected, Span whole) {
    require(lieIn(read.linkHeader, whole), "the link header is in the message");
    require(lieIn(read.payload, whole), "the packet is in the message");
    require(read.prefix == expected.prefix, "prefix");
    require(read.ingress == expected.ingress && read.egress == expected.egress, "interfaces");
    require(read.mark == expected.mark && read.sequence == expected.sequence, "mark and number");
    require(same(read.linkHeader, expected.linkHeader), "bytes of the link header");
    require(same(read.payload, expected.payload), "bytes of the packet");
}

void handle(const LogMessage& read, const fuzz::Message& expected, Platform& platform) {
    const int vlan = fuzz::vlanOfPrefix(expected.prefix);
    require(pmtud_linux::copiedFor(read.prefix) == vlan, "the VLAN of a prefix");
    if (vlan != 0) {
        require(platform.copies.keep(read, vlan) == platform.model.keep(expected, vlan),
                "whether a copy is kept");
        return;
    }
    // Whatever the prefix is, so that more copies are searched for.
    const Span quote = pmtud_linux::quoteOf(read.payload);
    require(same(quote, fuzz::quotedBy(expected.payload)), "what a message quotes");
    const pmtud_linux::Copy* const copy = platform.copies.take(quote);
    const fuzz::Kept* const kept = platform.model.take(quote);
    require((copy != nullptr) == (kept != nullptr), "whether a message refuses a copied packet");
    if (copy == nullptr) return;
    require(copy->ingress == kept->ingress && copy->egressVlan == kept->egressVlan,
            "the copy that a message refuses");
    require(copy->addresses == kept->addresses, "addresses of a copy");
    require(same(copy->packet(), kept->packet), "bytes of a copy");
    const int ingressVlan = 1 + static_cast<int>(copy->ingress % 4094);
    const uint32_t egress = expected.egress & 0x7FFFFFFF;
    pmtud_linux::Frame& frame = platform.frame;
    frame.build(*copy, ingressVlan, egress, quote);
    fuzz::checkFrame(frame.record(), frame.data(), frame.size(), *kept, quote);
    require(frame.record().ctrl.vid == ingressVlan, "ingress in the record");
    require(frame.record().ctrl.egress == static_cast<int32_t>(egress), "egress in the record");
}

void receive(const Bytes& datagram, Platform& platform) {
    static packets::GuardedMemory memory(2 * fuzz::kLargestMessage);
    // It starts aligned; an earlier datagram's bytes follow its end.
    const size_t size = Netlink::aligned(datagram.size());
    const uint8_t* const placed = memory.place(datagram, size, 0xFF);
    const std::vector<Span> messages = fuzz::messagesOf({placed, size}, datagram.size());
    size_t whole = 0;
    for (const Span message : messages) whole += message.size();
    require(pmtud_linux::wholeMessages(reinterpret_cast<const char*>(placed), datagram.size()) ==
                std::min(whole, datagram.size()),
            "how much of a datagram is messages");
    for (const Span message : messages) {
        const auto& header = *reinterpret_cast<const nlmsghdr*>(message.data());
        const bool isLogged = header.nlmsg_type == kLoggedPacket;
        require(pmtud_linux::isLogged(header) == isLogged, "which messages are packets");
        if (!isLogged) continue;
        const auto read = pmtud_linux::decodeLogMessage(header);
        const auto expected = fuzz::expectedMessage(message);
        require(read.has_value() == expected.has_value(), "which packets can be read");
        if (!read) continue;
        checkMessage(*read, *expected, message);
        handle(*read, *expected, platform);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    const auto platform = std::make_unique<Platform>();
    fuzz::Traffic traffic;
    for (int count = 0; count < kDatagramsPerInput && !input.exhausted(); ++count) {
        Bytes datagram;
        for (int left = input.byte() % 4; left >= 0; --left)
            if (datagram.size() < fuzz::kLargestMessage) traffic.add(input, {}, datagram);
        receive(datagram, *platform);
    }
    return 0;
}
