// SPDX-License-Identifier: MIT
// What a host receives, in a form in which two routers that do the same are equal.
#include "observation.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "bytes.h"

using packets::get16;
using packets::get32;
using packets::onesSum;
using packets::put16;
using packets::transportChecksum;

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
constexpr uint8_t kOwnHops = 64;  // what a router sends itself starts with that
constexpr uint8_t kTooBig6 = 2;
constexpr size_t kQuotedBeyondHeader = 8;
// The daemon's IPv4 answers quote that much, less than RFC 792 asks for beyond the longest headers.
constexpr size_t kQuoted4 = 60;

// The daemon folds the sum of an IPv4 message once and drops the carry of that, deliberately.
bool isFoldedOnce(const uint8_t* message, size_t size) {
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < size; i += 2)
        if (i != 2) sum += get16(message + i);
    return (~((sum & 0xffff) + (sum >> 16)) & 0xffff) == get16(message + 2);
}

std::string hex(const uint8_t* bytes, size_t size) {
    std::string text;
    std::array<char, 3> digits;
    for (size_t i = 0; i < size; ++i) {
        std::snprintf(digits.data(), digits.size(), "%02x", bytes[i]);
        text += digits.data();
    }
    return text;
}

std::string address(int family, const uint8_t* bytes) {
    std::array<char, INET6_ADDRSTRLEN> text;
    return inet_ntop(family, bytes, text.data(), text.size());
}

// FNV-1a: the text need not hold a whole packet to tell it from another.
uint64_t hashOf(const Bytes& bytes) {
    uint64_t hash = 14695981039346656037U;
    for (const uint8_t byte : bytes) hash = (hash ^ byte) * 1099511628211U;
    return hash;
}

struct Transport {
    uint8_t protocol = 0;
    size_t at = 0;
    size_t fragmentAt = 0;  // of the fragment header; 0 if there is none
    bool isLaterFragment = false;
};

Transport transportOf6(const uint8_t* packet, size_t size) {
    Transport found{packet[6], 40, 0, false};
    while (found.at + 8 <= size &&
           (found.protocol == kHopByHop || found.protocol == kRouting ||
            found.protocol == kFragment || found.protocol == kDestinationOptions)) {
        const uint8_t* const header = packet + found.at;
        if (found.protocol == kFragment) {
            found.fragmentAt = found.at;
            found.isLaterFragment = get16(header + 2) >> 3 != 0;
            found.protocol = header[0];
            found.at += 8;
            if (found.isLaterFragment) return found;
        } else {
            found.protocol = header[0];
            found.at += 8 + size_t{8} * header[1];
        }
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

Observation tooBig(const std::string& what, const uint8_t* quote, size_t quoted, size_t header,
                   bool isIpv4) {
    Observation told;
    told.isTooBig = true;
    const size_t compared = isIpv4 ? std::min(quoted, kQuoted4) : quoted;
    Bytes start(quote, quote + std::min(compared, header + kQuotedBeyondHeader));
    // The kernel may have written into the options before it refused the packet.
    if (isIpv4 && start.size() >= 20) put16(&start[10], 0);
    told.serial = isIpv4 ? get16(quote + 4) : get32(quote) & 0xfffff;
    told.text = what + ", about " + hex(start.data(), start.size());
    return told;
}

Observation told4(const std::string& host, const uint8_t* packet, size_t size, Ignored ignored) {
    const size_t header = size_t{4} * (packet[0] & 15U);
    const uint8_t* const message = packet + header;
    const size_t length = std::min<size_t>(get16(packet + 2), size) - header;
    const bool isWrong = onesSum({message, length}) != 0xffff && !isFoldedOnce(message, length);
    const std::string from = ignored.answerSource ? "" : " by " + address(AF_INET, packet + 12);
    const uint8_t* const quote = message + 8;
    Observation told =
        tooBig((ignored.answerHost ? "somebody" : host) + " is told " +
                   address(AF_INET, packet + 16) + from + ": type 3 code 4 MTU " +
                   std::to_string(get32(message + 4)) + (isWrong ? " WRONG CHECKSUM" : ""),
               quote, length - 8, size_t{4} * (quote[0] & 15U), true);
    told.messageSize = length;
    return told;
}

Observation told6(const std::string& host, const uint8_t* packet, size_t size,
                  const Transport& transport, Ignored ignored) {
    const uint8_t* const message = packet + transport.at;
    const size_t end = std::min<size_t>(size_t{40} + get16(packet + 4), size);
    const bool isWrong = transport.fragmentAt == 0 &&
                         transportChecksum({packet, packet + end}, transport.at, kIcmpv6) != 0;
    const std::string from = ignored.answerSource ? "" : " by " + address(AF_INET6, packet + 8);
    Observation told = tooBig(
        (ignored.answerHost ? "somebody" : host) + " is told " + address(AF_INET6, packet + 24) +
            from + ": type 2 code " + std::to_string(message[1]) + " MTU " +
            std::to_string(get32(message + 4)) + (isWrong ? " WRONG CHECKSUM" : ""),
        message + 8, end - transport.at - 8, 40, false);
    told.messageSize = end - transport.at;
    return told;
}

Observation other(const std::string& host, const Bytes& frame) {
    std::array<char, 17> hash;
    std::snprintf(hash.data(), hash.size(), "%016llx",
                  static_cast<unsigned long long>(hashOf(frame)));
    Observation seen;
    seen.text = host + " receives " + std::to_string(frame.size()) + " bytes, " +
                hex(frame.data(), std::min<size_t>(frame.size(), 78)) + ", hash " + hash.data();
    return seen;
}

}  // namespace

std::optional<Observation> observe(const std::string& host, const Bytes& original,
                                   Ignored ignored) {
    Bytes frame = original;
    if (frame.size() < kEthernet) return other(host, frame);
    const uint32_t type = get16(&frame[12]);
    if (type == 0x0806) return std::nullopt;
    uint8_t* const packet = frame.data() + kEthernet;
    const size_t size = frame.size() - kEthernet;
    if (type == 0x0800 && size >= 20) {
        const size_t header = size_t{4} * (packet[0] & 15U);
        const bool isFirst = (get16(packet + 6) & 0x1fffU) == 0;
        if (packet[9] == kIgmp && packet[8] == 1) return std::nullopt;
        if (packet[9] == kIcmp && isFirst && size >= header + 28 && packet[header] == 3 &&
            packet[header + 1] == 4 && packet[8] == kOwnHops)
            return told4(host, packet, size, ignored);
        if (packet[8] == kOwnHops) {
            if (packet[9] == kIcmp && isFirst && size >= header + 2 && packet[header] == 3 &&
                packet[header + 1] <= 1)
                return std::nullopt;
            put16(packet + 4, 0);
            put16(packet + 10, 0);
        }
    } else if (type == 0x86dd && size >= 40) {
        const Transport transport = transportOf6(packet, size);
        if (isUnasked(packet, transport, size)) return std::nullopt;
        const bool isOwn = packet[7] == kOwnHops;
        if (isOwn && transport.protocol == kIcmpv6) {
            if (transport.isLaterFragment) return std::nullopt;
            if (transport.at + 48 <= size && packet[transport.at] == kTooBig6)
                return told6(host, packet, size, transport, ignored);
        }
        if (isOwn) {
            packet[1] &= 0xf0;
            put16(packet + 2, 0);
        }
        // The kernel chooses another when it puts a datagram together and fragments it again.
        if (transport.fragmentAt != 0)
            std::fill_n(packet + transport.fragmentAt + 4, 4, uint8_t{0});
    }
    return other(host, frame);
}

}  // namespace twin
