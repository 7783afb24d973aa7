// SPDX-License-Identifier: MIT
// The packets that the soak sends: oversized ones of every kind, and malformed ones.
#include "forge.h"

#include <algorithm>
#include <array>
#include <string>
#include <type_traits>
#include <utility>

#include "bytes.h"

namespace soak {

namespace {

using packets::put16;

constexpr size_t kIpAt = 14;
constexpr uint8_t kUdp = 17;
constexpr uint8_t kIcmp = 1;
constexpr uint8_t kIcmp6 = 58;
constexpr uint8_t kHopByHop = 0;
constexpr uint8_t kRouting = 43;
constexpr uint8_t kFragment = 44;
constexpr uint8_t kNoNextHeader = 59;
constexpr uint8_t kDestinationOptions = 60;

uint8_t byte(size_t value) { return static_cast<uint8_t>(value); }

std::string host4(const char* net, size_t host) { return net + std::to_string(host); }

std::string host6(int vlan, size_t host) {
    std::string digits;
    for (const size_t shift : {4U, 0U}) digits += "0123456789abcdef"[host >> shift & 15];
    return "2001:db8:" + std::to_string(vlan) + "::" + digits;
}

// Edits of the packet in a frame.

Bytes changed(Bytes frame, size_t at, uint8_t value) {
    frame[kIpAt + at] = value;
    return frame;
}

Bytes withLength(Bytes frame, size_t at, size_t length) {
    put16(&frame[kIpAt + at], length);
    return frame;
}

// With the checksum over as much header as IHL gives.
Bytes sealed(Bytes frame) {
    packets::seal(&frame[kIpAt]);
    return frame;
}

Bytes cut(Bytes frame, size_t size) {
    frame.resize(kIpAt + size);
    return frame;
}

Bytes toStation(Bytes frame, const Mac& mac) {
    std::copy(mac.begin(), mac.end(), frame.begin());
    return frame;
}

// Frames that carry tags: the link is one VLAN's, without tags.
Bytes tagged(Forge& forge, Bytes frame, size_t tags) {
    for (size_t i = 0; i < tags; ++i) {
        Bytes tag(4);
        put16(tag.data(), i == 0 ? 0x8100 : 0x88a8);
        put16(&tag[2], forge.below(8) << 13 | (1 + forge.below(4094)));
        frame.insert(frame.begin() + 12, tag.begin(), tag.end());
    }
    return frame;
}

// Packets that differ from the plain ones.

template <typename Packet>
Packet oversized(Forge& forge) {
    if constexpr (std::is_same_v<Packet, Ipv4>)
        return forge.ipv4();
    else
        return forge.ipv6();
}

template <typename Packet>
Bytes sized(Forge& forge, size_t size) {
    auto packet = oversized<Packet>(forge);
    packet.payload.resize(packet.payload.size() + size - packet.size);
    packet.size = size;
    return forge.frame(packet);
}

template <typename Packet, typename Field, typename Value>
Bytes with(Forge& forge, Field Packet::*field, const Value& value) {
    auto packet = oversized<Packet>(forge);
    packet.*field = value;
    return forge.frame(packet);
}

Bytes withOptions4(Forge& forge, Bytes options, size_t size) {
    options.resize(size, options.back());
    Ipv4 packet = forge.ipv4();
    packet.payload.resize(packet.size - 20 - size);
    packet.options = options;
    return forge.frame(packet);
}

Bytes fragment4(Forge& forge, bool moreFragments, size_t offset) {
    Ipv4 packet = forge.ipv4();
    packet.moreFragments = moreFragments;
    packet.offset = static_cast<uint16_t>(offset);
    return forge.frame(packet);
}

Bytes icmp4(Forge& forge, uint8_t type) {
    Ipv4 packet = forge.ipv4();
    packet.protocol = kIcmp;
    packet.payload[0] = type;
    return forge.frame(packet);
}

Bytes icmp6(Forge& forge, size_t type) {
    Ipv6 packet = forge.ipv6();
    packet.nextHeader = kIcmp6;
    packet.payload[0] = byte(type);
    return forge.frame(packet);
}

// An extension header of 8 octets: next header, length 0, and by default PadN of 4.
Bytes extended6(Forge& forge, uint8_t type, Bytes header = {kUdp, 0, 1, 4, 0, 0, 0, 0}) {
    Ipv6 packet = forge.ipv6();
    packet.firstHeader = type;
    packet.payload.resize(packet.size - 48);
    packet.extensions = std::move(header);
    return forge.frame(packet);
}

Bytes laterFragment6(Forge& forge) {
    Bytes header{kUdp, 0, 0, 0, 0, 0, 0, 0};
    put16(&header[2], (1 + forge.below(0x1fff)) << 3 | forge.below(2));
    return extended6(forge, kFragment, header);
}

Bytes icmpErrorAfterOptions6(Forge& forge) {
    Bytes frame = extended6(forge, kDestinationOptions, {kIcmp6, 0, 1, 4, 0, 0, 0, 0});
    return changed(frame, 48, byte(forge.below(128)));
}

// A record-route option whose length leaves no room for its own header: the kernel's answer
// is a Parameter Problem.
Bytes brokenOptions4(Forge& forge) {
    Bytes options(40, 1);
    const Bytes record{7, byte(forge.below(3)), 4};
    std::copy(record.begin(), record.end(),
              options.begin() + static_cast<ptrdiff_t>(forge.below(37)));
    return withOptions4(forge, options, 40);
}

Bytes otherEtherType(Forge& forge) {
    Bytes frame = forge.frame(forge.ipv4());
    size_t type = 0;
    // Those below 0x0600 are lengths; the others are what the switch or its host might speak.
    while (type == 0 || type == 0x0800 || type == 0x86dd || type == 0x0806 || type == 0x8100 ||
           type == 0x88a8)
        type = forge.below(0x10000);
    put16(&frame[12], type);
    return frame;
}

Bytes garbage(Forge& forge, uint8_t version, bool keepsVersion) {
    Bytes packet = forge.randomBytes(forge.oversize());
    const uint8_t first = packet[0];
    packet[0] = version;
    Bytes frame = forge.frame(packet);
    return keepsVersion ? frame : changed(frame, 0, first);
}

constexpr std::array kNoHosts4{"0.0.0.0",         "0.1.2.3",   "127.0.0.1",       "224.0.0.1",
                               "239.255.255.250", "240.0.0.1", "255.255.255.255", "10.0.20.255"};
constexpr std::array kNoSingleHosts4{"224.0.0.1", "239.1.2.3", "255.255.255.255", "10.0.20.255"};
constexpr std::array kNoNodes6{"::", "::1", "ff02::1", "ff0e::101"};
constexpr std::array kSwitch4{"10.0.20.1", "10.0.10.1"};
constexpr std::array kSwitch6{"2001:db8:20::1", "2001:db8:10::1"};
constexpr std::array<uint8_t, 5> kErrors4{3, 4, 5, 11, 12};
constexpr std::array<uint8_t, 4> kQueries4{0, 8, 13, 17};
constexpr std::array<uint8_t, 6> kWrongVersions4{0x05, 0x15, 0x55, 0x65, 0x75, 0xf5};
constexpr std::array<uint8_t, 6> kWrongVersions6{0, 0x10, 0x40, 0x50, 0x70, 0xf0};

constexpr Outcome kAnswered = Outcome::kAnswered;
constexpr Outcome kKernels = Outcome::kKernels;
constexpr Outcome kElsewhere = Outcome::kElsewhere;
constexpr Outcome kUnanswered = Outcome::kUnanswered;

Bytes plain4(Forge& f) { return f.frame(f.ipv4()); }
Bytes plain6(Forge& f) { return f.frame(f.ipv6()); }

// clang-format off
const Kind kAllKinds[] = {
    {"plain", 4, kAnswered, plain4},
    {"plain", 6, kAnswered, plain6},
    // Not ICMP, which may be an error.
    {"any protocol", 4, kAnswered, [](Forge& f) { return with(f, &Ipv4::protocol, byte(2 + f.below(254))); }},
    // If the header were longer than 52 bytes, the kernel would answer.
    {"options", 4, kAnswered, [](Forge& f) { return withOptions4(f, {1}, 4 + 4 * f.below(8)); }},
    // The router writes its address into these before it refuses the packet.
    {"options that the router writes into", 4, kAnswered, [](Forge& f) { return withOptions4(f, {7, 31, 4, 0}, 32); }},
    {"broken options", 4, kUnanswered, brokenOptions4},
    {"first fragment with DF", 4, kAnswered, [](Forge& f) { return fragment4(f, true, 0); }},
    {"later fragment with DF", 4, kUnanswered, [](Forge& f) { return fragment4(f, f.below(2) != 0, 1 + f.below(0x1fff)); }},
    {"without DF", 4, kUnanswered, [](Forge& f) { return with(f, &Ipv4::dontFragment, false); }},
    {"IHL below 5", 4, kUnanswered, [](Forge& f) { return sealed(changed(plain4(f), 0, byte(0x40 | f.below(5)))); }},
    {"wrong version", 4, kUnanswered, [](Forge& f) { return sealed(changed(plain4(f), 0, f.oneOf(kWrongVersions4))); }},
    {"claims more than it is", 4, kUnanswered, [](Forge& f) { return sealed(withLength(plain4(f), 2, 1501 + f.below(0xffff - 1500))); }},
    // The kernel trusts the length field: the bytes after it are padding.
    {"claims less than it is", 4, kUnanswered, [](Forge& f) { return sealed(withLength(plain4(f), 2, f.below(1281))); }},
    {"header cut short", 4, kUnanswered, [](Forge& f) { return cut(plain4(f), f.below(20)); }},
    {"wrong checksum", 4, kUnanswered, [](Forge& f) { Bytes frame = plain4(f); frame[kIpAt + 10 + f.below(2)] ^= byte(1U << f.below(8)); return frame; }},
    {"invalid source", 4, kUnanswered, [](Forge& f) { return with(f, &Ipv4::from, f.oneOf(kNoHosts4)); }},
    {"source is A's broadcast address", 4, kKernels, [](Forge& f) { return with(f, &Ipv4::from, "10.0.10.255"); }},
    {"ICMP error", 4, kUnanswered, [](Forge& f) { return icmp4(f, f.oneOf(kErrors4)); }},
    {"ICMP query", 4, kAnswered, [](Forge& f) { return icmp4(f, f.oneOf(kQueries4)); }},
    {"time to live 0 or 1", 4, kUnanswered, [](Forge& f) { return with(f, &Ipv4::ttl, byte(f.below(2))); }},
    {"to multicast or broadcast", 4, kUnanswered, [](Forge& f) { return with(f, &Ipv4::to, f.oneOf(kNoSingleHosts4)); }},
    {"to the switch", 4, kUnanswered, [](Forge& f) { return with(f, &Ipv4::to, f.oneOf(kSwitch4)); }},
    {"to nowhere", 4, kUnanswered, [](Forge& f) { return with(f, &Ipv4::to, host4("198.51.100.", f.below(256))); }},
    {"link broadcast", 4, kUnanswered, [](Forge& f) { return toStation(plain4(f), {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}); }},
    {"to another station", 4, kUnanswered, [](Forge& f) { return toStation(plain4(f), {0x02, 0xff, 0xff, 0xff, 0xff, 0x01}); }},
    {"fits", 4, kUnanswered, [](Forge& f) { return sized<Ipv4>(f, 28 + f.below(1253)); }},
    {"spoofed neighbour", 4, kAnswered, [](Forge& f) { return with(f, &Ipv4::from, host4("10.0.10.", 50 + f.below(10))); }},
    {"spoofed host B", 4, kElsewhere, [](Forge& f) { return with(f, &Ipv4::from, "10.0.20.2"); }},
    {"from nowhere", 4, kUnanswered, [](Forge& f) { return with(f, &Ipv4::from, host4("198.51.100.", f.below(256))); }},
    {"hop-by-hop options", 6, kAnswered, [](Forge& f) { return extended6(f, kHopByHop); }},
    {"destination options", 6, kAnswered, [](Forge& f) { return extended6(f, kDestinationOptions); }},
    // Of the experimental type, with none left.
    {"routing header", 6, kAnswered, [](Forge& f) { return extended6(f, kRouting, {kUdp, 0, 253, 0, 0, 0, 0, 0}); }},
    {"unknown next header", 6, kAnswered, [](Forge& f) { return with(f, &Ipv6::nextHeader, byte(143 + f.below(110))); }},
    {"no next header", 6, kAnswered, [](Forge& f) { return with(f, &Ipv6::nextHeader, kNoNextHeader); }},
    {"first fragment", 6, kAnswered, [](Forge& f) { return extended6(f, kFragment, {kUdp, 0, 0, 1, 0, 0, 0, 0}); }},
    {"later fragment", 6, kAnswered, laterFragment6},
    // Headers that claim to extend beyond the packet's end.
    {"endless header", 6, kAnswered, [](Forge& f) { return extended6(f, kDestinationOptions, {kDestinationOptions, 255, 1, 4, 0, 0, 0, 0}); }},
    {"wrong version", 6, kUnanswered, [](Forge& f) { return changed(plain6(f), 0, f.oneOf(kWrongVersions6)); }},
    {"claims more than it is", 6, kUnanswered, [](Forge& f) { return withLength(plain6(f), 4, 1461 + f.below(0xffff - 1460)); }},
    {"claims less than it is", 6, kUnanswered, [](Forge& f) { return withLength(plain6(f), 4, f.below(1241)); }},
    {"header cut short", 6, kUnanswered, [](Forge& f) { return cut(plain6(f), f.below(40)); }},
    {"invalid source", 6, kUnanswered, [](Forge& f) { return with(f, &Ipv6::from, f.oneOf(kNoNodes6)); }},
    {"link-local source", 6, kUnanswered, [](Forge& f) { return with(f, &Ipv6::from, "fe80::2"); }},
    {"ICMPv6 error", 6, kUnanswered, [](Forge& f) { return icmp6(f, f.below(128)); }},
    {"ICMPv6 error after options", 6, kUnanswered, icmpErrorAfterOptions6},
    {"redirect", 6, kAnswered, [](Forge& f) { return icmp6(f, 137); }},
    {"ICMPv6 query", 6, kAnswered, [](Forge& f) { return icmp6(f, 128 + f.below(2)); }},
    {"hop limit 0 or 1", 6, kUnanswered, [](Forge& f) { return with(f, &Ipv6::hopLimit, byte(f.below(2))); }},
    {"to multicast", 6, kUnanswered, [](Forge& f) { return with(f, &Ipv6::to, "ff0e::101"); }},
    {"to the switch", 6, kUnanswered, [](Forge& f) { return with(f, &Ipv6::to, f.oneOf(kSwitch6)); }},
    {"to nowhere", 6, kUnanswered, [](Forge& f) { return with(f, &Ipv6::to, host6(99, f.below(256))); }},
    {"link multicast", 6, kUnanswered, [](Forge& f) { return toStation(plain6(f), {0x33, 0x33, 0, 0, 0, 1}); }},
    // A jumbo payload (RFC 2675) that is not there.
    {"jumbo payload that lies", 6, kUnanswered, [](Forge& f) { return withLength(extended6(f, kHopByHop, {kUdp, 0, 0xc2, 4, 0, 1, 0, 0}), 4, 0); }},
    {"fits", 6, kUnanswered, [](Forge& f) { return sized<Ipv6>(f, 48 + f.below(1233)); }},
    {"spoofed neighbour", 6, kAnswered, [](Forge& f) { return with(f, &Ipv6::from, host6(10, 0x50 + f.below(10))); }},
    {"from nowhere", 6, kUnanswered, [](Forge& f) { return with(f, &Ipv6::from, host6(99, f.below(256))); }},
    {"tagged", 0, kUnanswered, [](Forge& f) { return tagged(f, sized<Ipv4>(f, 1490), 1); }},
    {"doubly tagged", 0, kUnanswered, [](Forge& f) { return tagged(f, sized<Ipv6>(f, 1490), 2); }},
    {"other EtherType", 0, kUnanswered, otherEtherType},
    {"garbage as IPv4", 0, kUnanswered, [](Forge& f) { return garbage(f, 0x40, false); }},
    {"garbage as IPv6", 0, kUnanswered, [](Forge& f) { return garbage(f, 0x60, f.below(2) == 0); }},
};
// clang-format on

}  // namespace

std::span<const Kind> kinds() { return kAllKinds; }

Bytes Forge::make(const Kind& kind, uint32_t serial) {
    m_serial = serial;
    return kind.make(*this);
}

size_t Forge::chooseKind() {
    const size_t dice = below(4);
    return dice < 2 ? dice : below(std::size(kAllKinds));
}

Bytes Forge::randomBytes(size_t size) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; i += 8) {
        uint64_t word = m_random();
        for (size_t j = i; j < std::min(i + 8, size); ++j, word >>= 8) bytes[j] = byte(word);
    }
    return bytes;
}

Ipv4 Forge::ipv4() {
    const size_t size = oversize();
    return {.size = size,
            .tos = byte(below(256)),
            .payload = randomBytes(size - 20),
            .id = static_cast<uint16_t>(m_serial)};
}

Ipv6 Forge::ipv6() {
    const size_t size = oversize();
    return {.size = size, .payload = randomBytes(size - 40), .flowLabel = m_serial & 0xfffff};
}

}  // namespace soak
