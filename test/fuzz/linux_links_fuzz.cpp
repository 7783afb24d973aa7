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
#include "link.h"
#include "link_message.h"
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

constexpr int kMessagesPerInput = 24;

bool isWhole(Span message) {
    if (message.size() < fuzz::kMessageHeader) return false;
    const std::size_t claimed = load<uint32_t>(message);
    return claimed >= fuzz::kMessageHeader && claimed <= message.size();
}

void checkLink(const std::optional<Link>& read, const std::optional<Link>& expected) {
    require(read.has_value() == expected.has_value(), "which messages describe an interface");
    if (!read) return;
    require(read->ifindex == expected->ifindex && read->gone == expected->gone, "which one");
    require(read->ethernet == expected->ethernet, "its hardware");
    require(read->name == expected->name, "its name");
    require(read->alternativeNames == expected->alternativeNames, "its alternative names");
    require(read->mtu == expected->mtu && read->inVrf == expected->inVrf, "its MTU and its master");
}

std::optional<Link> decode(Span message) {
    static GuardedMemory memory(fuzz::kLargestMessage);
    // Netlink pads every message; libmnl reads the last attribute into the padding.
    const std::size_t claimed = load<uint32_t>(message);
    const std::size_t size = fuzz::aligned(claimed);
    const uint8_t* const placed = memory.place(message, size);
    std::optional<Link> read = pmtud_linux::decodeLink(*reinterpret_cast<const nlmsghdr*>(placed));
    checkLink(read, fuzz::expectedLink({placed, size}));
    return read;
}

// Names.

void checkName(const std::string& name) {
    const auto found = fuzz::vlansByName().find(name);
    const int vlan = found == fuzz::vlansByName().end() ? 0 : found->second;
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

void apply(const Link& link, VlanTable& table, Vlans& expected) {
    const Vlans before = expected;
    fuzz::follow(expected, link);
    require(table.apply(link) == (before != expected), "what changes the table");
    require(table.vlans() == expected, "the VLANs that there are");
    for (uint32_t ifindex = 0; ifindex < 10; ++ifindex)
        require(table.vlanOf(ifindex) == fuzz::vlanOf(expected, ifindex),
                "the VLAN of an interface");
}

RulesModel emptyTable() {
    RulesModel rules;
    rules.install(pmtud_linux::tableText());
    return rules;
}

void change(RulesModel& rules, const Vlans& before, const Vlans& after) {
    static const RulesModel empty = emptyTable();
    const RulesModel old = rules;
    rules.run(pmtud_linux::changeText(before, after));
    rules.requireKept(old);
    rules.requireFitsTo(after);
    RulesModel fresh = empty;
    fresh.run(pmtud_linux::changeText({}, after));
    require(rules == fresh, "a change leads to the rules that a new table would have");
    require(pmtud_linux::changeText(after, after).empty(), "without a change there is no command");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    VlanTable table;
    Vlans expected;
    Vlans installed;
    RulesModel rules = emptyTable();
    for (int count = 0; count < kMessagesPerInput && !input.exhausted(); ++count) {
        const Bytes message = fuzz::drawLinkMessage(input);
        if (!isWhole(message)) continue;
        const auto link = decode(message);
        if (!link) continue;
        checkName(link->name);
        apply(*link, table, expected);
        // Not after every message, so that a change covers several.
        if (input.byte() % 2 == 0) continue;
        change(rules, installed, table.vlans());
        installed = table.vlans();
    }
    return 0;
}
