// SPDX-License-Identifier: MIT
// The packets that the soak sends: oversized ones of every kind, and malformed ones.
#include "forge.h"

#include <algorithm>
#include <cstring>

#include "bytes.h"

namespace soak {

namespace {

constexpr size_t kIpAt = 14;
constexpr uint8_t kUdp = 17;
constexpr uint8_t kIcmp = 1;
constexpr uint8_t kIcmp6 = 58;
constexpr uint8_t kHopByHop = 0;
constexpr uint8_t kRouting = 43;
constexpr uint8_t kFragment = 44;
constexpr uint8_t kNoNextHeader = 59;
constexpr uint8_t kDestinationOptions = 60;

using Address4 = std::array<uint8_t, 4>;
using Address6 = std::array<uint8_t, 16>;

uint8_t* ip(Frame& frame) { return &frame.bytes[kIpAt]; }

template <size_t Size>
void put(uint8_t* to, const std::array<uint8_t, Size>& bytes) {
    std::copy(bytes.begin(), bytes.end(), to);
}

// The checksum over the header as long as IHL says it is.
void seal(Frame& frame) {
    uint8_t* const header = ip(frame);
    const size_t length = size_t{4} * (header[0] & 15U);
    put16(header + 10, 0);
    put16(header + 10, ~onesSum({header, length}) & 0xffff);
}

void from(Frame& frame, const Address4& source) { put(ip(frame) + 12, source); }
void to(Frame& frame, const Address4& destination) { put(ip(frame) + 16, destination); }
void from(Frame& frame, const Address6& source) { put(ip(frame) + 8, source); }
void to(Frame& frame, const Address6& destination) { put(ip(frame) + 24, destination); }

Address6 documentation(uint8_t subnet, uint8_t host) {
    return {0x20, 0x01, 0x0d, 0xb8, 0, subnet, 0, 0, 0, 0, 0, 0, 0, 0, 0, host};
}

void plain4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    seal(frame);
}

void plain6(Forge& forge, Frame& frame) { forge.ipv6(frame, forge.oversize()); }

void setProtocol4(Frame& frame, uint8_t protocol) {
    ip(frame)[9] = protocol;
    seal(frame);
}

void anyProtocol4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    // Not ICMP, which may be an error.
    setProtocol4(frame, static_cast<uint8_t>(2 + forge.below(254)));
}

void options4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    // With a header of more than 52 bytes it would be the kernel's to answer.
    const size_t words = 6 + forge.below(8);
    ip(frame)[0] = static_cast<uint8_t>(0x40 | words);
    std::fill(ip(frame) + 20, ip(frame) + 4 * words, uint8_t{1});  // no operation
    seal(frame);
}

// The router writes its address into these before it refuses the packet.
void recordRoute4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    ip(frame)[0] = 0x4d;
    std::fill(ip(frame) + 20, ip(frame) + 52, uint8_t{0});
    put(ip(frame) + 20, std::array<uint8_t, 3>{7, 31, 4});
    seal(frame);
}

// A record of the route whose length leaves no room for its own header: the kernel's answer
// is a Parameter Problem.
void brokenOptions4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    ip(frame)[0] = 0x4f;
    std::fill(ip(frame) + 20, ip(frame) + 60, uint8_t{1});
    put(ip(frame) + 20 + forge.below(37),
        std::array<uint8_t, 3>{7, static_cast<uint8_t>(forge.below(3)), 4});
    seal(frame);
}

void firstFragment4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    put16(ip(frame) + 6, 0x6000);
    seal(frame);
}

void laterFragment4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    put16(ip(frame) + 6, 0x4000 | (forge.below(2) << 13) | (1 + forge.below(0x1fff)));
    seal(frame);
}

void withoutDf4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    put16(ip(frame) + 6, 0);
    seal(frame);
}

void shortIhl4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    ip(frame)[0] = static_cast<uint8_t>(0x40 | forge.below(5));
    seal(frame);
}

void wrongVersion4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    constexpr std::array<uint8_t, 6> kVersions{0, 1, 5, 6, 7, 15};
    ip(frame)[0] = static_cast<uint8_t>(kVersions[forge.below(kVersions.size())] << 4 | 5);
    seal(frame);
}

void claimsMore4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    const size_t length = frame.size - kIpAt;
    put16(ip(frame) + 2, length + 1 + forge.below(0xffff - length));
    seal(frame);
}

