// SPDX-License-Identifier: MIT
// Fuzzes what the platform for stock Linux makes of link messages: interfaces, VLANs and rules.
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "guarded_memory.h"
#include "input.h"
#include "link_message.h"
#include "links.h"
#include "netlink_message.h"
#include "rules_model.h"
#include "ruleset.h"
#include "vlan_name.h"
#include "vlan_table.h"

using fuzz::Bytes;
using fuzz::GuardedMemory;
using fuzz::Input;
using fuzz::load;
using fuzz::require;
using fuzz::RulesModel;
using fuzz::Span;
using pmtud_linux::Link;
using pmtud_linux::Vlan;
using pmtud_linux::Vlans;
using pmtud_linux::VlanTable;

namespace {

constexpr int messagesPerInput = 24;
// What the daemon is to read in the message, by the rules of the format alone.

std::string textOf(Span bytes) {
    const auto end = std::find(bytes.begin(), bytes.end(), uint8_t{0});
    return {bytes.begin(), end};
}

bool isWhole(Span message) {
    if (message.size() < fuzz::messageHeader) return false;
    const std::size_t claimed = load<uint32_t>(message);
    return claimed >= fuzz::messageHeader && claimed <= message.size();
}

struct Told {
    Link link;
    std::string kind;
    bool otherNamespace = false;
};

bool take(Told& told, uint16_t type, Span payload) {
    if ((type == IFLA_MTU || type == IFLA_LINK) && payload.size() != 4) return false;
    if (type == IFLA_IFNAME) told.link.name = textOf(payload);
    if (type == IFLA_MTU) told.link.mtu = load<uint32_t>(payload);
    if (type == IFLA_LINK) told.link.lower = load<uint32_t>(payload);
    if (type == IFLA_LINK_NETNSID) told.otherNamespace = true;
    if (type != IFLA_LINKINFO) return true;
    return fuzz::forEachAttribute(payload, [&](uint16_t nested, Span text) {
        if (nested == IFLA_INFO_KIND) told.kind = textOf(text);
        return true;
    });
}

// Of a whole message; `padded` goes as far as the aligned length that it claims.
std::optional<Link> expectedLink(Span padded) {
    const auto type = load<uint16_t>(padded, 4);
    if (type != RTM_NEWLINK && type != RTM_DELLINK) return std::nullopt;
    if (load<uint32_t>(padded) < fuzz::linkHeaders) return std::nullopt;
    const auto info = load<ifinfomsg>(padded, fuzz::messageHeader);
    if (info.ifi_family != AF_UNSPEC) return std::nullopt;
    Told told;
    const auto takeOne = [&](uint16_t kind, Span payload) { return take(told, kind, payload); };
    if (!fuzz::forEachAttribute(padded.subspan(fuzz::linkHeaders), takeOne)) return std::nullopt;
    told.link.ifindex = static_cast<uint32_t>(info.ifi_index);
    told.link.gone = type == RTM_DELLINK;
    told.link.ethernet = info.ifi_type == ARPHRD_ETHER;
    if (told.otherNamespace || told.kind == "veth") told.link.lower = 0;
    return told.link;
}

void checkLink(const std::optional<Link>& read, const std::optional<Link>& expected) {
    require(read.has_value() == expected.has_value(), "what tells of an interface");
    if (!read) return;
    require(read->ifindex == expected->ifindex && read->gone == expected->gone, "which one");
    require(read->ethernet == expected->ethernet, "its hardware");
    require(read->name == expected->name, "its name");
    require(read->mtu == expected->mtu && read->lower == expected->lower, "MTU, and what is below");
}

std::optional<Link> decode(Span message) {
    static GuardedMemory memory(fuzz::largestMessage);
    // Netlink pads every message; libmnl reads the last attribute into the padding.
    const std::size_t claimed = load<uint32_t>(message);
    const std::size_t size = fuzz::aligned(claimed);
    const uint8_t* const placed = memory.place(message, size);
    std::optional<Link> read = pmtud_linux::decodeLink(*reinterpret_cast<const nlmsghdr*>(placed));
    checkLink(read, expectedLink({placed, size}));
    return read;
}

// Names.

const std::map<std::string, int>& vlansByName() {
    static const std::map<std::string, int> vlans = [] {
        std::map<std::string, int> all;
        for (int vlan = 1; vlan <= 4094; ++vlan) all["bcm0." + std::to_string(vlan)] = vlan;
        return all;
    }();
    return vlans;
}

void checkName(const std::string& name) {
    const auto found = vlansByName().find(name);
    const int vlan = found == vlansByName().end() ? 0 : found->second;
    require(pmtud_linux::vlanOfName(name) == vlan, "the VLAN of a name");
    if (vlan != 0) require(pmtud_linux::nameOfVlan(vlan) == name, "the name of a VLAN");
    ifreq request;
    memset(&request, 0xEE, sizeof request);
    const bool fits = name.size() < sizeof request.ifr_name;
    require(pmtud_linux::putName(request, name) == fits, "which names fit a request");
    if (!fits) return;
    std::array<char, sizeof request.ifr_name> expected{};
    std::copy(name.begin(), name.end(), expected.begin());
    require(memcmp(request.ifr_name, expected.data(), expected.size()) == 0, "name in a request");
}

// The table: a name leads to one interface, and an interface has one name.

void follow(Vlans& expected, const Link& link) {
    std::erase_if(expected,
                  [&](const auto& known) { return known.second.ifindex == link.ifindex; });
    const auto vlan = vlansByName().find(link.name);
    if (link.gone || !link.ethernet || vlan == vlansByName().end()) return;
    expected[vlan->second] = Vlan{link.ifindex, link.mtu, link.lower};
}

void apply(const Link& link, VlanTable& table, Vlans& expected) {
    const Vlans before = expected;
    follow(expected, link);
    require(table.apply(link) == (before != expected), "what changes the table");
    require(table.vlans() == expected, "the VLANs that there are");
    for (uint32_t ifindex = 0; ifindex < 9; ++ifindex) {
        const auto isIt = [&](const auto& known) { return known.second.ifindex == ifindex; };
        const auto found = std::find_if(expected.begin(), expected.end(), isIt);
        require(table.vlanOf(ifindex) == (found == expected.end() ? 0 : found->first),
                "the VLAN of an interface");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    VlanTable table;
    Vlans expected;
    Vlans installed;
    RulesModel rules;
    for (int count = 0; count < messagesPerInput && !input.exhausted(); ++count) {
        const Bytes message = fuzz::drawLinkMessage(input);
        if (!isWhole(message)) continue;
        const auto link = decode(message);
        if (!link) continue;
        checkName(link->name);
        apply(*link, table, expected);
        // Not after every message, so that a change covers several.
        if (input.byte() % 2 == 0) continue;
        rules.run(pmtud_linux::changeText(installed, table.vlans()));
        installed = table.vlans();
        RulesModel fresh;
        fresh.run(pmtud_linux::changeText({}, installed));
        require(rules == fresh, "a change leads to the rules that a new table would have");
    }
    return 0;
}
