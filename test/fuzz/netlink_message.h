// SPDX-License-Identifier: MIT
// Netlink messages for the fuzz targets: drawn from an input, and read according to the format.
#ifndef PMTUD_TEST_FUZZ_NETLINK_MESSAGE_H
#define PMTUD_TEST_FUZZ_NETLINK_MESSAGE_H

#include <libnetfilter_log/linux_nfnetlink_log.h>
#include <linux/if_link.h>

#include <map>
#include <optional>

#include "input.h"
#include "messages.h"
#include "vlan_table.h"

namespace fuzz {

/// The largest message, whatever the input asks for.
constexpr size_t kLargestMessage = 200000;

/// The number at the offset, in this machine's byte order.
template <typename T>
T load(Span bytes, size_t offset = 0) {
    T value;
    memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

inline uint32_t bigEndian(Span bytes) {
    uint32_t value = 0;
    for (const uint8_t byte : bytes) value = value * 256 + byte;
    return value;
}

inline std::string textOf(Span bytes) {
    return {bytes.begin(), std::find(bytes.begin(), bytes.end(), uint8_t{0})};
}

/// Adds attributes, mostly of these types; some claim a wrong length.
inline void addAttributes(Input& input, const std::vector<uint16_t>& known, Netlink& message) {
    constexpr size_t kLargestAttribute = 0x10010;
    unsigned left = input.byte() % 16;
    for (; left > 0 && message.bytes.size() < kLargestMessage - kLargestAttribute; --left) {
        const uint8_t choice = input.byte();
        const size_t which = choice % 16;
        const uint16_t type = which < known.size() ? known[which] : input.number<uint16_t>();
        size_t size = input.byte();
        if (size >= 250) size = input.number<uint16_t>();
        const Span given = input.bytes(size);
        Bytes payload(given.begin(), given.end());
        // Zeros if the input is too short for a large attribute.
        if ((choice & 0x40) != 0) payload.resize(std::max(size, payload.size()));
        const size_t start = message.bytes.size();
        message.add(type, payload);
        if ((choice & 0x80) == 0) continue;
        const auto claimed = input.number<uint16_t>();
        memcpy(&message.bytes[start], &claimed, sizeof claimed);
    }
}

/// Sets the length in the header, to the right one or another, and may cut the message short.
inline void closeMessage(Input& input, Netlink& message) {
    uint32_t& claimed = message.close().header().nlmsg_len;
    const uint8_t choice = input.byte();
    if (choice == 1) claimed = input.number<uint32_t>();
    if (choice == 2 || choice == 4) claimed -= input.byte() % 4;
    const size_t size = message.bytes.size();
    if (choice == 3) message.bytes.resize(size - input.number<uint16_t>() % size);
    // Without the padding after the last attribute.
    if (choice == 4) message.bytes.resize(claimed);
}

/// The whole messages of a datagram, each with its padding. `padded` is the datagram, filled up to
/// the next boundary.
inline std::vector<Span> messagesOf(Span padded, size_t size) {
    std::vector<Span> messages;
    for (size_t start = 0; start < size && size - start >= Netlink::kHeader;) {
        const size_t claimed = load<uint32_t>(padded, start);
        if (claimed < Netlink::kHeader || claimed > size - start) break;
        messages.push_back(padded.subspan(start, Netlink::aligned(claimed)));
        start += Netlink::aligned(claimed);
    }
    return messages;
}

/// The payloads of the attributes of that type, up to the first attribute whose length is wrong.
inline std::vector<Span> payloadsOf(Span space, uint16_t wanted) {
    std::vector<Span> payloads;
    while (space.size() >= sizeof(nlattr)) {
        const auto [length, type] = load<nlattr>(space);
        if (length < sizeof(nlattr) || length > space.size()) break;
        if ((type & NLA_TYPE_MASK) == wanted)
            payloads.push_back(space.subspan(sizeof(nlattr), length - sizeof(nlattr)));
        space = space.subspan(std::min(Netlink::aligned(length), space.size()));
    }
    return payloads;
}

/// The one that counts; empty if there is none.
inline Span lastOf(Span space, uint16_t wanted) {
    const std::vector<Span> payloads = payloadsOf(space, wanted);
    return payloads.empty() ? Span() : payloads.back();
}

// Links.

constexpr size_t kLinkHeaders = Netlink::kHeader + sizeof(ifinfomsg);

/// Mostly of realistic interfaces, with few numbers and names, so that they recur.
inline Bytes drawLinkMessage(Input& input) {
    const uint8_t form = input.byte();
    const uint8_t choice = input.byte();
    if (form < 0xC0) {
        constexpr std::array<uint32_t, 8> kMtus = {1500, 1280, 9000, 576, 575, 16383, 16384, 1500};
        constexpr std::array<const char*, 4> kMasters = {"vrf", "bridge", "vrfs", "vr"};
        const int index = 1 + form / 8 % 8;
        const int vlan = choice % 4 == 3 ? index : 1 + choice % 4;
        const std::string name = "bcm0." + std::to_string(vlan);
        const bool hasOther = form >= 0xA0;
        Netlink message = linkMessage(form % 8 == 7 ? RTM_DELLINK : RTM_NEWLINK, index);
        message.text(IFLA_IFNAME, hasOther ? "eth0" : name).number(IFLA_MTU, kMtus[choice / 4 % 8]);
        if (form >= 0x80) {
            Netlink names = nested();
            names.text(IFLA_ALT_IFNAME, "uplink")
                .text(IFLA_ALT_IFNAME, "bcm0." + std::to_string(1 + choice / 32 % 4));
            if (hasOther) names.text(IFLA_ALT_IFNAME, name);
            message.nest(IFLA_PROP_LIST, names);
        }
        if (choice >= 0xC0)
            message.nest(IFLA_LINKINFO, nested()
                                            .text(IFLA_INFO_KIND, "vlan")
                                            .text(IFLA_INFO_SLAVE_KIND, kMasters[choice / 4 % 4]));
        return message.bytes;
    }
    constexpr std::array<uint16_t, 3> kTypes = {RTM_NEWLINK, RTM_NEWLINK, RTM_DELLINK};
    constexpr std::array<uint16_t, 3> kHardware = {ARPHRD_ETHER, ARPHRD_ETHER, ARPHRD_LOOPBACK};
    const uint16_t type = choice == 0xFF ? input.number<uint16_t>() : kTypes[choice % 3];
    const uint8_t index = input.byte();
    Netlink message =
        linkMessage(type, index == 0xFF ? input.number<int32_t>() : index % 8,
                    kHardware[choice / 48 % 3], choice / 3 % 16 == 15 ? AF_BRIDGE : AF_UNSPEC);
    addAttributes(input, {IFLA_IFNAME, IFLA_MTU, IFLA_LINKINFO, IFLA_PROP_LIST}, message);
    closeMessage(input, message);
    return message.bytes;
}

/// The interface that a whole message describes, according to the format alone.
inline std::optional<pmtud_linux::Link> expectedLink(Span padded) {
    const auto type = load<uint16_t>(padded, 4);
    if (type != RTM_NEWLINK && type != RTM_DELLINK) return std::nullopt;
    if (load<uint32_t>(padded) < kLinkHeaders) return std::nullopt;
    const auto info = load<ifinfomsg>(padded, Netlink::kHeader);
    if (info.ifi_family != AF_UNSPEC) return std::nullopt;
    const Span attributes = padded.subspan(kLinkHeaders);
    const auto mtus = payloadsOf(attributes, IFLA_MTU);
    if (type == RTM_NEWLINK && (payloadsOf(attributes, IFLA_IFNAME).empty() || mtus.empty()))
        return std::nullopt;
    pmtud_linux::Link link;
    link.ifindex = static_cast<uint32_t>(info.ifi_index);
    link.gone = type == RTM_DELLINK;
    link.ethernet = info.ifi_type == ARPHRD_ETHER;
    link.name = textOf(lastOf(attributes, IFLA_IFNAME));
    for (const Span mtu : mtus) {
        if (mtu.size() != 4) return std::nullopt;
        link.mtu = load<uint32_t>(mtu);
    }
    for (const Span list : payloadsOf(attributes, IFLA_PROP_LIST))
        for (const Span name : payloadsOf(list, IFLA_ALT_IFNAME))
            link.alternativeNames.push_back(textOf(name));
    for (const Span details : payloadsOf(attributes, IFLA_LINKINFO))
        for (const Span master : payloadsOf(details, IFLA_INFO_SLAVE_KIND))
            link.inVrf = textOf(master) == "vrf";
    return link;
}

// Packets of the log group.

constexpr size_t kLogHeaders = Netlink::kHeader + 4;

/// The contents of a message, according to the format alone.
struct Message {
    std::string prefix;
    uint32_t ingress;
    uint32_t egress;
    uint32_t mark;
    std::optional<uint32_t> sequence;
    Span linkHeader;
    Span payload;
};

/// Of a whole message that has the type of a logged packet.
inline std::optional<Message> expectedMessage(Span padded) {
    if (load<uint32_t>(padded) < kLogHeaders) return std::nullopt;
    const Span attributes = padded.subspan(kLogHeaders);
    for (const uint16_t type : {NFULA_IFINDEX_OUTDEV, NFULA_IFINDEX_INDEV, NFULA_MARK, NFULA_SEQ})
        for (const Span number : payloadsOf(attributes, type))
            if (number.size() != 4) return std::nullopt;
    Message message{.prefix = textOf(lastOf(attributes, NFULA_PREFIX)),
                    .ingress = bigEndian(lastOf(attributes, NFULA_IFINDEX_INDEV)),
                    .egress = bigEndian(lastOf(attributes, NFULA_IFINDEX_OUTDEV)),
                    .mark = bigEndian(lastOf(attributes, NFULA_MARK)),
                    .sequence = {},
                    .linkHeader = lastOf(attributes, NFULA_HWHEADER),
                    .payload = lastOf(attributes, NFULA_PAYLOAD)};
    const Span sequence = lastOf(attributes, NFULA_SEQ);
    if (!sequence.empty()) message.sequence = bigEndian(sequence);
    return message;
}

/// Mostly of the log group, with attributes that contradict each other or their lengths.
inline Bytes drawLogMessage(Input& input, uint8_t kind) {
    if (kind == 31) {
        const Span raw = input.bytes(input.byte());
        return {raw.begin(), raw.end()};
    }
    Netlink message(kind == 30 ? input.number<uint16_t>() : kLoggedPacket, 4);
    addAttributes(input,
                  {NFULA_PREFIX, NFULA_IFINDEX_INDEV, NFULA_IFINDEX_OUTDEV, NFULA_MARK, NFULA_SEQ,
                   NFULA_HWHEADER, NFULA_PAYLOAD},
                  message);
    closeMessage(input, message);
    return message.bytes;
}

}  // namespace fuzz

#endif