// The kernel takes a packet to be as long as it says: what is behind that is padding.
void claimsLess4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    put16(ip(frame) + 2, forge.below(1281));
    seal(frame);
}

void truncated4(Forge& forge, Frame& frame) {
    plain4(forge, frame);
    frame.size = kIpAt + forge.below(20);
}

void wrongChecksum4(Forge& forge, Frame& frame) {
    plain4(forge, frame);
    ip(frame)[10 + forge.below(2)] ^= static_cast<uint8_t>(1U << forge.below(8));
}

void noHostAsSource4(Forge& forge, Frame& frame) {
    constexpr std::array<Address4, 8> kSources{{{0, 0, 0, 0},
                                                {0, 1, 2, 3},
                                                {127, 0, 0, 1},
                                                {224, 0, 0, 1},
                                                {239, 255, 255, 250},
                                                {240, 0, 0, 1},
                                                {255, 255, 255, 255},
                                                {10, 0, 20, 255}}};
    forge.ipv4(frame, forge.oversize());
    from(frame, kSources[forge.below(kSources.size())]);
    seal(frame);
}

void broadcastAsSource4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    from(frame, Address4{10, 0, 10, 255});
    seal(frame);
}

void icmpError4(Forge& forge, Frame& frame) {
    constexpr std::array<uint8_t, 5> kTypes{3, 4, 5, 11, 12};
    forge.ipv4(frame, forge.oversize());
    ip(frame)[20] = kTypes[forge.below(kTypes.size())];
    setProtocol4(frame, kIcmp);
}

void icmpQuery4(Forge& forge, Frame& frame) {
    constexpr std::array<uint8_t, 4> kTypes{0, 8, 13, 17};
    forge.ipv4(frame, forge.oversize());
    ip(frame)[20] = kTypes[forge.below(kTypes.size())];
    setProtocol4(frame, kIcmp);
}

void lastHop4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    ip(frame)[8] = static_cast<uint8_t>(forge.below(2));
    seal(frame);
}

void toNoSingleHost4(Forge& forge, Frame& frame) {
    constexpr std::array<Address4, 4> kDestinations{
        {{224, 0, 0, 1}, {239, 1, 2, 3}, {255, 255, 255, 255}, {10, 0, 20, 255}}};
    forge.ipv4(frame, forge.oversize());
    to(frame, kDestinations[forge.below(kDestinations.size())]);
    seal(frame);
}

void toSwitch4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    to(frame, forge.below(2) == 0 ? Address4{10, 0, 20, 1} : Address4{10, 0, 10, 1});
    seal(frame);
}

void toNowhere4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    to(frame, Address4{198, 51, 100, static_cast<uint8_t>(forge.below(256))});
    seal(frame);
}

void setMac(Frame& frame, const Mac& mac) { put(frame.bytes.data(), mac); }

void linkBroadcast4(Forge& forge, Frame& frame) {
    plain4(forge, frame);
    setMac(frame, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff});
}

void otherStation4(Forge& forge, Frame& frame) {
    plain4(forge, frame);
    setMac(frame, {0x02, 0xff, 0xff, 0xff, 0xff, 0x01});
}

void fits4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, 20 + forge.below(1261));
    seal(frame);
}

void spoofed4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    from(frame, Address4{10, 0, 10, static_cast<uint8_t>(50 + forge.below(10))});
    seal(frame);
}

void fromB4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    from(frame, Address4{10, 0, 20, 2});
    seal(frame);
}

void fromNowhere4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    from(frame, Address4{198, 51, 100, static_cast<uint8_t>(forge.below(256))});
    seal(frame);
}

// Extension header of 8 octets: next header, length 0, PadN of 4.
void extend6(Forge& forge, Frame& frame, uint8_t type, uint8_t next) {
    forge.ipv6(frame, forge.oversize());
    ip(frame)[6] = type;
    put(ip(frame) + 40, std::array<uint8_t, 8>{next, 0, 1, 4, 0, 0, 0, 0});
}

void hopByHop6(Forge& forge, Frame& frame) { extend6(forge, frame, kHopByHop, kUdp); }

void destinationOptions6(Forge& forge, Frame& frame) {
    extend6(forge, frame, kDestinationOptions, kUdp);
}

void routing6(Forge& forge, Frame& frame) {
    extend6(forge, frame, kRouting, kUdp);
    put(ip(frame) + 42, std::array<uint8_t, 2>{253, 0});  // experimental type, none left
}

