// SPDX-License-Identifier: MIT
// What a host receives, in a form that is the same for two routers that behave the same.
#include "observation.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <string_view>

#include "answer.h"
#include "bytes.h"

using packets::Answer;
using packets::get16;
using packets::put16;

namespace twin {

namespace {

constexpr size_t kEthernet = 14;
constexpr uint8_t kIcmp = 1;
constexpr uint8_t kIgmp = 2;
constexpr uint8_t kIcmpv6 = 58;
constexpr uint8_t kHopByHop = 0;
constexpr uint8_t kRouting = 43;
constexpr uint8_t kFragment = 44;
constexpr uint8_t kDestinationOptions = 60;
constexpr uint8_t kOwnHops = 64;  // a router's own packets start with it
constexpr size_t kQuotedBeyondHeader = 8;
// The daemon's IPv4 answers quote that much, less than RFC 792 requires beyond the longest headers.
constexpr size_t kQuoted4 = 60;

std::string hex(const Bytes& bytes, size_t most) {
    std::string text;
    std::array<char, 3> digits;
    for (size_t i = 0; i < std::min(bytes.size(), most); ++i) {
        std::snprintf(digits.data(), digits.size(), "%02x", bytes[i]);
        text += digits.data();
    }
    return text;
}

std::string textOf(std::span<const uint8_t> address) {
    std::array<char, INET6_ADDRSTRLEN> text;
    return inet_ntop(address.size() == 4 ? AF_INET : AF_INET6, address.data(), text.data(),
                     text.size());
}

struct Transport {
    uint8_t protocol = 0;
    size_t at = 0;
    size_t fragmentAt = 0;  // of the fragment header; 0 if there is none
    bool isLaterFragment = false;
};

Transport transportOf6(const uint8_t* packet, size_t size) {
    Transport found{packet[6], 40, 0, false};
    while (found.at + 8 <= size && !found.isLaterFragment &&
           (found.protocol == kHopByHop || found.protocol == kRouting ||
            found.protocol == kFragment || found.protocol == kDestinationOptions)) {
        const uint8_t* const header = packet + found.at;
        const bool isFragment = found.protocol == kFragment;
        if (isFragment) {
            found.fragmentAt = found.at;
            found.isLaterFragment = get16(header + 2) >> 3 != 0;
        }
        found.protocol = header[0];
        found.at += isFragment ? 8 : 8 + size_t{8} * header[1];
    }
    return found;
}

bool isUnasked(const uint8_t* packet, const Transport& transport, size_t size) {
    if (transport.protocol != kIcmpv6 || transport.at + 4 > size) return false;
    const uint8_t type = packet[transport.at];
    const bool isDiscovery = (type >= 130 && type <= 137) || type == 143;
    // Rules may have set another hop limit, but nobody forwards a link-local source.
    const bool isLinkLocal = packet[8] == 0xfe && (packet[9] & 0xc0) == 0x80;
    return isDiscovery && (packet[7] == 255 || packet[7] == 1 || isLinkLocal);
}

Observation tooBig(const std::string& host, const Answer& answer, Ignored ignored) {
    const bool isIpv4 = answer.family == 4;
    const size_t header = isIpv4 ? size_t{4} * (answer.quote[0] & 15U) : 40;
    Bytes quote(answer.quote.begin(), answer.quote.end());
    quote.resize(
        std::min({quote.size(), header + kQuotedBeyondHeader, isIpv4 ? kQuoted4 : quote.size()}));
    // The kernel may have written into the options before it refused the packet.
    if (isIpv4 && quote.size() >= 12) put16(&quote[10], 0);

    Observation seen;
    seen.isTooBig = true;
    seen.serial = answer.serial;
    seen.text =
        (ignored.answerHost ? "somebody" : host) + " is told " + textOf(answer.destination) +
        (ignored.answerSource ? "" : " by " + textOf(answer.source)) + ": MTU " +
        std::to_string(answer.mtu) + " " + answer.problem + ", about " + hex(quote, quote.size());
    return seen;
}

Observation other(const std::string& host, const Bytes& frame) {
    const std::string_view all(reinterpret_cast<const char*>(frame.data()), frame.size());
    Observation seen;
    seen.text = host + " receives " + std::to_string(frame.size()) + " bytes, " + hex(frame, 78) +
                ", hash " + std::to_string(std::hash<std::string_view>{}(all));
    return seen;
}

// Nothing for what is not compared. Clears what the kernel chooses at random.
std::optional<Observation> observe4(const std::string& host, Bytes& frame, Ignored ignored) {
    uint8_t* const packet = frame.data() + kEthernet;
    const size_t header = size_t{4} * (packet[0] & 15U);
    const bool isOwn = packet[8] == kOwnHops;
    if (packet[9] == kIgmp && packet[8] == 1) return std::nullopt;
    if (!isOwn) return other(host, frame);
    const bool isFirst = (get16(packet + 6) & 0x1fffU) == 0;
    if (packet[9] == kIcmp && isFirst && frame.size() >= kEthernet + header + 2) {
        const auto answer = packets::readAnswer(frame);
        if (answer && answer->quote.size() >= 20) return tooBig(host, *answer, ignored);
        if (packet[header] == 3 && packet[header + 1] <= 1) return std::nullopt;
    }
    put16(packet + 4, 0);
    put16(packet + 10, 0);
    return other(host, frame);
}

// A "too big" message, or its first fragment, which is read as if it were the whole message.
std::optional<Observation> tooBig6(const std::string& host, Bytes frame, const Transport& transport,
                                   Ignored ignored) {
    if (transport.fragmentAt == 40) {
        frame.erase(frame.begin() + kEthernet + 40, frame.begin() + kEthernet + 48);
        put16(&frame[kEthernet + 4], frame.size() - kEthernet - 40);
        frame[kEthernet + 6] = kIcmpv6;
    }
    auto answer = packets::readAnswer(frame);
    if (!answer || answer->quote.size() < 40) return std::nullopt;
    if (transport.fragmentAt != 0 && answer->problem == "wrong ICMPv6 checksum")
        answer->problem.clear();
    return tooBig(host, *answer, ignored);
}

std::optional<Observation> observe6(const std::string& host, Bytes& frame, Ignored ignored) {
    uint8_t* const packet = frame.data() + kEthernet;
    const size_t size = frame.size() - kEthernet;
    const Transport transport = transportOf6(packet, size);
    if (isUnasked(packet, transport, size)) return std::nullopt;
    if (packet[7] == kOwnHops) {
        if (transport.protocol == kIcmpv6) {
            if (transport.isLaterFragment) return std::nullopt;
            if (auto told = tooBig6(host, frame, transport, ignored)) return told;
        }
        packet[1] &= 0xf0;
        put16(packet + 2, 0);
    }
    // The kernel chooses another when it reassembles a datagram and fragments it again.
    if (transport.fragmentAt != 0) std::fill_n(packet + transport.fragmentAt + 4, 4, uint8_t{0});
    return other(host, frame);
}

}  // namespace

std::optional<Observation> observe(const std::string& host, Bytes frame, Ignored ignored) {
    if (frame.size() < kEthernet) return other(host, frame);
    const uint32_t type = get16(&frame[12]);
    if (type == 0x0806) return std::nullopt;
    if (type == 0x0800 && frame.size() >= kEthernet + 20) return observe4(host, frame, ignored);
    if (type == 0x86dd && frame.size() >= kEthernet + 40) return observe6(host, frame, ignored);
    return other(host, frame);
}

}  // namespace twin
