// SPDX-License-Identifier: MIT
// Link messages for the fuzz targets: made from an input, and read by the rules of the format.
#ifndef PMTUD_TEST_FUZZ_LINK_MESSAGE_H
#define PMTUD_TEST_FUZZ_LINK_MESSAGE_H

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "input.h"
#include "netlink_message.h"
#include "vlan_table.h"

namespace fuzz {

constexpr std::size_t kLinkHeaders = kMessageHeader + sizeof(ifinfomsg);

/// What interfaces really are like; few numbers and names, so that they come again.
inline Bytes drawInterface(Input& input, uint8_t kind) {
    constexpr std::array<uint32_t, 8> kMtus = {1500, 1280, 9000, 576, 575, 16383, 16384, 1500};
    Bytes message(kLinkHeaders);
    const uint8_t choice = input.byte();
    store(message, 4, kind % 8 == 7 ? uint16_t{RTM_DELLINK} : uint16_t{RTM_NEWLINK});
    ifinfomsg link{};
    link.ifi_type = ARPHRD_ETHER;
    link.ifi_index = 1 + kind / 8 % 8;
    memcpy(message.data() + kMessageHeader, &link, sizeof link);
    const int vlan = choice % 4 == 3 ? link.ifi_index : 1 + choice % 4;
    const bool hasOther = kind >= 0xA0;
    addText(message, IFLA_IFNAME, (hasOther ? "eth0." : "bcm0.") + std::to_string(vlan));
    if (kind >= 0x80) {
        Bytes names;
        addText(names, IFLA_ALT_IFNAME, "uplink");
        addText(names, IFLA_ALT_IFNAME, "bcm0." + std::to_string(1 + choice / 32 % 4));
        if (hasOther) addText(names, IFLA_ALT_IFNAME, "bcm0." + std::to_string(vlan));
        addAttribute(message, IFLA_PROP_LIST, names);
    }
    Bytes mtu(4);
    store(mtu, 0, kMtus[choice / 4 % 8]);
    addAttribute(message, IFLA_MTU, mtu);
    constexpr std::array<const char*, 4> kMasters = {"vrf", "bridge", "vrfs", "vr"};
    if (choice >= 0xC0) {
        Bytes kinds;
        addText(kinds, IFLA_INFO_KIND, "vlan");
        addText(kinds, IFLA_INFO_SLAVE_KIND, kMasters[choice / 4 % 4]);
        addAttribute(message, IFLA_LINKINFO, kinds);
    }
    store(message, 0, static_cast<uint32_t>(message.size()));
    return message;
}

inline Bytes drawLinkMessage(Input& input) {
    constexpr std::array<uint16_t, 3> kTypes = {RTM_NEWLINK, RTM_NEWLINK, RTM_DELLINK};
    constexpr std::array<uint16_t, 3> kHardware = {ARPHRD_ETHER, ARPHRD_ETHER, ARPHRD_LOOPBACK};
    const uint8_t form = input.byte();
    if (form < 0xC0) return drawInterface(input, form);
    Bytes message(kLinkHeaders);
    const uint8_t kind = input.byte();
    store(message, 4, kind == 0xFF ? input.number<uint16_t>() : kTypes[kind % 3]);
    ifinfomsg link{};
    link.ifi_family = kind / 3 % 16 == 15 ? AF_BRIDGE : AF_UNSPEC;
    link.ifi_type = kHardware[kind / 48 % 3];
    const uint8_t index = input.byte();
    link.ifi_index = index == 0xFF ? input.number<int32_t>() : index % 8;
    memcpy(message.data() + kMessageHeader, &link, sizeof link);
    addAttributes(input, {IFLA_IFNAME, IFLA_MTU, IFLA_LINKINFO, IFLA_PROP_LIST}, message);
    closeMessage(input, message);
    return message;
}

inline bool take(pmtud_linux::Link& link, uint16_t type, Span payload) {
    if (type == IFLA_MTU && payload.size() != 4) return false;
    if (type == IFLA_IFNAME) link.name = textOf(payload);
    if (type == IFLA_MTU) link.mtu = load<uint32_t>(payload);
    if (type != IFLA_LINKINFO && type != IFLA_PROP_LIST) return true;
    return forEachAttribute(payload, [&](uint16_t nested, Span text) {
        if (type == IFLA_PROP_LIST && nested == IFLA_ALT_IFNAME)
            link.alternativeNames.push_back(textOf(text));
        if (type == IFLA_LINKINFO && nested == IFLA_INFO_SLAVE_KIND)
            link.inVrf = textOf(text) == "vrf";
        return true;
    });
}

/// What a whole message tells of an interface, by the rules of the format alone.
inline std::optional<pmtud_linux::Link> expectedLink(Span padded) {
    const auto type = load<uint16_t>(padded, 4);
    if (type != RTM_NEWLINK && type != RTM_DELLINK) return std::nullopt;
    if (load<uint32_t>(padded) < kLinkHeaders) return std::nullopt;
    const auto info = load<ifinfomsg>(padded, kMessageHeader);
    if (info.ifi_family != AF_UNSPEC) return std::nullopt;
    pmtud_linux::Link link;
    const auto takeOne = [&](uint16_t kind, Span payload) { return take(link, kind, payload); };
    if (!forEachAttribute(padded.subspan(kLinkHeaders), takeOne)) return std::nullopt;
    link.ifindex = static_cast<uint32_t>(info.ifi_index);
    link.gone = type == RTM_DELLINK;
    link.ethernet = info.ifi_type == ARPHRD_ETHER;
    return link;
}

/// The interfaces' names, and the VLAN of each.
inline const std::map<std::string, int>& vlansByName() {
    static const std::map<std::string, int> vlans = [] {
        std::map<std::string, int> all;
        for (int vlan = 1; vlan <= 4094; ++vlan) all["bcm0." + std::to_string(vlan)] = vlan;
        return all;
    }();
    return vlans;
}

/// The VLANs that the interface's names stand for, the lowest first.
inline std::set<int> vlansOf(const pmtud_linux::Link& link) {
    std::set<int> vlans;
    std::vector<std::string> names = link.alternativeNames;
    names.push_back(link.name);
    for (const std::string& name : names)
        if (const auto found = vlansByName().find(name); found != vlansByName().end())
            vlans.insert(found->second);
    return vlans;
}

/// A name leads to one interface, and an interface is the lowest VLAN that it has a name of.
inline void follow(pmtud_linux::Vlans& vlans, const pmtud_linux::Link& link) {
    std::erase_if(vlans, [&](const auto& known) { return known.second.ifindex == link.ifindex; });
    const std::set<int> named = vlansOf(link);
    if (link.gone || !link.ethernet || named.empty()) return;
    const int next = named.size() == 1 ? 0 : *++named.begin();
    vlans[*named.begin()] = {link.ifindex, link.mtu, link.inVrf, next};
}

/// The VLAN of the interface, or 0.
inline int vlanOf(const pmtud_linux::Vlans& vlans, uint32_t ifindex) {
    for (const auto& [number, vlan] : vlans)
        if (vlan.ifindex == ifindex) return number;
    return 0;
}

}  // namespace fuzz

#endif