void unknownHeader6(Forge& forge, Frame& frame) {
    forge.ipv6(frame, forge.oversize());
    ip(frame)[6] = static_cast<uint8_t>(143 + forge.below(110));
}

void noNextHeader6(Forge& forge, Frame& frame) {
    forge.ipv6(frame, forge.oversize());
    ip(frame)[6] = kNoNextHeader;
}

void firstFragment6(Forge& forge, Frame& frame) {
    extend6(forge, frame, kFragment, kUdp);
    put(ip(frame) + 42, std::array<uint8_t, 2>{0, 1});
}

void laterFragment6(Forge& forge, Frame& frame) {
    extend6(forge, frame, kFragment, kUdp);
    put16(ip(frame) + 42, (1 + forge.below(0x1fff)) << 3 | forge.below(2));
}

// Headers that say that they go on behind the packet's end.
void endlessHeader6(Forge& forge, Frame& frame) {
    extend6(forge, frame, kDestinationOptions, kDestinationOptions);
    ip(frame)[41] = 255;
}

void wrongVersion6(Forge& forge, Frame& frame) {
    forge.ipv6(frame, forge.oversize());
    constexpr std::array<uint8_t, 6> kVersions{0, 1, 4, 5, 7, 15};
    ip(frame)[0] = static_cast<uint8_t>(kVersions[forge.below(kVersions.size())] << 4);
}

void claimsMore6(Forge& forge, Frame& frame) {
    forge.ipv6(frame, forge.oversize());
    const size_t length = frame.size - kIpAt - 40;
    put16(ip(frame) + 4, length + 1 + forge.below(0xffff - length));
}

void claimsLess6(Forge& forge, Frame& frame) {
    forge.ipv6(frame, forge.oversize());
    put16(ip(frame) + 4, forge.below(1241));
}

void truncated6(Forge& forge, Frame& frame) {
    plain6(forge, frame);
    frame.size = kIpAt + forge.below(40);
}

void noNodeAsSource6(Forge& forge, Frame& frame) {
    constexpr std::array<Address6, 4> kSources{
        {{},
         {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1},
         {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1},
         {0xff, 0x0e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1}}};
    forge.ipv6(frame, forge.oversize());
    from(frame, kSources[forge.below(kSources.size())]);
}

void linkLocalSource6(Forge& forge, Frame& frame) {
    forge.ipv6(frame, forge.oversize());
    from(frame, Address6{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2});
}

void icmpError6(Forge& forge, Frame& frame) {
    forge.ipv6(frame, forge.oversize());
    ip(frame)[6] = kIcmp6;
    ip(frame)[40] = static_cast<uint8_t>(forge.below(128));
}

void icmpErrorBehindOptions6(Forge& forge, Frame& frame) {
    extend6(forge, frame, kDestinationOptions, kIcmp6);
    ip(frame)[48] = static_cast<uint8_t>(forge.below(128));
}

void redirect6(Forge& forge, Frame& frame) {
    forge.ipv6(frame, forge.oversize());
    ip(frame)[6] = kIcmp6;
    ip(frame)[40] = 137;
}

void icmpQuery6(Forge& forge, Frame& frame) {
    forge.ipv6(frame, forge.oversize());
    ip(frame)[6] = kIcmp6;
    ip(frame)[40] = static_cast<uint8_t>(128 + forge.below(2));
}

void lastHop6(Forge& forge, Frame& frame) {
    forge.ipv6(frame, forge.oversize());
    ip(frame)[7] = static_cast<uint8_t>(forge.below(2));
}

void toMulticast6(Forge& forge, Frame& frame) {
    forge.ipv6(frame, forge.oversize());
    to(frame, Address6{0xff, 0x0e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1});
}

void toSwitch6(Forge& forge, Frame& frame) {
    forge.ipv6(frame, forge.oversize());
    to(frame, documentation(forge.below(2) == 0 ? 0x20 : 0x10, 1));
}

void toNowhere6(Forge& forge, Frame& frame) {
    forge.ipv6(frame, forge.oversize());
    to(frame, documentation(0x99, static_cast<uint8_t>(forge.below(256))));
}

void linkMulticast6(Forge& forge, Frame& frame) {
    plain6(forge, frame);
    setMac(frame, {0x33, 0x33, 0, 0, 0, 1});
}

// A jumbo payload (RFC 2675) that is not there.
void jumbo6(Forge& forge, Frame& frame) {
    extend6(forge, frame, kHopByHop, kUdp);
    put16(ip(frame) + 4, 0);
    put(ip(frame) + 42, std::array<uint8_t, 6>{0xc2, 4, 0, 1, 0, 0});
}

void fits6(Forge& forge, Frame& frame) { forge.ipv6(frame, 48 + forge.below(1233)); }

void spoofed6(Forge& forge, Frame& frame) {
    forge.ipv6(frame, forge.oversize());
    from(frame, documentation(0x10, static_cast<uint8_t>(0x50 + forge.below(10))));
}

void fromNowhere6(Forge& forge, Frame& frame) {
    forge.ipv6(frame, forge.oversize());
    from(frame, documentation(0x99, static_cast<uint8_t>(forge.below(256))));
}

// Frames that carry a tag: the link is one VLAN's, without tags.
void tag(Forge& forge, Frame& frame, size_t tags) {
    uint8_t* const type = &frame.bytes[12];
    std::memmove(type + 4 * tags, type, frame.size - 12);
    frame.size += 4 * tags;
    for (size_t i = 0; i < tags; ++i) {
        put16(type + 4 * i, i + 1 < tags ? 0x88a8 : 0x8100);
        put16(type + 4 * i + 2, forge.below(8) << 13 | (1 + forge.below(4094)));
    }
}

void tagged(Forge& forge, Frame& frame) {
    forge.ipv4(frame, 1490);
    seal(frame);
    tag(forge, frame, 1);
}

void doublyTagged(Forge& forge, Frame& frame) {
    forge.ipv6(frame, 1490);
    tag(forge, frame, 2);
}

void otherEtherType(Forge& forge, Frame& frame) {
    plain4(forge, frame);
    uint16_t type = 0;
    // Those below 0x0600 are lengths; the others are what the switch or its host might speak.
    while (type == 0 || type == 0x0800 || type == 0x86dd || type == 0x0806 || type == 0x8100 ||
           type == 0x88a8)
        type = static_cast<uint16_t>(forge.below(0x10000));
    put16(&frame.bytes[12], type);
}

void garbage4(Forge& forge, Frame& frame) {
    forge.ipv4(frame, forge.oversize());
    forge.fillRandomly({ip(frame), frame.size - kIpAt});
}

void garbage6(Forge& forge, Frame& frame) {
    forge.ipv6(frame, forge.oversize());
    forge.fillRandomly({ip(frame), frame.size - kIpAt});
    if (forge.below(2) == 0) ip(frame)[0] = 0x60;
}

constexpr Outcome kAnswered = Outcome::kAnswered;
constexpr Outcome kKernels = Outcome::kKernels;
constexpr Outcome kElsewhere = Outcome::kElsewhere;
constexpr Outcome kUnanswered = Outcome::kUnanswered;

constexpr Kind kAllKinds[] = {
    {"plain", 4, kAnswered, plain4},
    {"plain", 6, kAnswered, plain6},
    {"any protocol", 4, kAnswered, anyProtocol4},
    {"options", 4, kAnswered, options4},
    {"options that the router writes into", 4, kAnswered, recordRoute4},
    {"broken options", 4, kUnanswered, brokenOptions4},
    {"first fragment with DF", 4, kAnswered, firstFragment4},
    {"later fragment with DF", 4, kUnanswered, laterFragment4},
    {"without DF", 4, kUnanswered, withoutDf4},
    {"IHL below 5", 4, kUnanswered, shortIhl4},
    {"wrong version", 4, kUnanswered, wrongVersion4},
    {"claims more than it is", 4, kUnanswered, claimsMore4},
    {"claims less than it is", 4, kUnanswered, claimsLess4},
    {"header cut short", 4, kUnanswered, truncated4},
    {"wrong checksum", 4, kUnanswered, wrongChecksum4},
    {"source is no host", 4, kUnanswered, noHostAsSource4},
    {"source is A's broadcast address", 4, kKernels, broadcastAsSource4},
    {"ICMP error", 4, kUnanswered, icmpError4},
    {"ICMP query", 4, kAnswered, icmpQuery4},
    {"time to live 0 or 1", 4, kUnanswered, lastHop4},
    {"to multicast or broadcast", 4, kUnanswered, toNoSingleHost4},
    {"to the switch", 4, kUnanswered, toSwitch4},
    {"to nowhere", 4, kUnanswered, toNowhere4},
    {"link broadcast", 4, kUnanswered, linkBroadcast4},
    {"to another station", 4, kUnanswered, otherStation4},
    {"fits", 4, kUnanswered, fits4},
    {"spoofed neighbour", 4, kAnswered, spoofed4},
    {"spoofed host B", 4, kElsewhere, fromB4},
    {"from nowhere", 4, kUnanswered, fromNowhere4},
    {"hop-by-hop options", 6, kAnswered, hopByHop6},
    {"destination options", 6, kAnswered, destinationOptions6},
    {"routing header", 6, kAnswered, routing6},
    {"unknown next header", 6, kAnswered, unknownHeader6},
    {"no next header", 6, kAnswered, noNextHeader6},
    {"first fragment", 6, kAnswered, firstFragment6},
    {"later fragment", 6, kAnswered, laterFragment6},
    {"endless header", 6, kAnswered, endlessHeader6},
    {"wrong version", 6, kUnanswered, wrongVersion6},
    {"claims more than it is", 6, kUnanswered, claimsMore6},
    {"claims less than it is", 6, kUnanswered, claimsLess6},
    {"header cut short", 6, kUnanswered, truncated6},
    {"source is no node", 6, kUnanswered, noNodeAsSource6},
    {"link-local source", 6, kUnanswered, linkLocalSource6},
    {"ICMPv6 error", 6, kUnanswered, icmpError6},
    {"ICMPv6 error behind options", 6, kUnanswered, icmpErrorBehindOptions6},
    {"redirect", 6, kAnswered, redirect6},
    {"ICMPv6 query", 6, kAnswered, icmpQuery6},
    {"hop limit 0 or 1", 6, kUnanswered, lastHop6},
    {"to multicast", 6, kUnanswered, toMulticast6},
    {"to the switch", 6, kUnanswered, toSwitch6},
    {"to nowhere", 6, kUnanswered, toNowhere6},
    {"link multicast", 6, kUnanswered, linkMulticast6},
    {"jumbo payload that lies", 6, kUnanswered, jumbo6},
    {"fits", 6, kUnanswered, fits6},
    {"spoofed neighbour", 6, kAnswered, spoofed6},
    {"from nowhere", 6, kUnanswered, fromNowhere6},
    {"tagged", 0, kUnanswered, tagged},
    {"doubly tagged", 0, kUnanswered, doublyTagged},
    {"other EtherType", 0, kUnanswered, otherEtherType},
    {"garbage as IPv4", 0, kUnanswered, garbage4},
    {"garbage as IPv6", 0, kUnanswered, garbage6},
};

}  // namespace

std::span<const Kind> kinds() { return kAllKinds; }

void Forge::make(const Kind& kind, uint32_t serial, Frame& frame) {
    m_serial = serial;
    kind.make(*this, frame);
}

size_t Forge::chooseKind() {
    const size_t dice = below(4);
    return dice < 2 ? dice : below(std::size(kAllKinds));
}

void Forge::fillRandomly(std::span<uint8_t> bytes) {
    for (size_t i = 0; i < bytes.size(); i += 8) {
        uint64_t word = m_random();
        for (size_t j = i; j < std::min(i + 8, bytes.size()); ++j, word >>= 8)
            bytes[j] = static_cast<uint8_t>(word);
    }
}

void Forge::ethernet(Frame& frame, uint16_t type) const {
    put(frame.bytes.data(), m_gateway);
    put(&frame.bytes[6], m_host);
    put16(&frame.bytes[12], type);
}

void Forge::ipv4(Frame& frame, size_t length) {
    frame.size = kIpAt + length;
    ethernet(frame, 0x0800);
    uint8_t* const header = ip(frame);
    fillRandomly({header + 20, length - 20});
    header[0] = 0x45;
    header[1] = static_cast<uint8_t>(below(256));
    put16(header + 2, length);
    put16(header + 4, m_serial & 0xffff);
    put16(header + 6, 0x4000);
    header[8] = 64;
    header[9] = kUdp;
    from(frame, Address4{10, 0, 10, 2});
    to(frame, Address4{10, 0, 20, 2});
}

void Forge::ipv6(Frame& frame, size_t length) {
    frame.size = kIpAt + length;
    ethernet(frame, 0x86dd);
    uint8_t* const header = ip(frame);
    fillRandomly({header + 40, length - 40});
    header[0] = 0x60;
    header[1] = static_cast<uint8_t>(m_serial >> 16 & 15);
    put16(header + 2, m_serial & 0xffff);
    put16(header + 4, length - 40);
    header[6] = kUdp;
    header[7] = 64;
    from(frame, documentation(0x10, 2));
    to(frame, documentation(0x20, 2));
}

}  // namespace soak
